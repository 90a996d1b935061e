#pragma once

namespace corvelle {

// Each adds the node types of one family to OperatorRegistry::instance().
void registerSourceOperators();       // Scalp, Guides, ColliderMesh
void registerShapeOperators();        // Length, Width, Resample, Output
void registerScatterOperator();       // Scatter
void registerInterpolateOperator();   // Interpolate
void registerLookOperators();         // Clump, Noise, ToGuides
void registerMirrorOperator();        // Mirror
void registerMeshCutOperator();       // MeshCut
void registerTransformOperators();    // Bend, Direction, Transform
void registerColorOperators();        // HairColor
void registerDeformOperators();       // Collide, Comb, Displace, Gravity, Part
void registerNeighborOperators();     // BlendNeighbors, RestoreLength
void registerCinematicOperators();    // Flow, Flyaway, Tangle
void registerExtraOperators();        // Cull, Smooth, Straighten, ToStrands, Twist
void registerCompoundOperators();     // Compound, Input
void registerFieldOperators();        // Curve, Control, Expression, FieldNoise, FieldRemap, FieldCombine, Map
void registerAlembicOperators();    // ImportCurves

/// All of them, once: call it before any graph is made. Later calls do nothing.
void registerOperators();

}  // namespace corvelle

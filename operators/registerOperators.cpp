#include "operators/registerOperators.h"

#include <mutex>

#include "operators/nodeFactories.h"

namespace corvelle {

void registerShapeOperators() {
    OperatorRegistry& registry = OperatorRegistry::instance();
    registry.add("Length", makeLength);
    registry.add("Output", makeOutput);
    registry.add("Resample", makeResample);
    registry.add("Width", makeWidth);
}

void registerLookOperators() {
    OperatorRegistry& registry = OperatorRegistry::instance();
    registry.add("Clump", makeClump);
    registry.add("Noise", makeNoise);
    registry.add("ToGuides", makeToGuides);
}

void registerCurlOperator() { OperatorRegistry::instance().add("Curl", makeCurl); }

void registerTransformOperators() {
    OperatorRegistry& registry = OperatorRegistry::instance();
    registry.add("Bend", makeBend);
    registry.add("Direction", makeDirection);
    registry.add("Transform", makeTransform);
}

void registerColorOperators() { OperatorRegistry::instance().add("HairColor", makeHairColor); }

void registerDeformOperators() {
    OperatorRegistry& registry = OperatorRegistry::instance();
    registry.add("Collide", makeCollide);
    registry.add("Comb", makeComb);
    registry.add("Displace", makeDisplace);
    registry.add("Gravity", makeGravity);
    registry.add("Part", makePart);
}

void registerNeighborOperators() {
    OperatorRegistry& registry = OperatorRegistry::instance();
    registry.add("BlendNeighbors", makeBlendNeighbors);
    registry.add("RestoreLength", makeRestoreLength);
}

void registerCinematicOperators() {
    OperatorRegistry& registry = OperatorRegistry::instance();
    registry.add("Flow", makeFlow);
    registry.add("Flyaway", makeFlyaway);
    registry.add("Tangle", makeTangle);
}

void registerExtraOperators() {
    OperatorRegistry& registry = OperatorRegistry::instance();
    registry.add("Cull", makeCull);
    registry.add("Smooth", makeSmooth);
    registry.add("Straighten", makeStraighten);
    registry.add("ToStrands", makeToStrands);
    registry.add("Twist", makeTwist);
}

void registerOperators() {
    static std::once_flag once;
    std::call_once(once, [] {
        registerSourceOperators();
        registerShapeOperators();
        registerScatterOperator();
        registerInterpolateOperator();
        registerCurlOperator();
        registerLookOperators();
        registerTransformOperators();
        registerMirrorOperator();
        registerMeshCutOperator();
        registerColorOperators();
        registerDeformOperators();
        registerNeighborOperators();
        registerCinematicOperators();
        registerExtraOperators();
        registerFieldOperators();
        registerCompoundOperators();
        registerAlembicOperators();
    });
}

}  // namespace corvelle

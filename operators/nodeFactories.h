#pragma once

#include "graph/operator.h"

namespace corvelle {

// The node types whose source holds one type, made for the registry.
OperatorPtr makeBend();
OperatorPtr makeBlendNeighbors();
OperatorPtr makeClump();
OperatorPtr makeCollide();
OperatorPtr makeComb();
OperatorPtr makeCull();
OperatorPtr makeDirection();
OperatorPtr makeDisplace();
OperatorPtr makeFlow();
OperatorPtr makeFlyaway();
OperatorPtr makeGravity();
OperatorPtr makeHairColor();
OperatorPtr makeLength();
OperatorPtr makeNoise();
OperatorPtr makeOutput();
OperatorPtr makePart();
OperatorPtr makeResample();
OperatorPtr makeRestoreLength();
OperatorPtr makeSmooth();
OperatorPtr makeStraighten();
OperatorPtr makeTangle();
OperatorPtr makeToGuides();
OperatorPtr makeToStrands();
OperatorPtr makeTransform();
OperatorPtr makeTwist();
OperatorPtr makeWidth();

}  // namespace corvelle

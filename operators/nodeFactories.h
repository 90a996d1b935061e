#pragma once

#include "graph/operator.h"

namespace corvelle {

// The node types whose source holds one type, made for the registry.
OperatorPtr makeBend();
OperatorPtr makeClump();
OperatorPtr makeBlendNeighbors();
OperatorPtr makeCollide();
OperatorPtr makeComb();
OperatorPtr makeCull();
OperatorPtr makeCurl();
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
OperatorPtr makeToGuides();
OperatorPtr makeToStrands();
OperatorPtr makeTangle();
OperatorPtr makeTransform();
OperatorPtr makeTwist();
OperatorPtr makeWidth();

}  // namespace corvelle

#pragma once

#include "graph/operator.h"

namespace corvelle {

// The node types whose source holds one type, made for the registry.
OperatorPtr makeBend();
OperatorPtr makeClump();
OperatorPtr makeCollide();
OperatorPtr makeComb();
OperatorPtr makeDirection();
OperatorPtr makeDisplace();
OperatorPtr makeHairColor();
OperatorPtr makeLength();
OperatorPtr makeNoise();
OperatorPtr makeOutput();
OperatorPtr makeResample();
OperatorPtr makeSmooth();
OperatorPtr makeStraighten();
OperatorPtr makeTransform();
OperatorPtr makeWidth();

}  // namespace corvelle

#pragma once

#include "graph/operator.h"

namespace corvelle {

// The node types whose source holds one type, made for the registry.
OperatorPtr makeBend();
OperatorPtr makeClump();
OperatorPtr makeCollide();
OperatorPtr makeComb();
OperatorPtr makeCull();
OperatorPtr makeDirection();
OperatorPtr makeDisplace();
OperatorPtr makeHairColor();
OperatorPtr makeLength();
OperatorPtr makeNoise();
OperatorPtr makeOutput();
OperatorPtr makeResample();
OperatorPtr makeRestoreLength();
OperatorPtr makeSmooth();
OperatorPtr makeStraighten();
OperatorPtr makeToGuides();
OperatorPtr makeToStrands();
OperatorPtr makeTransform();
OperatorPtr makeWidth();

}  // namespace corvelle

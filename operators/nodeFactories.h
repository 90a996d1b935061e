#pragma once

#include "graph/operator.h"

namespace corvelle {

// The node types whose source holds one type, made for the registry.
OperatorPtr makeBend();
OperatorPtr makeDirection();
OperatorPtr makeHairColor();
OperatorPtr makeLength();
OperatorPtr makeNoise();
OperatorPtr makeOutput();
OperatorPtr makeResample();
OperatorPtr makeTransform();
OperatorPtr makeWidth();

}  // namespace corvelle

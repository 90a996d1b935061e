#pragma once

#include <vector>

#include "graph/paramValue.h"

namespace corvelle {

/// The params of Clump, in panel order.
const std::vector<ParamSpec>& clumpParams();

}  // namespace corvelle

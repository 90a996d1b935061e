#pragma once

#include <vector>

#include "graph/paramValue.h"

namespace corvelle {

/// The params of Curl, in panel order.
const std::vector<ParamSpec>& curlParams();

}  // namespace corvelle

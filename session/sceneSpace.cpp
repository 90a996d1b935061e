#include "session/sceneSpace.h"

#include <stdexcept>
#include <utility>

namespace corvelle {

SceneSpace::SceneSpace(std::string upAxis, double metersPerUnit)
    : upAxis_(std::move(upAxis)),
      metersPerUnit_(metersPerUnit),
      centimetersPerUnit_(metersPerUnit * 100.0),
      zUp_(upAxis_ == "Z") {
    if (upAxis_ != "Y" && upAxis_ != "Z")
        throw std::invalid_argument("space.upAxis is \"Y\" or \"Z\", not \"" + upAxis_ + "\"");
    // The comparison also refuses NaN.
    if (!(metersPerUnit > 0.0 && metersPerUnit <= 1e6))
        throw std::invalid_argument("space.metersPerUnit must be above 0");
}

}  // namespace corvelle

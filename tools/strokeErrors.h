#pragma once

#include <stdexcept>

namespace corvelle {

// Why a stroke cannot begin, where it is not the settings' fault. Each is told as its message says.

/// What the groom is or lacks: no scalp, a param driven otherwise, no guides to hang new ones on.
struct StrokeStateError : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
};
/// A map or a group of guides that the settings name is not there.
struct StrokeNotFound : std::invalid_argument {
    using std::invalid_argument::invalid_argument;
};

}  // namespace corvelle

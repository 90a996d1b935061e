#pragma once

#include <stdexcept>

namespace corvelle {

/// A `.groom` file that cannot be read or written. The text is for the user.
struct GroomFileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace corvelle

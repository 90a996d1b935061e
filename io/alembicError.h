#pragma once

#include <stdexcept>

namespace corvelle {

/// An Alembic file that cannot be read or written. The text is for the user.
struct AlembicError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace corvelle

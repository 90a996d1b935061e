#pragma once

#include <stdexcept>

namespace corvelle {

/// A graph, a node or a param is not as it should be. The text is for the user.
struct GraphError : std::runtime_error {
    using std::runtime_error::runtime_error;
};
/// JSON that is not of the shape a format asks for.
struct SchemaError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace corvelle

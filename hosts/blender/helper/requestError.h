#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace corvelle {

/// What the protocol reports on purpose: a code a host can act on and a text for the user.
class RequestError : public std::runtime_error {
public:
    RequestError(std::string code, const std::string& message)
        : std::runtime_error(message), code_(std::move(code)) {}
    const std::string& code() const noexcept { return code_; }

private:
    std::string code_;
};

/// Fails a request. Codes in use: bad_request, parse, graph, not_found, state, type_mismatch,
/// unsupported, unknown_command, no_session, protocol, shared_memory, evaluation, io,
/// out_of_memory, internal.
[[noreturn]] inline void failRequest(std::string code, const std::string& message) {
    throw RequestError(std::move(code), message);
}

}  // namespace corvelle

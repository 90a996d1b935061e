#include "hosts/blender/helper/lineLoop.h"

#include <new>

#include "hosts/blender/helper/handle.h"

namespace corvelle {
namespace {

// Brackets within strings do not count. A line that is no JSON may get any answer.
bool nestsTooDeep(std::string_view line) {
    std::size_t depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '"') {
            inString = !inString;
        } else if (inString) {
            if (c == '\\') ++i;
        } else if (c == '[' || c == '{') {
            if (++depth > kDeepestNesting) return true;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return false;
}

std::string textOf(const Json& reply) {
    std::string text = reply.dump(-1, ' ', false, Json::error_handler_t::replace);
    text += '\n';
    return text;
}

std::string replyTo(HelperState& state, std::string_view line) {
    Json request(Json::value_t::discarded);
    if (!nestsTooDeep(line)) request = Json::parse(line, nullptr, false);
    if (request.is_discarded()) return textOf(failureReply(nullptr, "bad_request", "not a JSON line"));
    return textOf(handle(state, request));
}

}  // namespace

std::optional<std::string> answerLine(HelperState& state, std::string_view line) noexcept {
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.find_first_not_of(" \t") == std::string_view::npos) return std::nullopt;
    try {
        return replyTo(state, line);
    } catch (const std::bad_alloc&) {
        // Outside of any command: a huge line, or a huge reply. All that was taken is free again.
        return textOf(failureReply(nullptr, "out_of_memory", "out of memory"));
    }
}

void runLineLoop(std::istream& in, std::FILE* replies, HelperState& state) {
    std::string line;
    while (!state.shutdownRequested && std::getline(in, line)) {
        const std::optional<std::string> reply = answerLine(state, line);
        if (!reply) continue;
        std::fwrite(reply->data(), 1, reply->size(), replies);
        std::fflush(replies);
    }
}

}  // namespace corvelle

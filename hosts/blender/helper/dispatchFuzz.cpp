// Feeds lines to the process's own reader and dispatch. The input is text, split at its LFs; every
// line must have one well-formed reply, or none if it is blank.
//     build/fuzz/bin/dispatchFuzz -max_total_time=60 -dict=hosts/blender/helper/dispatchFuzz.dict
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "hosts/blender/helper/lineLoop.h"
#include "hosts/blender/helper/request.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    corvelle::HelperState state;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        const auto reply = corvelle::answerLine(state, line);
        if (reply && (!reply->ends_with('\n') || !corvelle::Json::accept(*reply))) std::abort();
        text.remove_prefix(line.size() == text.size() ? line.size() : line.size() + 1);
    }
    return 0;
}

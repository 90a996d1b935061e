// Any bytes as the JSON of a graph. A graph that reads is written, reads again as the same graph,
// and evaluates or says why not.
//     build/fuzz/bin/graphJsonFuzz graph/graphJsonFuzz.corpus -max_total_time=60
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <nlohmann/json.hpp>

#include "graph/graphEdit.h"
#include "graph/graphError.h"
#include "graph/graphJson.h"
#include "graph/rampText.h"
#include "graph/testing/testOperators.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvelle;
    if (size > 20'000) return 0;
    registerTestOperators();
    try {
        nlohmann::json text =
            parseJsonText(std::string_view(reinterpret_cast<const char*>(data), size), "graph");
        const nlohmann::json written = graphToJson(graphFromJson(text));
        require(graphToJson(graphFromJson(written)) == written);
        scaleGraph(text, 1.5);
        if (const auto nodes = text.find("nodes"); nodes != text.end() && nodes->is_array())
            for (nlohmann::json& node : *nodes) normalizeNode(node);
        require(graphToJson(graphFromJson(text)).contains("output"));
        (void)seedCollisions(text);
    } catch (const GraphError& error) {
        require(error.what()[0] != '\0');
    } catch (const SchemaError& error) {
        require(error.what()[0] != '\0');
    }
    return 0;
}

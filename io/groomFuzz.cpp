// Any bytes as the text of a `.groom` file. What is read is written, and what is written is read
// again and gives the same bytes. The scan of the text takes what the JSON library takes.
//     build/fuzz/bin/groomFuzz io/groomFuzz.corpus -max_total_time=60
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <nlohmann/json.hpp>

#include "io/groomAxis.h"
#include "io/groomReader.h"
#include "io/groomWriter.h"
#include "io/jsonScan.h"

namespace {

using namespace corvelle;

void require(bool condition) {
    if (!condition) std::abort();
}

void compareWithLibrary(const std::string& text) {
    if (text.find('\0') != std::string::npos) return;  // the library stops at one
    const JsonScan scan(text);
    if (scan.fault().what == "nested deeper than 512") return;
    require(nlohmann::json::accept(text) == !scan.fault().any());
    if (!scan.fault().any())
        require(compactJson(scan.root()) == nlohmann::json::parse(text).dump());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 100'000) return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    compareWithLibrary(text);
    GroomFile file;
    std::string written;
    try {
        file = readGroomFileText(text, "");
        written = groomFileText(file);
    } catch (const GroomFileError& error) {
        require(error.what()[0] != '\0');
        return 0;
    }
    const GroomFile again = readGroomFileText(written, "");
    require(groomFileText(again) == written);
    try {
        GroomFile turned = again;
        convertGroomFileUpAxis(turned, file.upAxis == "Z" ? "Y" : "Z");
        convertGroomFileUpAxis(turned, checkedUpAxis(file.upAxis));
        require(!turned.scalp || turned.scalp->fullHash() == again.scalp->fullHash());
    } catch (const GroomFileError& error) {
        require(error.what()[0] != '\0');
    }
    return 0;
}

// Any bytes as an Alembic file: it is read at some times, or refused with a text. What is read
// holds together. The library is not instrumented; what it would stumble over must be refused
// before.
//     build/fuzz/bin/alembicFuzz io/alembicFuzz.corpus -max_total_time=60
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>

#include "io/alembicReader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace corvelle;
    const auto require = [](bool condition) {
        if (!condition) std::abort();
    };
    try {
        const AlembicCurves file(std::make_unique<std::istringstream>(
                                     std::string(reinterpret_cast<const char*>(data), size)),
                                 "fuzz");
        for (const double seconds : {-1.0, 0.0, 0.05, 1e9}) {
            file.samplesAt("", seconds);
            const CurveSet read = file.readUnder("", seconds);
            const auto total =
                std::accumulate(read.counts.begin(), read.counts.end(), std::int64_t(0));
            require(total == std::int64_t(read.points.size()));
            require(read.widths.empty() || read.widths.size() == read.points.size());
            require(read.uvs.empty() || read.uvs.size() == read.counts.size());
            require(read.ids.empty() || read.ids.size() == read.counts.size());
        }
        file.range("");
        for (const std::string& object : file.objects()) file.read(object, 0.0);
    } catch (const AlembicError& error) {
        require(error.what()[0] != '\0');
    }
    return 0;
}

// What the fuzz target alembicFuzz.cpp keeps as its corpus: every file there must be good and
// whole.

#include <filesystem>

#include <gmock/gmock.h>

#include "io/alembicReader.h"

namespace corvelle {
namespace {

TEST(AlembicFuzz, TheCorpusIsOfFilesThatRead) {
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CORVELLE_ALEMBIC_CORPUS)) {
        EXPECT_FALSE(AlembicCurves(entry.path().string()).objects().empty()) << entry.path();
        ++files;
    }
    EXPECT_GE(files, 4u);
}

}  // namespace
}  // namespace corvelle

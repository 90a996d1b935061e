#pragma once

// Runs of frames that writers must bring through, whatever the format, and a folder for their
// files.

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "io/exportFrame.h"
#include "model/hash.h"
#include "model/testing/tuft.h"

namespace corvelle {

/// One frame that owns what its views show.
struct OwnedFrame {
    StrandSet strands;
    std::vector<Vec2f> uvs;
    std::vector<Vec3f> colors, pointColors;
    std::vector<GuideShares> shares;
    StrandFrame view() const { return {&strands, uvs, colors, pointColors, shares}; }
};

struct ExportCase {
    std::string name;
    std::vector<OwnedFrame> frames;
};

/// Strands moved by `frame`, with uvs and colours that tell them apart.
inline OwnedFrame ownedFrame(StrandSet strands, int frame = 0) {
    OwnedFrame out{std::move(strands), {}, {}, {}, {}};
    for (Vec3f& p : out.strands.mutablePoints())
        p += Vec3f{0.1f, 0.0f, -0.03f} * float(frame) * p.y;
    for (const std::uint64_t id : out.strands.ids()) {
        const float tone = unitHash(id);
        out.uvs.push_back({tone, 1.0f - tone});
        out.colors.push_back({tone, 0.5f * tone, 0.1f});
    }
    return out;
}

inline StrandSet lineStrands(
    const std::vector<std::pair<std::uint64_t, std::size_t>>& idsAndPoints) {
    StrandSet out;
    for (const auto& [id, count] : idsAndPoints) {
        std::vector<Vec3f> points;
        std::vector<float> widths;
        for (std::size_t i = 0; i < count; ++i) {
            points.push_back({0.01f * float(id % 97), 0.1f * float(i), 0.3f});
            widths.push_back(0.01f / float(i + 1));
        }
        out.addStrand(id, points, widths, {});
    }
    return out;
}

inline std::vector<ExportCase> exportCases() {
    std::vector<ExportCase> cases;
    const auto add = [&](std::string name, int frames,
                         const std::function<StrandSet(int)>& strands) {
        ExportCase made{std::move(name), {}};
        for (int f = 0; f < frames; ++f) made.frames.push_back(ownedFrame(strands(f), f));
        cases.push_back(std::move(made));
    };
    const std::uint64_t high = std::uint64_t(1) << 63;
    add("empty", 3, [](int) { return StrandSet(); });
    add("oneStrand", 2, [](int) { return lineStrands({{7, 5}}); });
    add("twoPoints", 3, [](int) { return makeTuft({.strands = 50, .pointsPerStrand = 2}); });
    add("uneven", 3,
        [](int) { return makeTuft({.strands = 80, .pointsPerStrand = 9, .uneven = true}); });
    add("varyingCounts", 4, [](int f) {
        return makeTuft(
            {.strands = std::size_t(40 + 13 * (f % 3)), .pointsPerStrand = std::size_t(4 + f)});
    });
    add("comesLate", 3, [](int f) { return f == 0 ? StrandSet() : makeTuft({.strands = 20}); });
    add("goes", 3, [](int f) { return f == 2 ? StrandSet() : makeTuft({.strands = 20}); });
    add("points255", 2, [](int) { return lineStrands({{1, 255}, {2, 3}}); });
    add("points256", 2, [](int) { return lineStrands({{1, 256}, {2, 3}}); });
    add("highIds", 2, [=](int) {
        return lineStrands(
            {{high, 3}, {high + 5, 3}, {~std::uint64_t(0), 3}, {std::uint64_t(1) << 32, 4}});
    });
    add("oddChannels", 2, [](int) {
        StrandSet out = makeTuft({.strands = 10});
        for (const char* name :
             {"a b", "1st", "", "st", "widths", "schön", "a-b", "a_b", "share", "_hidden", "x\ny"})
            out.mutableStrandChannel(name, 0.25f);
        out.mutablePointChannel("share", 0.5f);
        out.mutablePointChannel("roughness", 0.3f);
        out.mutableStrandChannel("ao", 0.7f);
        return out;
    });
    add("manyFrames", 300, [](int) { return makeTuft({.strands = 5, .pointsPerStrand = 4}); });
    return cases;
}

/// A folder of its own that goes with it.
class ScratchFolder {
public:
    ScratchFolder() {
        static int number = 0;
        path_ = std::filesystem::temp_directory_path() /
                ("corvelleExport" + std::to_string(::getpid()) + "_" + std::to_string(++number));
        std::filesystem::create_directories(path_);
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const std::string& name) const { return (path_ / name).string(); }
    std::size_t fileCount() const {
        return std::size_t(std::distance(std::filesystem::directory_iterator(path_), {}));
    }

private:
    std::filesystem::path path_;
};

inline std::string bytesOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline std::string errorOf(const std::function<void()>& step) {
    try {
        step();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no error";
}

}  // namespace corvelle

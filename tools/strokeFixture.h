#pragma once

#include <vector>

#include <gtest/gtest.h>

#include "tools/brushMode.h"
#include "tools/brushTool.h"
#include "tools/fakeStrokeHost.h"

namespace corvelle {

// Whole strokes on the fake host, for tests.

using Points = std::vector<Vec2f>;
inline const Points kAcross = {{330, 300}, {350, 310}, {385, 330}, {430, 330}, {470, 310}};

inline BrushToolSettings shaping(BrushMode mode, float strength = 1.0f) {
    BrushToolSettings settings;
    settings.mode = mode;
    settings.strength = strength;
    settings.radius = 70.0f;
    settings.label = brushModeWord(mode);
    return settings;
}

inline StrokeResult stroke(FakeStrokeHost& host, const BrushToolSettings& settings,
                           const Points& points, bool shift = false, bool ctrl = false,
                           const ToolView& view = frontView()) {
    BrushTool tool;
    tool.settings = settings;
    if (!tool.begin(host, view, points[0].x, points[0].y, 1.0f, shift, ctrl)) return {};
    EXPECT_TRUE(host.active);
    for (std::size_t i = 1; i < points.size(); ++i)
        tool.drag(host, view, points[i].x, points[i].y, 1.0f);
    const StrokeResult result = tool.end(host, view);
    EXPECT_FALSE(host.active);
    EXPECT_EQ(host.live, nullptr);
    EXPECT_EQ(host.liveParts, nullptr);
    return result;
}

inline std::vector<std::uint64_t> movedIds(const GuideHierarchy& a, const GuideHierarchy& b) {
    std::vector<std::uint64_t> out;
    for (const GuidePtr& guide : a.guides()) {
        const GuidePtr other = b.guide(guide->id);
        if (!other || other->contentHash != guide->contentHash) out.push_back(guide->id);
    }
    return out;
}

inline constexpr BrushMode kShapes[] = {
    BrushMode::Comb,    BrushMode::Smooth, BrushMode::Lift,  BrushMode::Length,
    BrushMode::Tube,    BrushMode::Twist,  BrushMode::Curl,  BrushMode::Straighten,
    BrushMode::Attract, BrushMode::Cut,    BrushMode::Slide, BrushMode::Direction,
    BrushMode::Noise,   BrushMode::Erase,  BrushMode::Paint};

}  // namespace corvelle

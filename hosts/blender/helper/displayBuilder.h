#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "hosts/blender/helper/answerPool.h"
#include "hosts/blender/helper/displaySettings.h"
#include "model/flowData.h"
#include "model/guideHierarchy.h"
#include "model/partData.h"
#include "tools/selection.h"

namespace corvelle {

/// What there is to draw, as shared values, groom space. A member that is the same object as last
/// time is taken as unchanged.
struct DisplaySource {
    std::shared_ptr<const GuideHierarchy> hierarchy;  ///< on the scalp as shown
    ScalpPtr scalp;                                   ///< null: none
    std::shared_ptr<const PartData> parts;
    std::shared_ptr<const FlowData> flow;
    std::shared_ptr<const GuideWeights> selection;  ///< null: nothing selected
    std::shared_ptr<const GuideIds> frozen;         ///< null: none
    GuideIds solo;                                  ///< the only guides drawn; empty: all
    std::int32_t toolLevel = 0;
    /// Of a shown Clump node; the object is the same while they are.
    std::shared_ptr<const std::vector<Vec3f>> clumpCenters;
    SceneSpace space;
};

/// Vertices of one drawable, host space.
struct DisplayGeometry {
    std::vector<Vec3f> positions;
    std::vector<Vec3f> colors;  ///< one a position, or empty
};

/// Builds what a host draws beside the strands, and numbers it, so that only what changed is built
/// and sent. An item is built anew when something it is made from has changed, and its version
/// rises when the result differs by a bit.
class DisplayBuilder {
public:
    DisplayBuilder();

    const DisplaySettings& settings() const { return settings_; }
    void setSettings(DisplaySettings settings);
    /// Of another groom than before: everything counts as never sent.
    void forget();
    std::uint64_t generation() const { return generation_; }

    /// Brings all items up to date.
    void build(const DisplaySource& source);

    /// Bytes that `itemsJson` and `dotsJson` will write, for preparing the pool.
    std::uint64_t bytes(const Json& have) const;
    /// The list of items, with arrays for those whose version is not the one that `have` holds.
    Json itemsJson(AnswerPool& pool, const Json& have) const;
    Json dotsJson(AnswerPool& pool, const Json& have) const;

    /// How many drawables were built so far: a measure for tests.
    std::uint64_t builds() const { return builds_; }

private:
    enum Reads : unsigned {
        kHierarchy = 1,
        kScalp = 2,
        kParts = 4,
        kFlow = 8,
        kSelection = 16,
        kFrozen = 32,
        kLevel = 64,
        kClumps = 128
    };
    struct Drawable;
    struct Item {
        const Drawable* row = nullptr;
        DisplayGeometry geometry;
        std::uint64_t version = 0, hash = 0;
        bool shown = false, built = false;
    };
    using Build = void (*)(const DisplaySource&, const DisplaySettings&, DisplayGeometry&);
    struct Drawable {
        const char* name;
        const char* primitive;
        int layer;
        bool surface;
        unsigned reads;  ///< what of the source it is made from
        bool (*shown)(const DisplaySource&, const DisplaySettings&);
        Build build;
        Rgb DisplayTheme::*color;                    ///< one colour; null: a colour a vertex
        float (*lineWidth)(const DisplaySettings&);  ///< null: no line
    };
    static std::span<const Drawable> drawables();
    bool sends(const Item& item, const Json& have) const;
    Json arraysOf(AnswerPool& pool, const Item& item) const;

    DisplaySettings settings_;
    bool settingsChanged_ = true;
    std::vector<Item> items_;  ///< the last one is the dots
    DisplaySource last_;
    std::uint64_t generation_ = 1, builds_ = 0;
};

}  // namespace corvelle

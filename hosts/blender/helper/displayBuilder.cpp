#include "hosts/blender/helper/displayBuilder.h"

#include "hosts/blender/helper/displayGeometry.h"
#include "hosts/blender/helper/hostPoints.h"
#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

float guideWidth(const DisplaySettings& s) { return s.guideWidth; }
float selectionWidth(const DisplaySettings& s) { return s.guideWidth + 1.0f; }
float thinLine(const DisplaySettings&) { return 1.0f; }
float boldLine(const DisplaySettings&) { return 2.0f; }

bool showsGuides(const DisplaySource&, const DisplaySettings& s) { return s.guides; }
bool showsTubes(const DisplaySource&, const DisplaySettings& s) { return s.tubes; }
bool showsFlow(const DisplaySource& d, const DisplaySettings& s) {
    return s.flow && d.scalp && d.flow;
}
bool showsParts(const DisplaySource& d, const DisplaySettings&) { return d.scalp && d.parts; }
bool showsClumps(const DisplaySource& d, const DisplaySettings&) {
    return d.clumpCenters != nullptr;
}
bool showsSelection(const DisplaySource& d, const DisplaySettings& s) {
    return (s.guides || s.tubes) && d.selection && !d.selection->empty();
}
bool showsDots(const DisplaySource&, const DisplaySettings& s) {
    return s.guides && s.guidePoints != "off";
}

}  // namespace

std::span<const DisplayBuilder::Drawable> DisplayBuilder::drawables() {
    using T = DisplayTheme;
    static const Drawable rows[] = {
        {"tubes", "triangles", 5, false, kHierarchy | kSelection, showsTubes, buildTubes, nullptr,
         nullptr},
        {"tubeWires", "lines", 6, false, kHierarchy | kSelection | kLevel, showsTubes,
         buildTubeWires, nullptr, thinLine},
        {"guides", "lines", 10, false, kHierarchy | kFrozen, showsGuides, buildGuides, nullptr,
         guideWidth},
        {"flow", "lines", 15, true, kFlow | kScalp, showsFlow, buildFlow, &T::flowField, thinLine},
        {"parts", "lines", 20, true, kParts | kScalp, showsParts, buildParts, &T::parts, boldLine},
        {"clumpCenters", "dots", 25, false, kClumps, showsClumps, buildClumpCenters,
         &T::clumpCenters, nullptr},
        {"selection", "lines", 30, false, kHierarchy | kSelection, showsSelection, buildSelection,
         nullptr, selectionWidth},
        {"dots", "dots", 12, false, kHierarchy | kFrozen | kSelection, showsDots, buildDots,
         nullptr, nullptr},
    };
    return rows;
}

DisplayBuilder::DisplayBuilder() {
    for (const Drawable& row : drawables()) items_.push_back({.row = &row});
}

void DisplayBuilder::setSettings(DisplaySettings settings) {
    if (settings == settings_) return;
    settings_ = std::move(settings);
    settingsChanged_ = true;
}

void DisplayBuilder::forget() {
    ++generation_;
    last_ = {};
    for (Item& item : items_) item = {.row = item.row, .version = item.version};
}

void DisplayBuilder::build(const DisplaySource& source) {
    unsigned changed = 0;
    if (source.hierarchy != last_.hierarchy || source.solo != last_.solo) changed |= kHierarchy;
    if (source.scalp != last_.scalp) changed |= kScalp;
    if (source.parts != last_.parts) changed |= kParts;
    if (source.flow != last_.flow) changed |= kFlow;
    if (source.selection != last_.selection) changed |= kSelection;
    if (source.frozen != last_.frozen) changed |= kFrozen;
    if (source.toolLevel != last_.toolLevel) changed |= kLevel;
    if (source.clumpCenters != last_.clumpCenters) changed |= kClumps;
    const bool all = settingsChanged_ || !(source.space == last_.space);
    last_ = source;
    settingsChanged_ = false;
    for (Item& item : items_) {
        const Drawable& row = *item.row;
        if (item.built && !all && !(changed & row.reads)) continue;
        const bool shown = row.shown(source, settings_);
        DisplayGeometry geometry;
        if (shown) {
            ++builds_;
            row.build(source, settings_, geometry);
            std::vector<Vec3f>& points = geometry.positions;
            parallelRange(0, points.size(), kChunkElements,
                          [&](std::size_t begin, std::size_t end) {
                              pointsToHost(std::span(points).subspan(begin, end - begin),
                                           source.space, points.data() + begin);
                          });
        }
        std::uint64_t hash = hashPointBits(
            hashPointBits(mix64(geometry.positions.size()), geometry.positions), geometry.colors);
        if (row.color)
            for (const float part : settings_.theme.*row.color) hash = hashCombine(hash, part);
        if (!item.built || hash != item.hash || shown != item.shown) ++item.version;
        item.built = true;
        item.shown = shown;
        item.hash = hash;
        item.geometry = std::move(geometry);
    }
}

bool DisplayBuilder::sends(const Item& item, const Json& have) const {
    const Json* held = findField(have, item.row->name);
    return !(held && held->is_number_integer() && *held == item.version);
}

std::uint64_t DisplayBuilder::bytes(const Json& have) const {
    std::uint64_t bytes = 0;
    for (const Item& item : items_)
        if (sends(item, have))
            for (const std::vector<Vec3f>* array :
                 {&item.geometry.positions, &item.geometry.colors})
                bytes += AnswerPool::bytesOf(array->size(), sizeof(Vec3f));
    return bytes;
}

Json DisplayBuilder::arraysOf(AnswerPool& pool, const Item& item) const {
    Json arrays{{"positions", writePoints(pool, item.geometry.positions, last_.space, true)}};
    if (!item.geometry.colors.empty())
        arrays["colors"] = writePoints(pool, item.geometry.colors, last_.space, true);
    return arrays;
}

Json DisplayBuilder::itemsJson(AnswerPool& pool, const Json& have) const {
    Json list = Json::array();
    for (const Item& item : items_) {
        const Drawable& row = *item.row;
        if (&item == &items_.back()) break;
        const bool changed = sends(item, have);
        Json entry{{"name", row.name},
                   {"version", item.version},
                   {"shown", item.shown},
                   {"vertexCount", item.geometry.positions.size()},
                   {"layer", row.layer},
                   {"primitive", row.primitive},
                   {"perVertexColors", !item.geometry.colors.empty()},
                   {"surface", row.surface},
                   {"changed", changed}};
        if (row.color) entry["color"] = settings_.theme.*row.color;
        if (row.lineWidth) entry["lineWidth"] = row.lineWidth(settings_);
        if (std::string_view(row.primitive) == "dots")
            entry["pointSize"] = settings_.theme.pointSize;
        if (changed) entry["arrays"] = arraysOf(pool, item);
        list.push_back(std::move(entry));
    }
    return list;
}

Json DisplayBuilder::dotsJson(AnswerPool& pool, const Json& have) const {
    const Item& dots = items_.back();
    const bool changed = sends(dots, have);
    Json out{{"count", dots.geometry.positions.size()},
             {"pointSize", settings_.theme.pointSize},
             {"version", dots.version},
             {"changed", changed}};
    if (changed) {
        out["positions"] = writePoints(pool, dots.geometry.positions, last_.space, true);
        out["colors"] = writePoints(pool, dots.geometry.colors, last_.space, true);
    }
    return out;
}

}  // namespace corvelle

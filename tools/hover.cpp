#include "tools/hover.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <set>
#include <tuple>

#include "model/elementary.h"
#include "tools/screenOcclusion.h"
#include "tools/selection.h"
#include "tools/targetStamp.h"

namespace corvelle {
namespace {

constexpr float kCellPixels = 16.0f;
constexpr std::size_t kMostCells = 1 << 20;
constexpr float kArrowPixels = 20.0f;

/// A point of something, as it is seen.
struct Spot {
    float x, y;
    HoverHit::Kind kind;
    std::uint32_t item;   ///< position of the guide, part line or pin
    std::uint32_t point;  ///< in it
};

struct Found {
    float pixels;
    HoverHit::Kind kind;
    std::uint32_t item, point;
    friend bool operator<(const Found& a, const Found& b) {
        return std::tie(a.pixels, a.kind, a.item, a.point) <
               std::tie(b.pixels, b.kind, b.item, b.point);
    }
};

}  // namespace

/// What one view sees of one state of the groom, its points sorted into cells of the region.
struct HoverCache::Screen {
    ToolView view;
    std::shared_ptr<const GuideHierarchy> hierarchy;
    std::shared_ptr<const PartData> parts;
    std::shared_ptr<const FlowData> flow;
    ScalpPtr scalp;
    std::set<std::string> hidden;
    std::vector<Spot> spots;  ///< by cell
    std::vector<std::uint32_t> firstOfCell;
    std::size_t columns = 0, rows = 0;
    std::shared_ptr<const ScreenOcclusionCache> occlusion;

    bool serves(const Screen& other) const {
        return hierarchy == other.hierarchy && parts == other.parts && flow == other.flow &&
               scalp == other.scalp && hidden == other.hidden && view.matrix == other.view.matrix &&
               view.width == other.view.width && view.height == other.view.height;
    }

    void build() {
        std::vector<Spot> seen;
        std::vector<std::uint32_t> cellOfSeen;
        std::size_t pointCount = 0;
        for (std::size_t g = 0; hierarchy && g < hierarchy->size(); ++g)
            pointCount += hierarchy->guides()[g]->points.size();
        seen.reserve(pointCount);
        cellOfSeen.reserve(pointCount);
        columns = cells(view.width);
        rows = cells(view.height);
        if (columns * rows > kMostCells) columns = rows = 1;
        firstOfCell.assign(columns * rows + 1, 0);
        const auto add = [&](Vec3f p, HoverHit::Kind kind, std::size_t item, std::size_t point) {
            double x = 0.0, y = 0.0;
            if (!view.project(p, x, y) || x < 0.0 || y < 0.0 || x > view.width || y > view.height)
                return;
            seen.push_back({float(x), float(y), kind, std::uint32_t(item), std::uint32_t(point)});
            cellOfSeen.push_back(std::uint32_t(cellOf(float(x), float(y))));
            ++firstOfCell[cellOfSeen.back() + 1];
        };
        if (hierarchy) {
            const std::set<std::uint32_t> left = hiddenGroupIds(*hierarchy, hidden);
            for (std::size_t g = 0; g < hierarchy->size(); ++g) {
                const Guide& guide = *hierarchy->guides()[g];
                if (left.contains(guide.group)) continue;
                for (std::size_t i = 0; i < guide.points.size(); ++i)
                    add(guide.points[i], HoverHit::Kind::Guide, g, i);
            }
        }
        for (std::size_t l = 0; scalp && parts && l < parts->lines.size(); ++l) {
            const std::vector<StrandRoot>& points = parts->lines[l].points;
            for (std::size_t i = 0; i < points.size(); ++i)
                if (scalp->validRoot(points[i]))
                    add(scalp->surfacePoint(points[i]), HoverHit::Kind::Part, l, i);
        }
        for (std::size_t p = 0; scalp && flow && p < flow->pins.size(); ++p)
            if (scalp->validRoot(flow->pins[p].at))
                add(scalp->surfacePoint(flow->pins[p].at), HoverHit::Kind::Flow, p, 0);

        for (std::size_t c = 1; c < firstOfCell.size(); ++c) firstOfCell[c] += firstOfCell[c - 1];
        std::vector<std::uint32_t> next(firstOfCell.begin(), firstOfCell.end() - 1);
        spots.resize(seen.size());
        for (std::size_t s = 0; s < seen.size(); ++s) spots[next[cellOfSeen[s]]++] = seen[s];
        occlusion = std::make_shared<const ScreenOcclusionCache>(view, scalp);
    }

    static std::size_t cells(double pixels) {
        return std::size_t(std::min(pixels / double(kCellPixels), 1e6)) + 1;
    }
    std::size_t column(float x) const { return axis(x, columns); }
    std::size_t row(float y) const { return axis(y, rows); }
    static std::size_t axis(float at, std::size_t count) {
        return std::size_t(std::clamp(at / kCellPixels, 0.0f, float(count - 1)));
    }
    std::size_t cellOf(float x, float y) const { return row(y) * columns + column(x); }

    Vec3f placeOf(const Found& found) const {
        switch (found.kind) {
            case HoverHit::Kind::Guide:
                return hierarchy->guides()[found.item]->points[found.point];
            case HoverHit::Kind::Part:
                return scalp->surfacePoint(parts->lines[found.item].points[found.point]);
            default:
                return scalp->surfacePoint(flow->pins[found.item].at);
        }
    }
};

HoverCache::HoverCache() = default;
HoverCache::~HoverCache() = default;
HoverCache::HoverCache(HoverCache&&) noexcept = default;
HoverCache& HoverCache::operator=(HoverCache&&) noexcept = default;
void HoverCache::clear() { screen_.reset(); }

HoverHit HoverCache::at(StrokeHost& host, const ToolView& view, double x, double y,
                        const BrushToolSettings& settings, float pixels) {
    auto now = std::make_unique<Screen>();
    now->view = view;
    now->hierarchy = host.editHierarchy();
    now->parts = host.parts();
    now->flow = host.flow();
    now->scalp = host.scalp();
    now->hidden = host.hiddenGroups();
    if (!screen_ || !screen_->serves(*now)) {
        screen_ = std::move(now);
        screen_->build();
    }
    const Screen& screen = *screen_;
    HoverHit out;
    if (!std::isfinite(x) || !std::isfinite(y) || !(pixels > 0.0f)) return out;

    std::vector<Found> found;
    const auto px = float(x), py = float(y);
    for (std::size_t r = screen.row(py - pixels); r <= screen.row(py + pixels); ++r) {
        const std::size_t cell = r * screen.columns;
        const std::uint32_t end = screen.firstOfCell[cell + screen.column(px + pixels) + 1];
        for (std::uint32_t s = screen.firstOfCell[cell + screen.column(px - pixels)]; s < end;
             ++s) {
            const Spot& spot = screen.spots[s];
            const float d = math::hypot(spot.x - px, spot.y - py);
            if (d < pixels) found.push_back({d, spot.kind, spot.item, spot.point});
        }
    }
    std::sort(found.begin(), found.end());
    const auto hit = std::find_if(found.begin(), found.end(), [&](const Found& each) {
        return !settings.frontFacingOnly || !screen.occlusion->hidden(screen.placeOf(each));
    });
    if (hit == found.end()) return out;
    out.kind = hit->kind;
    out.pixels = hit->pixels;
    out.index = hit->item;
    if (hit->kind == HoverHit::Kind::Guide) {
        const Guide& guide = *screen.hierarchy->guides()[hit->item];
        out.guide = guide.id;
        out.line = guide.points;
    } else if (hit->kind == HoverHit::Kind::Part) {
        const PartLine& line = screen.parts->lines[hit->item];
        out.part = line.name;
        out.line = partPlaces(line, *screen.scalp);
    } else {
        const FlowPin& pin = screen.flow->pins[hit->item];
        const Vec3f place = screen.scalp->surfacePoint(pin.at);
        const float length = kArrowPixels * view.pixelSize(place);
        out.line = {place, place + flowPinDirection(*screen.scalp, pin) * length};
    }
    return out;
}

BrushRing brushRing(StrokeHost& host, const ToolView& view, double x, double y,
                    const BrushToolSettings& settings) {
    BrushRing ring;
    const ScalpPtr scalp = host.scalp();
    if (!scalp || scalp->triangles().empty() || !std::isfinite(x) || !std::isfinite(y)) return ring;
    const PickRay ray = view.pickRay(x, y);
    SurfaceHit hit;
    ring.onScalp = scalp->rayIntersect(ray.origin, ray.direction, hit);
    if (ring.onScalp) {
        ring.center = hit.position;
        ring.normal = scalp->surfaceNormal(hit.root());
    } else {
        const Vec3f middle = (scalp->boundsMin() + scalp->boundsMax()) * 0.5f;
        ring.center = view.placeAtDepth(x, y, view.target.value_or(middle));
        ring.normal = view.towardsEye(ring.center);
    }
    ring.screenRadius = settings.radius;
    ring.radius = settings.radius * view.pixelSize(ring.center);
    ring.valid = isFinite(ring.center) && std::isfinite(ring.radius);
    return ring;
}

}  // namespace corvelle

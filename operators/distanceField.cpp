#include "operators/distanceField.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <list>
#include <mutex>
#include <stdexcept>

#include "model/hash.h"
#include "model/parallel.h"
#include "operators/fieldLook.h"
#include "operators/nearTriangle.h"

namespace corvelle {

namespace {

constexpr float kCellsPerSide = 192.0f;
constexpr float kMaxSide = 1e6f;       ///< cm
constexpr std::size_t kBandCells = 2;  ///< nodes this near to the surface are exact
constexpr std::size_t kBlockCells = 2;
constexpr std::size_t kCoarsest = 8;   ///< step, in nodes, of the coarsest nodes measured
constexpr std::size_t kFloorStep = 4;  ///< of the floor's nodes
static_assert(kCoarsest % kFloorStep == 0);
/// A node between coarser ones is measured when it is nearer than so many of their steps.
constexpr float kMeasuredSteps = 2.0f;
/// Nodes of the last step walk to the closest triangle when they are nearer than this. Farther out
/// the best triangle of the coarser nodes next to them is off by less than 0.5 % of the distance.
constexpr float kWalkedCells = 12.0f;
/// A distance this much above the mean of those around, in cells and of itself, shows a ridge of
/// the field, where the closest triangle may be none that a coarser node found: it is measured.
constexpr float kRidge = 0.06f, kRidgeShare = 0.008f;
/// Of a step: farther than that no surface passes between a node and the coarser ones next to it.
constexpr float kStepDiagonal = 1.75f;
constexpr std::size_t kKept = 4;
/// A field's padding never grows past this share of the longest side: beyond the grid distances go
/// on by the distance to its border.
constexpr float kMaxPaddingShare = 0.25f;
/// Of a distance: interpolated values may leave the range of their corners by rounding.
constexpr float kRangeSlack = 1e-5f;

/// What a field's grid follows from.
struct Gauge {
    Vec3f low, size;  ///< of the box of the triangles that queries see
    float side = 0.0f;
    float cell = 0.0f;
    const char* refusal = nullptr;
};

Gauge gaugeOf(const ScalpMesh& mesh) {
    Gauge out;
    const auto [first, end] = mesh.activeTriangles();
    Vec3f high;
    double edges = 0.0;
    bool finite = true;
    for (std::size_t t = first; t < end && finite; ++t) {
        const Triangle& triangle = mesh.triangles()[t];
        for (std::size_t c = 0; c < 3; ++c) {
            const Vec3f p = mesh.points()[std::size_t(triangle[c])];
            finite = finite && isFinite(p);
            out.low = t == first && c == 0 ? p : componentMin(out.low, p);
            high = t == first && c == 0 ? p : componentMax(high, p);
            edges += double(distance(p, mesh.points()[std::size_t(triangle[(c + 1) % 3])]));
        }
    }
    out.size = high - out.low;
    out.side = std::max({out.size.x, out.size.y, out.size.z});
    if (!finite || !std::isfinite(out.side) || out.side > kMaxSide)
        out.refusal = "its scalp is too big for the clearance field's grid";
    else if (!(out.side > 0.0f))
        out.refusal = "its scalp has no size";
    else
        out.cell = std::max(float(edges / (6.0 * double(end - first))), out.side / kCellsPerSide);
    return out;
}

TrianglePoint closestOn(const ScalpMesh& mesh, std::int32_t triangle, Vec3f p) {
    const Triangle& t = mesh.triangles()[std::size_t(triangle)];
    return closestOnTriangle(p, mesh.points()[std::size_t(t[0])], mesh.points()[std::size_t(t[1])],
                             mesh.points()[std::size_t(t[2])]);
}

/// The newest few of something, by key.
template <class T>
class Kept {
public:
    std::shared_ptr<const T> find(std::uint64_t key) {
        const std::lock_guard lock(mutex_);
        for (auto it = entries_.begin(); it != entries_.end(); ++it) {
            if (it->first != key) continue;
            entries_.splice(entries_.begin(), entries_, it);
            return entries_.front().second;
        }
        return nullptr;
    }
    void add(std::uint64_t key, std::shared_ptr<const T> value) {
        const std::lock_guard lock(mutex_);
        std::erase_if(entries_, [&](const auto& entry) { return entry.first == key; });
        entries_.emplace_front(key, std::move(value));
        if (entries_.size() > kKept) entries_.pop_back();
    }

private:
    std::mutex mutex_;
    std::list<std::pair<std::uint64_t, std::shared_ptr<const T>>> entries_;
};

std::uint64_t meshKey(const ScalpMesh& mesh) {
    const auto [first, end] = mesh.activeTriangles();
    return hashCombine(hashCombine(mesh.contentHash(), std::uint64_t(first)), std::uint64_t(end));
}

}  // namespace

// ---- exact --------------------------------------------------------------------------------------

ExactDistance::ExactDistance(ScalpPtr mesh)
    : mesh_(std::move(mesh)), sides_(std::make_shared<const MeshSides>(*mesh_)) {
    mesh_->prepareQueries();
}

bool ExactDistance::sample(Vec3f position, float maxDistance, std::int32_t& nearTriangle,
                           DistanceSample& out) const {
    SurfaceHit hit;
    if (!mesh_->closestPointFrom(position, maxDistance, nearTriangle, hit)) return false;
    nearTriangle = hit.triangle;
    const TrianglePoint at = closestOn(*mesh_, hit.triangle, position);
    const MeshSides::Side side = sides_->side(hit.triangle, at, position);
    const Vec3f away = position - at.point;
    const float d = length(away);
    out.distance = side.sign * d;
    out.gradient = d > 0.0f ? away * (side.sign / d) : side.normal;
    return true;
}

// ---- grid ---------------------------------------------------------------------------------------

std::size_t paddingCells(float offset, float cell, float side) {
    const float wanted = std::min(std::max(offset, 0.0f), kMaxPaddingShare * side) / cell;
    return std::bit_ceil(std::size_t(std::max(std::ceil(wanted), 1.0f)));
}

std::string DistanceField::refusal(const ScalpMesh& mesh) {
    const char* why = gaugeOf(mesh).refusal;
    return why ? why : "";
}

/// The nodes while the field is made: the closest triangle where one is measured, or a guess at it.
struct DistanceField::Build {
    const ScalpMesh& mesh;
    DistanceField& field;
    std::vector<std::int32_t> triangles;

    Vec3f position(std::size_t x, std::size_t y, std::size_t z) const {
        return field.low_ + Vec3f{float(x), float(y), float(z)} * field.cell_;
    }

    /// Marks the corners of every cell that a triangle may pass through with that triangle.
    void seed() {
        const auto [first, end] = mesh.activeTriangles();
        const auto& count = field.count_;
        for (std::size_t t = first; t < end; ++t) {
            const Triangle& corners = mesh.triangles()[t];
            Vec3f p[3];
            for (std::size_t c = 0; c < 3; ++c)
                p[c] = (mesh.points()[std::size_t(corners[c])] - field.low_) * field.inverse_;
            const Vec3f low = componentMin(componentMin(p[0], p[1]), p[2]);
            const Vec3f high = componentMax(componentMax(p[0], p[1]), p[2]);
            std::size_t from[3], to[3];
            for (int axis = 0; axis < 3; ++axis) {
                const float last = float(count[std::size_t(axis)] - 2);
                from[axis] = std::size_t(std::clamp(std::floor(low[axis]), 0.0f, last));
                to[axis] = std::size_t(std::clamp(std::floor(high[axis]), 0.0f, last));
            }
            const Vec3f normal = normalized(cross(p[1] - p[0], p[2] - p[0]));
            const float plane = dot(normal, p[0]);
            // Half a cell's extent along the normal, and a little for rounding.
            const float reach =
                0.5f * (std::fabs(normal.x) + std::fabs(normal.y) + std::fabs(normal.z)) + 0.01f;
            for (std::size_t z = from[2]; z <= to[2]; ++z)
                for (std::size_t y = from[1]; y <= to[1]; ++y)
                    for (std::size_t x = from[0]; x <= to[0]; ++x) {
                        const Vec3f middle{float(x) + 0.5f, float(y) + 0.5f, float(z) + 0.5f};
                        if (std::fabs(dot(normal, middle) - plane) > reach) continue;
                        for (std::size_t corner = 0; corner < 8; ++corner) {
                            std::int32_t& mark = triangles[field.node(
                                x + (corner & 1), y + (corner >> 1 & 1), z + (corner >> 2))];
                            if (mark < 0) mark = std::int32_t(t);
                        }
                    }
        }
    }

    /// Carries marks on by kBandCells nodes along one axis.
    void widen(int axis) {
        const auto& count = field.count_;
        const std::size_t along = count[std::size_t(axis)];
        const std::size_t stride = axis == 0 ? 1 : axis == 1 ? count[0] : count[0] * count[1];
        const std::size_t lines = triangles.size() / along;
        parallelRange(0, lines, 64, [&](std::size_t b, std::size_t e) {
            std::vector<std::int32_t> line(along);
            for (std::size_t l = b; l < e; ++l) {
                const std::size_t start = axis == 0 ? l * along
                                          : axis == 1
                                              ? l / count[0] * count[0] * count[1] + l % count[0]
                                              : l;
                for (std::size_t i = 0; i < along; ++i) line[i] = triangles[start + i * stride];
                for (std::size_t i = 0; i < along; ++i) {
                    std::int32_t& mark = triangles[start + i * stride];
                    for (std::size_t step = 1; step <= kBandCells && mark < 0; ++step) {
                        if (i >= step && line[i - step] >= 0)
                            mark = line[i - step];
                        else if (i + step < along && line[i + step] >= 0)
                            mark = line[i + step];
                    }
                }
            }
        });
    }

    /// The exact signed distance at one node. `hint`: a triangle that may be near, or -1.
    void measureNode(const MeshSides& sides, std::size_t n, Vec3f p, std::int32_t hint) {
        SurfaceHit hit;
        if (mesh.closestPointFrom(p, ScalpMesh::kAnyDistance, hint, hit))
            triangles[n] = hit.triangle;
        if (triangles[n] < 0) return;
        const TrianglePoint at = closestOn(mesh, triangles[n], p);
        const float d = length(p - at.point);
        field.values_[n] = sides.side(triangles[n], at, p).sign < 0.0f ? -d : d;
    }

    /// The marked nodes near the surface, and the coarsest ones.
    void measure(const MeshSides& sides) {
        const auto& count = field.count_;
        parallelRange(0, count[1] * count[2], 16, [&](std::size_t b, std::size_t e) {
            for (std::size_t row = b; row < e; ++row) {
                const std::size_t y = row % count[1], z = row / count[1];
                const bool coarse = y % kCoarsest == 0 && z % kCoarsest == 0;
                std::int32_t last = -1;
                for (std::size_t x = 0; x < count[0]; ++x) {
                    const std::size_t n = row * count[0] + x;
                    const bool marked = triangles[n] >= 0;
                    if (!marked && !(coarse && x % kCoarsest == 0)) continue;
                    measureNode(sides, n, position(x, y, z), marked ? triangles[n] : last);
                    last = triangles[n];
                }
            }
        });
    }

    /// The nodes of one step between those of twice the step: from the closest triangles of the
    /// coarser ones next to them along their odd axes; measured where the surface is near and on
    /// ridges.
    void refine(const MeshSides& sides, const NearTriangle& walk, std::size_t step) {
        const auto& count = field.count_;
        const std::size_t stride[3] = {step, step * count[0], step * count[0] * count[1]};
        const std::size_t rows[2] = {(count[1] - 1) / step + 1, (count[2] - 1) / step + 1};
        const float near = step > 1 ? kMeasuredSteps * float(2 * step) * field.cell_ : 0.0f;
        const float walkWithin =
            step > 1 ? std::numeric_limits<float>::infinity() : kWalkedCells * field.cell_;
        parallelRange(0, rows[0] * rows[1], 16, [&](std::size_t b, std::size_t e) {
            for (std::size_t row = b; row < e; ++row) {
                const std::size_t y = row % rows[0] * step, z = row / rows[0] * step;
                for (std::size_t x = 0; x < count[0]; x += step) {
                    const std::size_t n = field.node(x, y, z);
                    const std::size_t at[3] = {x, y, z};
                    std::size_t odd[3], axes = 0;
                    for (std::size_t axis = 0; axis < 3; ++axis)
                        if (at[axis] % (2 * step) != 0) odd[axes++] = stride[axis];
                    if (axes == 0 || triangles[n] >= 0) continue;
                    std::int32_t begin[8];
                    float coarser = 0.0f, sum = 0.0f;
                    const std::size_t corners = std::size_t(1) << axes;
                    for (std::size_t corner = 0; corner < corners; ++corner) {
                        std::size_t from = n;
                        for (std::size_t k = 0; k < axes; ++k)
                            from = (corner >> k & 1) != 0 ? from + odd[k] : from - odd[k];
                        begin[corner] = triangles[from];
                        coarser = field.values_[from];
                        sum += std::fabs(coarser);
                    }
                    const Vec3f p = position(x, y, z);
                    const NearTriangle::Found found = walk.from({begin, corners}, p, walkWithin);
                    const float d = std::sqrt(found.distanceSquared);
                    if (found.triangle < 0 || d < near ||
                        d - sum / float(corners) >
                            std::max(kRidge * field.cell_, kRidgeShare * d)) {
                        measureNode(sides, n, p, found.triangle);
                        continue;
                    }
                    triangles[n] = found.triangle;
                    const bool inside =
                        sides.closed() && d > kStepDiagonal * float(step) * field.cell_
                            ? coarser < 0.0f
                            : sides.side(found.triangle, walk.pointOf(found), p).sign < 0.0f;
                    field.values_[n] = inside ? -d : d;
                }
            }
        });
    }
};

DistanceField::DistanceField(const ScalpMesh& mesh, float offset) {
    const Gauge gauge = gaugeOf(mesh);
    if (gauge.refusal) throw std::invalid_argument(gauge.refusal);
    cell_ = gauge.cell;
    inverse_ = 1.0f / cell_;
    const std::size_t padding = kBandCells + paddingCells(offset, cell_, gauge.side);
    low_ = gauge.low - Vec3f{1, 1, 1} * (float(padding) * cell_);
    for (int axis = 0; axis < 3; ++axis)
        count_[std::size_t(axis)] =
            (std::size_t(std::ceil(gauge.size[axis] * inverse_)) + 2 * padding + kCoarsest - 1) /
                kCoarsest * kCoarsest +
            1;
    last_ = {float(count_[0] - 1), float(count_[1] - 1), float(count_[2] - 1)};
    const std::size_t nodes = count_[0] * count_[1] * count_[2];

    const MeshSides sides(mesh);
    mesh.prepareQueries();
    {
        const NearTriangle walk(mesh);
        values_.resize(nodes + kReadBehind);
        Build build{mesh, *this, std::vector<std::int32_t>(nodes, -1)};
        build.seed();
        for (int axis = 0; axis < 3; ++axis) build.widen(axis);
        build.measure(sides);
        for (std::size_t step = kCoarsest / 2; step > 0; step /= 2) build.refine(sides, walk, step);
    }

    for (std::size_t axis = 0; axis < 3; ++axis)
        blocks_[axis] = (count_[axis] - 1 + kBlockCells - 1) / kBlockCells;
    ranges_.resize(blocks_[0] * blocks_[1] * blocks_[2]);
    parallelRange(0, ranges_.size(), 16, [&](std::size_t b, std::size_t e) {
        for (std::size_t block = b; block < e; ++block) {
            const std::size_t at[3] = {block % blocks_[0], block / blocks_[0] % blocks_[1],
                                       block / (blocks_[0] * blocks_[1])};
            std::size_t from[3], to[3];
            for (std::size_t axis = 0; axis < 3; ++axis) {
                from[axis] = at[axis] * kBlockCells;
                to[axis] = std::min(from[axis] + kBlockCells, count_[axis] - 1);
            }
            Range range{values_[node(from[0], from[1], from[2])], 0.0f};
            range.most = range.least;
            for (std::size_t z = from[2]; z <= to[2]; ++z)
                for (std::size_t y = from[1]; y <= to[1]; ++y)
                    for (std::size_t x = from[0]; x <= to[0]; ++x) {
                        range.least = std::min(range.least, values_[node(x, y, z)]);
                        range.most = std::max(range.most, values_[node(x, y, z)]);
                    }
            range.least -= kRangeSlack * std::fabs(range.least);
            range.most += kRangeSlack * std::fabs(range.most);
            ranges_[block] = range;
        }
    });
    borderLeast_ = std::numeric_limits<float>::infinity();
    for (std::size_t z = 0; z < count_[2]; ++z)
        for (std::size_t y = 0; y < count_[1]; ++y) {
            const bool face = z == 0 || z == count_[2] - 1 || y == 0 || y == count_[1] - 1;
            const std::size_t step = face ? 1 : count_[0] - 1;
            for (std::size_t x = 0; x < count_[0]; x += step)
                borderLeast_ = std::min(borderLeast_, values_[node(x, y, z)]);
        }
    borderLeast_ -= kRangeSlack * std::fabs(borderLeast_);
    makeFloor();
}

/// Every fourth node, lowered by as much as what is interpolated between them lies above the field
/// in the cells next to it. Both are trilinear within a cell of the field, so they lie farthest
/// apart at its nodes.
void DistanceField::makeFloor() {
    constexpr std::size_t step = kFloorStep;
    std::size_t cells[3], nodes[3];
    for (std::size_t axis = 0; axis < 3; ++axis) {
        cells[axis] = (count_[axis] - 1) / step;
        nodes[axis] = cells[axis] + 1;
    }
    // The most that the interpolation is above the field, for each of the large cells.
    std::vector<float> above(cells[0] * cells[1] * cells[2], 0.0f);
    parallelRange(0, cells[1] * cells[2], 4, [&](std::size_t b, std::size_t e) {
        for (std::size_t row = b; row < e; ++row) {
            const std::size_t y0 = row % cells[1] * step, z0 = row / cells[1] * step;
            for (std::size_t dz = 0; dz <= step; ++dz)
                for (std::size_t dy = 0; dy <= step; ++dy) {
                    const float ty = float(dy) / float(step), tz = float(dz) / float(step);
                    const auto between = [&](std::size_t x) {
                        const auto at = [&](std::size_t y, std::size_t z) {
                            return values_[node(x, y, z)];
                        };
                        return mix(mix(at(y0, z0), at(y0 + step, z0), ty),
                                   mix(at(y0, z0 + step), at(y0 + step, z0 + step), ty), tz);
                    };
                    const float* const own = &values_[node(0, y0 + dy, z0 + dz)];
                    float left = between(0);
                    for (std::size_t x = 0; x < cells[0]; ++x) {
                        const float right = between((x + 1) * step);
                        float& most = above[row * cells[0] + x];
                        for (std::size_t dx = 0; dx <= step; ++dx)
                            most = std::max(most, mix(left, right, float(dx) / float(step)) -
                                                      own[x * step + dx]);
                        left = right;
                    }
                }
        }
    });
    floor_.assign(nodes[0] * nodes[1] * nodes[2] + kReadBehind, 0.0f);
    parallelRange(0, nodes[1] * nodes[2], 16, [&](std::size_t b, std::size_t e) {
        for (std::size_t row = b; row < e; ++row) {
            const std::size_t y = row % nodes[1], z = row / nodes[1];
            for (std::size_t x = 0; x < nodes[0]; ++x) {
                float most = 0.0f;
                for (std::size_t cz = z - (z > 0); cz < std::min(z + 1, cells[2]); ++cz)
                    for (std::size_t cy = y - (y > 0); cy < std::min(y + 1, cells[1]); ++cy)
                        for (std::size_t cx = x - (x > 0); cx < std::min(x + 1, cells[0]); ++cx)
                            most = std::max(most, above[(cz * cells[1] + cy) * cells[0] + cx]);
                const float value = values_[node(x * step, y * step, z * step)];
                floor_[row * nodes[0] + x] =
                    value - most - kRangeSlack * (cell_ + std::fabs(value));
            }
        }
    });
}

/// A position on the grid: the first node of its cell, shares within it, and how far off the grid.
struct DistanceField::Place {
    std::size_t first = 0;
    Vec3f share;
    Vec3f off;  ///< from the nearest place on the grid to the position; zero inside
    bool outside = false;
};

inline DistanceField::Place DistanceField::place(Vec3f position) const {
    Place out;
    const Vec3f at = (position - low_) * inverse_;
    if (at.x > 0.0f && at.y > 0.0f && at.z > 0.0f && at.x < last_.x && at.y < last_.y &&
        at.z < last_.z) {  // nearly always; a cast to int is the cheap one
        const int x = int(at.x), y = int(at.y), z = int(at.z);
        out.share = {at.x - float(x), at.y - float(y), at.z - float(z)};
        out.first = node(std::size_t(x), std::size_t(y), std::size_t(z));
        return out;
    }
    std::size_t cell[3];
    for (int axis = 0; axis < 3; ++axis) {
        const float inside = at[axis] > 0.0f ? std::min(at[axis], last_[axis]) : 0.0f;
        if (inside != at[axis]) {
            out.off[axis] = (at[axis] - inside) * cell_;
            out.outside = true;
        }
        const std::size_t c = std::min(std::size_t(inside), count_[std::size_t(axis)] - 2);
        cell[axis] = c;
        out.share[axis] = inside - float(c);
    }
    out.first = node(cell[0], cell[1], cell[2]);
    return out;
}

inline float DistanceField::blend(const Place& place, Vec3f& slope) const {
    const std::size_t dy = count_[0], dz = count_[0] * count_[1];
    const float* v = values_.data() + place.first;
    const Vec3f s = place.share;
    const float v00 = mix(v[0], v[1], s.x), v10 = mix(v[dy], v[dy + 1], s.x);
    const float v01 = mix(v[dz], v[dz + 1], s.x), v11 = mix(v[dz + dy], v[dz + dy + 1], s.x);
    const float v0 = mix(v00, v10, s.y), v1 = mix(v01, v11, s.y);
    slope.x = mix(mix(v[1] - v[0], v[dy + 1] - v[dy], s.y),
                  mix(v[dz + 1] - v[dz], v[dz + dy + 1] - v[dz + dy], s.y), s.z);
    slope.y = mix(v10 - v00, v11 - v01, s.z);
    slope.z = v1 - v0;
    return mix(v0, v1, s.z);
}

inline Vec3f DistanceField::direction(const Place& place, Vec3f slope, float off) const {
    if (off > 0.0f) {  // out along some axes, and as the border's values slope along the others
        slope *= inverse_;
        for (int axis = 0; axis < 3; ++axis)
            if (place.off[axis] != 0.0f) slope[axis] = place.off[axis] / off;
    }
    return normalized(slope);
}

float DistanceField::distance(Vec3f position) const {
    const Place at = place(position);
    Vec3f slope;
    const float inside = blend(at, slope);
    return inside + (at.outside ? length(at.off) : 0.0f);
}

DistanceSample DistanceField::sample(Vec3f position) const {
    const Place at = place(position);
    Vec3f slope;
    const float inside = blend(at, slope);
    const float off = at.outside ? length(at.off) : 0.0f;
    return {inside + off, direction(at, slope, off)};
}

bool DistanceField::sampleWithin(Vec3f position, float least, float below, DistanceSample& out,
                                 bool fewAre) const {
    if (fewAre && surelyOutside(position, least, below)) return false;
    const Place at = place(position);
    Vec3f slope;
    const float inside = blend(at, slope);
    const float off = at.outside ? length(at.off) : 0.0f;
    const float d = inside + off;
    if (!(d < below && d >= least)) return false;
    out = {d, direction(at, slope, off)};
    return true;
}

void DistanceField::distances(std::span<const Vec3f> positions, std::span<float> out) const {
    for (std::size_t i = 0; i < positions.size(); ++i) out[i] = distance(positions[i]);
}

bool DistanceField::surelyOutside(Vec3f position, float below, float above) const {
    const Vec3f at = (position - low_) * inverse_;
    if (!(at.x >= 0.0f && at.y >= 0.0f && at.z >= 0.0f && at.x < last_.x && at.y < last_.y &&
          at.z < last_.z))
        return borderLeast_ >= above;
    const std::size_t x = unsigned(int(at.x)) / kBlockCells, y = unsigned(int(at.y)) / kBlockCells,
                      z = unsigned(int(at.z)) / kBlockCells;
    const Range& range = ranges_[(z * blocks_[1] + y) * blocks_[0] + x];
    return range.least >= above || range.most < below;
}

FieldGrid DistanceField::grid() const {
    return {.values = values_.data(),
            .low = {low_.x, low_.y, low_.z},
            .last = {last_.x, last_.y, last_.z},
            .cell = cell_,
            .inverse = inverse_,
            .row = count_[0],
            .plane = count_[0] * count_[1]};
}

FieldGrid DistanceField::floor() const {
    constexpr float step = float(kFloorStep);
    const std::size_t row = (count_[0] - 1) / kFloorStep + 1;
    return {.values = floor_.data(),
            .low = {low_.x, low_.y, low_.z},
            .last = {last_.x / step, last_.y / step, last_.z / step},
            .cell = cell_ * step,
            .inverse = inverse_ / step,
            .row = row,
            .plane = row * ((count_[1] - 1) / kFloorStep + 1)};
}

std::uint32_t DistanceField::perhapsWithin(std::span<const Vec3f> positions, float below,
                                           float above) const {
    static_assert(sizeof(Range) == 2 * sizeof(float));
    static const LookAtEight eight = lookAtEightAvx2();
    std::uint32_t bits = 0;
    std::size_t i = 0;
    // A table too long for 32-bit places is looked at point by point.
    if (eight && ranges_.size() < (std::size_t(1) << 30)) {
        const FieldLook look{{low_.x, low_.y, low_.z},
                             {last_.x, last_.y, last_.z},
                             inverse_,
                             std::countr_zero(kBlockCells),
                             {int(blocks_[0]), int(blocks_[1])},
                             &ranges_[0].least,
                             borderLeast_,
                             below,
                             above};
        for (; i + 8 <= positions.size(); i += 8) bits |= eight(look, &positions[i].x) << i;
        if (i < positions.size() && positions.size() >= 8) {  // some of the last eight once more
            bits |= eight(look, &positions[positions.size() - 8].x) << (positions.size() - 8);
            i = positions.size();
        }
    }
    for (; i < positions.size(); ++i)
        bits |= std::uint32_t(!surelyOutside(positions[i], below, above)) << i;
    return bits;
}

std::size_t DistanceField::byteSize() const {
    return (values_.size() + floor_.size()) * sizeof(float) + ranges_.size() * sizeof(Range);
}

std::uint64_t DistanceField::contentHash() const {
    std::uint64_t h = mix64(values_.size());
    for (const float value : values_) h = hashCombine(h, value);
    return h;
}

// ---- kept ---------------------------------------------------------------------------------------

DistanceFieldPtr sharedDistanceField(const ScalpPtr& mesh, float offset, std::string* whyNot) {
    static Kept<Gauge> gauges;
    static Kept<DistanceField> kept;
    const std::uint64_t content = meshKey(*mesh);
    std::shared_ptr<const Gauge> gauge = gauges.find(content);
    if (!gauge) gauges.add(content, gauge = std::make_shared<const Gauge>(gaugeOf(*mesh)));
    if (gauge->refusal) {
        if (whyNot) *whyNot = gauge->refusal;
        return nullptr;
    }
    const std::uint64_t key =
        hashCombine(content, std::uint64_t(paddingCells(offset, gauge->cell, gauge->side)));
    if (DistanceFieldPtr found = kept.find(key)) return found;
    auto made = std::make_shared<const DistanceField>(*mesh, offset);
    kept.add(key, made);
    return made;
}

std::shared_ptr<const ExactDistance> sharedExactDistance(const ScalpPtr& mesh) {
    static Kept<ExactDistance> kept;
    const std::uint64_t key = meshKey(*mesh);
    if (std::shared_ptr<const ExactDistance> found = kept.find(key)) return found;
    auto made = std::make_shared<const ExactDistance>(mesh);
    kept.add(key, made);
    return made;
}

}  // namespace corvelle

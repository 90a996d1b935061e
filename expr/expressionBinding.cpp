#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "expr/expressionEvaluator.h"
#include "expr/expressionMap.h"
#include "expr/expressionProgram.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/polyline.h"

namespace corvelle {

namespace {

using enum ExpressionVariable;

constexpr std::size_t kMaxLanes = 256;  // of one batch: its rows stay in the first cache
constexpr std::size_t kStackFloats = kMaxExpressionStack;
constexpr std::uint64_t kRandSalt = 0x72616E64;  // "rand"
constexpr std::string_view kPreviewChannel = "_preview";
constexpr float kMarked = 0.5f;

constexpr ExpressionVariables kUvs = variableBits(U, V);
constexpr ExpressionVariables kNormals = variableBits(NormalX, NormalY, NormalZ, Lift);
constexpr ExpressionVariables kLengths = variableBits(Length, Straightness);
constexpr ExpressionVariables kRootPlaces = variableBits(X, Y, Z, PointX, PointY, PointZ);
constexpr ExpressionVariables kTips = variableBits(TipX, TipY, TipZ, Reach, Straightness, Lift);

/// Lanes of a batch for a program: fewer where its stack is deep.
std::size_t lanesFor(const ExpressionProgram& program) {
    const std::size_t fit = kStackFloats / std::max<std::size_t>(program.stackDepth, 1);
    if (fit >= kMaxLanes) return kMaxLanes;
    return fit >= 8 ? fit / 8 * 8 : std::max<std::size_t>(fit, 1);
}

/// Rows of values, one row a variable, one value a lane; rows that nobody asks for are null.
using VariableRows = std::array<float*, kExpressionVariableCount>;

/// Arrays of one batch, left uninitialised and local to the call: about 130 KB, of which an
/// expression touches what it uses.
struct BatchArrays {
    std::array<float, kStackFloats> stack;
    std::array<float, kExpressionVariableCount * kMaxLanes> lanes;
    std::array<float, kExpressionVariableCount * kMaxLanes> strands;
    std::array<std::uint32_t, kMaxLanes> strandOf;
    std::array<std::uint64_t, kMaxLanes> pointOf;
    std::array<std::uint64_t, kMaxLanes> idOf;
    alignas(Vec3f) std::array<std::byte, kMaxLanes * sizeof(Vec3f)> rootPositions;
    BatchArrays() {}  // not even zeroed
    Vec3f* places() { return reinterpret_cast<Vec3f*>(rootPositions.data()); }

    static VariableRows rows(float* storage, ExpressionVariables variables) {
        VariableRows out{};
        for (std::size_t v = 0; v < kExpressionVariableCount; ++v)
            if (variables >> v & 1u) out[v] = storage + v * kMaxLanes;
        return out;
    }
};

void set(const VariableRows& rows, ExpressionVariable v, std::size_t lane, float value) {
    if (float* row = rows[std::size_t(v)]) row[lane] = value;
}
void set(const VariableRows& rows, ExpressionVariable v, std::size_t lane, Vec3f value) {
    set(rows, v, lane, value.x);
    set(rows, ExpressionVariable(std::size_t(v) + 1), lane, value.y);
    set(rows, ExpressionVariable(std::size_t(v) + 2), lane, value.z);
}
void fill(const VariableRows& rows, ExpressionVariable v, std::size_t lanes, float value) {
    if (float* row = rows[std::size_t(v)]) std::fill_n(row, lanes, value);
}

/// The root on the scalp, found by position where the stored one is on no triangle.
StrandRoot rootOn(const ScalpMesh& scalp, const StrandRoot& root, Vec3f position) {
    SurfaceHit hit;
    if (scalp.validRoot(root)) return root;
    if (scalp.closestPoint(position, ScalpMesh::kAnyDistance, hit)) return hit.root();
    return {};
}

void fillTime(const VariableRows& rows, std::size_t lanes, double frame, double time) {
    fill(rows, Frame, lanes, float(frame));
    fill(rows, Time, lanes, float(time));
}

float longestOf(const StrandSet& set) {
    const std::vector<float>* marks = set.strandChannel(kPreviewChannel);
    const auto marked = [&](std::size_t s) { return (*marks)[s] >= kMarked; };
    if (!marks || std::none_of(marks->begin(), marks->end(), [](float m) { return m >= kMarked; }))
        return set.extent().longest;
    const std::size_t count = set.strandCount();
    std::vector<float> longest((count + kChunkStrands - 1) / kChunkStrands, 0.0f);
    parallelRange(0, longest.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t c = begin; c < end; ++c) {
            const std::size_t last = std::min(count, (c + 1) * kChunkStrands);
            for (std::size_t s = c * kChunkStrands; s < last; ++s)
                if (marked(s)) longest[c] = std::max(longest[c], polylineLength(set.pointsOf(s)));
        }
    });
    return longest.empty() ? 0.0f : *std::max_element(longest.begin(), longest.end());
}

BoundChannel channelOf(const StrandSet& set, const std::string& name) {
    if (const auto* values = set.strandChannel(name)) return {values->data(), false};
    if (const auto* values = set.pointChannel(name)) return {values->data(), true};
    return {};
}

/// Whether each index is one more than the one before: then channels are read in place.
template <class T>
bool inOrder(std::span<const T> indices) {
    T differences = 0;  // vectorised, which a search for the first difference is not
    for (std::size_t i = 0; i < indices.size(); ++i)
        differences |= indices[i] ^ (indices[0] + T(i));
    return differences == 0;
}

float straightness(float reach, float length) { return length > 0.0f ? reach / length : 0.0f; }

void store(const float* stack, std::size_t, bool, std::span<float> out) {
    std::copy_n(stack, out.size(), out.data());
}
void store(const float* stack, std::size_t stride, bool vector, std::span<Vec3f> out) {
    if (!vector) {
        for (std::size_t i = 0; i < out.size(); ++i) out[i] = {stack[i], 0.0f, 0.0f};
        return;
    }
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = {stack[i], stack[stride + i], stack[2 * stride + i]};
}

/// The share of the arc length at points first, first + 1, ... of one strand, a run after another.
class ArcShares {
public:
    void next(std::span<const Vec3f> points, std::size_t first, std::span<float> out) {
        if (first == 0 && out.size() == points.size()) {
            polylineShares(points, out);
            return;
        }
        if (first == 0) {
            sum_ = 0.0f;
            total_ = polylineLength(points);
        }
        const bool measured = total_ > 0.0f && std::isfinite(total_);
        const float last = float(points.size() - 1);
        for (std::size_t k = 0; k < out.size(); ++k) {
            const std::size_t p = first + k;
            if (p > 0) sum_ += distance(points[p - 1], points[p]);
            out[k] = measured ? sum_ / total_ : float(p) / last;
        }
    }

private:
    float sum_ = 0.0f, total_ = 0.0f;
};

/// A stretch of one strand's points, side by side in the lanes of a batch.
struct PointRun {
    std::size_t lane, count;
    std::size_t first;  ///< of the points, in the strand
    std::uint32_t strand;
};

}  // namespace

struct ExpressionMap::Bound::Data {
    std::shared_ptr<const ExpressionProgram> program;
    std::vector<NamedMapPtr> mapsKept;
    std::vector<BoundChannel> channels;
    std::vector<BoundMap> maps;
    ExpressionTables tables;
    std::span<const std::uint64_t> ids;
    std::span<const std::uint64_t> offsets;
    std::span<const Vec3f> points;
    ScalpPtr scalp;
    double frame = 0.0, time = 0.0;
    float longest = 0.0f;
    bool perPoint = false;
    bool readsPointChannels = false;

    std::span<const Vec3f> pointsOf(std::uint32_t strand) const {
        return points.subspan(offsets[strand], offsets[strand + 1] - offsets[strand]);
    }
    Vec3f rootOf(std::uint32_t strand) const {
        const auto own = pointsOf(strand);
        return own.empty() ? Vec3f{} : own.front();
    }
    std::uint64_t rootPointOf(std::uint32_t strand) const {
        return pointsOf(strand).empty() ? kNoPoint : offsets[strand];
    }

    void fillStrands(std::span<const std::uint32_t> strands, const VariableRows& rows) const;
    Vec3f normalOf(std::uint32_t strand) const;
    StrandRecord record(std::size_t strand) const;
    StrandRecord record(std::size_t strand, std::size_t point) const;
    void fillRun(const PointRun& run, const VariableRows& rows, ArcShares& shares,
                 BatchArrays& arrays) const;
    template <class Out>
    void evaluateStrands(std::span<const std::uint32_t> strands, std::span<Out> out) const;
    template <class Out>
    void evaluatePoints(std::span<const std::uint32_t> strands, std::span<Out> out) const;
    template <class Out>
    void spreadStrands(std::span<const std::uint32_t> strands, std::span<Out> out) const;
};

Vec3f ExpressionMap::Bound::Data::normalOf(std::uint32_t strand) const {
    if (scalp) {
        const StrandRoot root = rootOn(*scalp, tables.roots[strand], rootOf(strand));
        if (root.rooted()) return scalp->surfaceNormal(root);
    }
    const auto own = pointsOf(strand);
    return own.size() < 2 ? Vec3f{} : normalized(own[1] - own[0]);
}

/// A pass per group of variables, so that one that is not read costs nothing.
void ExpressionMap::Bound::Data::fillStrands(std::span<const std::uint32_t> strands,
                                             const VariableRows& rows) const {
    const ExpressionVariables read = program->variables;
    const std::size_t lanes = strands.size();
    if (read & kRootPlaces) {
        for (std::size_t i = 0; i < lanes; ++i) {
            const Vec3f root = rootOf(strands[i]);
            set(rows, X, i, root);
            set(rows, PointX, i, root);
        }
    }
    if (read & kUvs) {
        for (std::size_t i = 0; i < lanes; ++i) {
            Vec2f uv;
            if (scalp) {
                const StrandRoot root =
                    rootOn(*scalp, tables.roots[strands[i]], rootOf(strands[i]));
                if (root.rooted()) uv = scalp->surfaceUv(root);
            }
            set(rows, U, i, uv.x);
            set(rows, V, i, uv.y);
        }
    }
    if (read & (kLengths | kTips | kNormals)) {
        for (std::size_t i = 0; i < lanes; ++i) {
            const auto own = pointsOf(strands[i]);
            const Vec3f root = own.empty() ? Vec3f{} : own.front();
            const Vec3f tip = own.empty() ? Vec3f{} : own.back();
            const Vec3f span = tip - root;
            if (read & kTips) {
                set(rows, TipX, i, tip);
                set(rows, Reach, i, ::corvelle::length(span));
            }
            if (read & kLengths) {
                const float arc = polylineLength(own);
                set(rows, Length, i, arc);
                set(rows, Straightness, i, straightness(::corvelle::length(span), arc));
            }
            if (read & kNormals) {
                const Vec3f normal = normalOf(strands[i]);
                set(rows, NormalX, i, normal);
                set(rows, Lift, i, dot(normalized(span), normal));
            }
        }
    }
    if (float* row = rows[std::size_t(Rand)])
        for (std::size_t i = 0; i < lanes; ++i)
            row[i] = unitHash(hashCombine(mix64(ids[strands[i]]), kRandSalt));
    if (float* row = rows[std::size_t(Index)])
        for (std::size_t i = 0; i < lanes; ++i) row[i] = float(strands[i]);
    fill(rows, Longest, lanes, longest);
    fill(rows, T, lanes, 0.0f);
    fill(rows, PointShare, lanes, 0.0f);
    fill(rows, PointIndex, lanes, 0.0f);
    fillTime(rows, lanes, frame, time);
}

StrandRecord ExpressionMap::Bound::Data::record(std::size_t strand) const {
    StrandRecord record;
    record.strand = std::uint32_t(strand);
    record.id = ids[strand];
    record.point = rootPointOf(record.strand);
    record.rootPosition = rootOf(record.strand);
    record.tables = &tables;
    VariableRows rows{};
    for (std::size_t v = 0; v < rows.size(); ++v) rows[v] = &record.variables[v];
    fillStrands({&record.strand, 1}, rows);
    return record;
}

StrandRecord ExpressionMap::Bound::Data::record(std::size_t strand, std::size_t point) const {
    StrandRecord out = record(strand);
    const auto own = pointsOf(out.strand);
    const auto value = [&](ExpressionVariable v) -> float& {
        return out.variables[std::size_t(v)];
    };
    if (program->variables & variableBit(T)) {
        ArcShares shares;
        for (std::size_t p = 0; p <= point; ++p) {
            // A run of one point: the same sums as a whole strand's.
            if (own.size() > 1) shares.next(own, p, {&value(T), 1});
        }
    }
    value(PointShare) = own.size() > 1 ? float(point) / float(own.size() - 1) : 0.0f;
    value(PointX) = own[point].x;
    value(PointY) = own[point].y;
    value(PointZ) = own[point].z;
    value(PointIndex) = float(point);
    out.point = offsets[strand] + point;
    return out;
}

template <class Out>
void ExpressionMap::Bound::Data::evaluateStrands(std::span<const std::uint32_t> strands,
                                                 std::span<Out> out) const {
    const std::size_t most = lanesFor(*program);
    BatchArrays arrays;
    const VariableRows rows = BatchArrays::rows(arrays.lanes.data(), program->variables);
    Vec3f* const places = arrays.places();
    ExpressionBatch batch;
    std::copy(rows.begin(), rows.end(), batch.variables.begin());
    batch.points = arrays.pointOf.data();
    batch.ids = arrays.idOf.data();
    batch.rootPositions = places;
    batch.tables = &tables;
    for (std::size_t begin = 0; begin < strands.size(); begin += most) {
        const auto some = strands.subspan(begin, std::min(most, strands.size() - begin));
        batch.lanes = some.size();
        batch.strands = some.data();
        fillStrands(some, rows);
        if (!channels.empty()) batch.strandsInOrder = inOrder(some);
        if (readsPointChannels)
            for (std::size_t i = 0; i < some.size(); ++i) arrays.pointOf[i] = rootPointOf(some[i]);
        if (program->readsIds)
            for (std::size_t i = 0; i < some.size(); ++i) arrays.idOf[i] = ids[some[i]];
        if (!maps.empty())
            for (std::size_t i = 0; i < some.size(); ++i) places[i] = rootOf(some[i]);
        evaluateBatch(*program, batch, arrays.stack.data(), most);
        store(arrays.stack.data(), most, program->vector, out.subspan(begin, some.size()));
    }
}

/// Nothing varies along the strands: evaluated once each.
template <class Out>
void ExpressionMap::Bound::Data::spreadStrands(std::span<const std::uint32_t> strands,
                                               std::span<Out> out) const {
    std::array<Out, kMaxLanes> values;
    std::size_t at = 0;
    for (std::size_t begin = 0; begin < strands.size(); begin += kMaxLanes) {
        const auto some = strands.subspan(begin, std::min(kMaxLanes, strands.size() - begin));
        evaluateStrands(some, std::span<Out>(values).first(some.size()));
        for (std::size_t i = 0; i < some.size(); ++i) {
            const std::size_t count = pointsOf(some[i]).size();
            std::fill_n(out.begin() + std::ptrdiff_t(at), count, values[i]);
            at += count;
        }
    }
}

/// What varies along the strand, for the points of one run; runs of a strand come in order.
void ExpressionMap::Bound::Data::fillRun(const PointRun& run, const VariableRows& rows,
                                         ArcShares& shares, BatchArrays& arrays) const {
    const auto own = pointsOf(run.strand);
    const auto rowOf = [&](ExpressionVariable v) -> float* {
        float* const row = rows[std::size_t(v)];
        return row ? row + run.lane : nullptr;
    };
    if (float* row = rowOf(T)) shares.next(own, run.first, {row, run.count});
    if (float* row = rowOf(PointShare)) {
        const float last = float(std::max<std::size_t>(own.size() - 1, 1));
        for (std::size_t k = 0; k < run.count; ++k) row[k] = float(run.first + k) / last;
    }
    if (float* row = rowOf(PointIndex))
        for (std::size_t k = 0; k < run.count; ++k) row[k] = float(run.first + k);
    const Vec3f* const from = own.data() + run.first;
    if (float* row = rowOf(PointX))
        for (std::size_t k = 0; k < run.count; ++k) row[k] = from[k].x;
    if (float* row = rowOf(PointY))
        for (std::size_t k = 0; k < run.count; ++k) row[k] = from[k].y;
    if (float* row = rowOf(PointZ))
        for (std::size_t k = 0; k < run.count; ++k) row[k] = from[k].z;
    if (!channels.empty() || !maps.empty()) {
        std::fill_n(arrays.strandOf.data() + run.lane, run.count, run.strand);
        for (std::size_t k = 0; k < run.count; ++k)
            arrays.pointOf[run.lane + k] = offsets[run.strand] + run.first + k;
    }
    if (program->readsIds) std::fill_n(arrays.idOf.data() + run.lane, run.count, ids[run.strand]);
    if (!maps.empty()) std::fill_n(arrays.places() + run.lane, run.count, rootOf(run.strand));
}

template <class Out>
void ExpressionMap::Bound::Data::evaluatePoints(std::span<const std::uint32_t> strands,
                                                std::span<Out> out) const {
    if (!perPoint) return spreadStrands(strands, out);
    const std::size_t most = lanesFor(*program);
    const ExpressionVariables perStrand = program->variables & ~kPointVariables;
    BatchArrays arrays;
    const VariableRows rows = BatchArrays::rows(arrays.lanes.data(), program->variables);
    const VariableRows strandRows = BatchArrays::rows(arrays.strands.data(), perStrand);
    std::array<PointRun, kMaxLanes> runs;
    std::array<std::uint32_t, kMaxLanes> runStrands;
    ExpressionBatch batch;
    std::copy(rows.begin(), rows.end(), batch.variables.begin());
    batch.strands = arrays.strandOf.data();
    batch.points = arrays.pointOf.data();
    batch.ids = arrays.idOf.data();
    batch.rootPositions = arrays.places();
    batch.tables = &tables;

    ArcShares shares;
    std::size_t next = 0, firstPoint = 0, written = 0;  // where the next run begins
    bool carriedOn = false;  // the last batch was part of one long strand
    while (next < strands.size()) {
        // Whole strands while they fit; a strand longer than a batch is cut.
        std::size_t lanes = 0, count = 0;
        const bool continues = carriedOn;
        while (next < strands.size() && lanes < most) {
            const std::size_t left = pointsOf(strands[next]).size() - firstPoint;
            const std::size_t taken = left <= most - lanes ? left : lanes == 0 ? most : 0;
            if (taken == 0 && left > 0) break;
            if (taken > 0) {
                runs[count] = {lanes, taken, firstPoint, strands[next]};
                runStrands[count++] = strands[next];
                lanes += taken;
            }
            firstPoint = taken == left ? 0 : firstPoint + taken;
            if (firstPoint == 0) ++next;
        }
        if (lanes == 0) break;
        carriedOn = count == 1 && (firstPoint > 0);
        if (!(continues && count == 1)) fillStrands(std::span(runStrands).first(count), strandRows);

        for (std::size_t v = 0; v < kExpressionVariableCount; ++v) {
            if (!(perStrand >> v & 1u)) continue;
            for (std::size_t r = 0; r < count; ++r)
                std::fill_n(rows[v] + runs[r].lane, runs[r].count, strandRows[v][r]);
        }
        for (std::size_t r = 0; r < count; ++r) fillRun(runs[r], rows, shares, arrays);
        batch.lanes = lanes;
        if (readsPointChannels)
            batch.pointsInOrder =
                inOrder(std::span<const std::uint64_t>(arrays.pointOf).first(lanes));
        evaluateBatch(*program, batch, arrays.stack.data(), most);
        store(arrays.stack.data(), most, program->vector, out.subspan(written, lanes));
        written += lanes;
    }
}

// ---- the public face ----

bool ExpressionMap::Bound::perPoint() const { return data_->perPoint; }
float ExpressionMap::Bound::strand(std::size_t strand) const {
    return evaluate(*data_->program, data_->record(strand));
}
float ExpressionMap::Bound::point(std::size_t strand, std::size_t point) const {
    if (!data_->perPoint) return this->strand(strand);
    return evaluate(*data_->program, data_->record(strand, point));
}
Vec3f ExpressionMap::Bound::strandVector(std::size_t strand) const {
    return evaluateVector(*data_->program, data_->record(strand));
}
Vec3f ExpressionMap::Bound::pointVector(std::size_t strand, std::size_t point) const {
    if (!data_->perPoint) return strandVector(strand);
    return evaluateVector(*data_->program, data_->record(strand, point));
}

namespace {

void requireRoom(std::size_t room, std::size_t wanted) {
    if (room < wanted)
        throw std::invalid_argument("out: " + std::to_string(room) + " for " +
                                    std::to_string(wanted) + " values, give one per value");
}

}  // namespace

void ExpressionMap::Bound::strands(std::span<const std::uint32_t> strands,
                                   std::span<float> out) const {
    requireRoom(out.size(), strands.size());
    data_->evaluateStrands(strands, out);
}
void ExpressionMap::Bound::strandVectors(std::span<const std::uint32_t> strands,
                                         std::span<Vec3f> out) const {
    requireRoom(out.size(), strands.size());
    data_->evaluateStrands(strands, out);
}
void ExpressionMap::Bound::points(std::span<const std::uint32_t> strands,
                                  std::span<float> out) const {
    std::size_t total = 0;
    for (const std::uint32_t s : strands) total += data_->pointsOf(s).size();
    requireRoom(out.size(), total);
    data_->evaluatePoints(strands, out);
}
void ExpressionMap::Bound::pointVectors(std::span<const std::uint32_t> strands,
                                        std::span<Vec3f> out) const {
    std::size_t total = 0;
    for (const std::uint32_t s : strands) total += data_->pointsOf(s).size();
    requireRoom(out.size(), total);
    data_->evaluatePoints(strands, out);
}

ExpressionMap::Bound ExpressionMap::bind(const StrandSet& strands,
                                         const ExpressionEnvironment& environment) const {
    auto data = std::make_shared<Bound::Data>();
    data->program = program_;
    data->mapsKept = maps_;
    for (const std::string& name : program_->channels)
        data->channels.push_back(channelOf(strands, name));
    for (const NamedMapPtr& map : maps_) {
        const std::string layer = map->channel();
        data->maps.push_back(
            {map.get(), layer.empty() ? BoundChannel{} : channelOf(strands, layer)});
    }
    data->tables = {data->channels, data->maps, strands.roots()};
    data->ids = strands.ids();
    data->offsets = strands.offsets();
    data->points = strands.points();
    data->scalp = environment.scalp;
    data->frame = environment.frame;
    data->time = environment.time;

    const auto varies = [](const BoundChannel& c) { return c.values && c.perPoint; };
    data->readsPointChannels = std::any_of(data->channels.begin(), data->channels.end(), varies) ||
                               std::any_of(data->maps.begin(), data->maps.end(),
                                           [&](const BoundMap& map) { return varies(map.layer); });
    data->perPoint =
        program_->perPointAllowed && (program_->perPoint() || data->readsPointChannels);
    if (readsWholeSet()) data->longest = longestOf(strands);
    // The search tree, if one is needed, is built here: not from inside a parallel body.
    if (data->scalp && (program_->variables & (kUvs | kNormals)) &&
        std::any_of(data->tables.roots.begin(), data->tables.roots.end(),
                    [&](const StrandRoot& root) { return !data->scalp->validRoot(root); }))
        data->scalp->prepareQueries();

    Bound bound;
    bound.data_ = std::move(data);
    return bound;
}

void ExpressionMap::atRoots(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                            const ExpressionEnvironment& environment, std::span<float> out) const {
    if (positions.size() != roots.size())
        throw std::invalid_argument("positions: " + std::to_string(positions.size()) + " for " +
                                    std::to_string(roots.size()) + " roots, give one per root");
    requireRoom(out.size(), roots.size());
    const std::vector<BoundChannel> channels(program_->channels.size());
    std::vector<BoundMap> maps;
    for (const NamedMapPtr& map : maps_) maps.push_back({map.get(), {}});
    const std::size_t most = lanesFor(*program_);
    BatchArrays arrays;
    const VariableRows rows = BatchArrays::rows(arrays.lanes.data(), program_->variables);
    for (std::size_t v = 0; v < rows.size(); ++v) fill(rows, ExpressionVariable(v), most, 0.0f);
    fillTime(rows, most, environment.frame, environment.time);
    for (std::size_t i = 0; i < most; ++i) arrays.strandOf[i] = std::uint32_t(i);
    const ScalpMesh* scalp = environment.scalp.get();
    const bool readsSurface = scalp && (program_->variables & (kUvs | kNormals));
    ExpressionBatch batch;
    std::copy(rows.begin(), rows.end(), batch.variables.begin());
    batch.strands = arrays.strandOf.data();
    for (std::size_t begin = 0; begin < roots.size(); begin += most) {
        batch.lanes = std::min(most, roots.size() - begin);
        const ExpressionTables tables{channels, maps, roots.subspan(begin, batch.lanes)};
        batch.tables = &tables;
        batch.rootPositions = positions.data() + begin;
        for (std::size_t i = 0; i < batch.lanes; ++i) {
            const Vec3f position = positions[begin + i];
            set(rows, X, i, position);
            set(rows, PointX, i, position);
            if (!readsSurface) continue;
            const StrandRoot root = rootOn(*scalp, roots[begin + i], position);
            const Vec3f normal = root.rooted() ? scalp->surfaceNormal(root) : Vec3f{};
            const Vec2f uv = root.rooted() ? scalp->surfaceUv(root) : Vec2f{};
            set(rows, NormalX, i, normal);
            set(rows, U, i, uv.x);
            set(rows, V, i, uv.y);
        }
        evaluateBatch(*program_, batch, arrays.stack.data(), most);
        store(arrays.stack.data(), most, false, out.subspan(begin, batch.lanes));
    }
}

}  // namespace corvelle

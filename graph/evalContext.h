#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "expr/mapCatalog.h"
#include "graph/curveReader.h"
#include "graph/nodeValue.h"
#include "model/flowData.h"
#include "model/guideHierarchy.h"
#include "model/guideSet.h"
#include "model/partLines.h"
#include "model/scalpMesh.h"

namespace corvelle {

/// The things of a session that a node may read, as bits. A node declares its reads, its hash
/// covers them, and an undeclared read is an assertion: it would be a stale cache.
namespace reads {
enum : std::uint32_t {
    kScalp = 1u << 0,
    kScalpHistory = 1u << 1,
    kGuides = 1u << 2,
    kParts = 1u << 3,
    kFlow = 1u << 4,
    kMaps = 1u << 5,
    kColliders = 1u << 6,
    kPrototypes = 1u << 7,
    kTime = 1u << 8,
    kViewport = 1u << 9,
    kDensity = 1u << 10,  ///< with the point budget and growSegments
    kSearchPaths = 1u << 11,
    kAll = (1u << 12) - 1,
};
}  // namespace reads
/// The words of the bits: "scalp", "scalpHistory", "guides", ...
std::vector<std::string> readsWords(std::uint32_t mask);

/// Points of the scalp per rounded frame, the newest last; recorded at evaluation.
struct ScalpHistory {
    struct Entry {
        long long frame = 0;
        ScalpPtr mesh;
    };
    std::vector<Entry> entries;
    std::uint64_t hash() const;
};

/// What one outer input of a compound gives its inner graph.
struct CompoundInput {
    NodeValue value;
    std::uint64_t hash = 0;          ///< names the value
    std::uint64_t previousHash = 0;  ///< of the value that `changes` counts from; 0: not known
    StrandChangesPtr changes;
};

/// Everything an evaluation hands to its nodes. Plain data: the session fills it.
struct EvaluationData {
    double seconds = 0.0;
    double frame = 0.0;
    double framesPerSecond = 24.0;
    bool viewport = false;
    bool deferTools = false;
    float density = 1.0f;      ///< preview share, 0 to 1
    double pointBudget = 0.0;  ///< 0: none
    int growSegments = 0;      ///< 0: worked out from the graph's Resample nodes
    ScalpPtr scalp;            ///< the rest scalp while following; all scalps as pieces of one mesh
    ScalpPtr currentScalp;     ///< the scalp as it is now
    std::shared_ptr<const ScalpHistory> scalpHistory;
    std::shared_ptr<const GuideHierarchy> hierarchy;
    GuidesPtr flatGuides;
    std::shared_ptr<const PartLines> parts;
    std::shared_ptr<const FlowField> flow;
    MapCatalogPtr maps;
    std::map<std::string, MeshValue> colliders;
    std::map<std::string, double> controls;
    std::string directory;  ///< the groom's, for relative paths
    std::vector<std::string> searchPaths;
    std::shared_ptr<CurveReader> curves;  ///< reads curve files; null: there is none
    std::map<std::string, CompoundInput> inputs;  ///< inside a compound: its outer inputs by name
};

/// A node's view of the evaluation: what it declared, asserted in debug builds. Cheap to make.
class EvalContext {
public:
    explicit EvalContext(const EvaluationData& data, std::uint32_t mask = reads::kAll)
        : data_(&data), mask_(mask) {}
    EvalContext limitedTo(std::uint32_t mask) const { return EvalContext(*data_, mask); }
    EvalContext unrestricted() const { return EvalContext(*data_); }
    const EvaluationData& data() const { return *data_; }  ///< for the graph and for mapped params

    double seconds() const { return read(reads::kTime).seconds; }
    double frame() const { return read(reads::kTime).frame; }
    double framesPerSecond() const { return read(reads::kTime).framesPerSecond; }
    bool viewport() const { return read(reads::kViewport).viewport; }
    bool deferTools() const { return data_->deferTools; }
    float density() const { return read(reads::kDensity).density; }
    double pointBudget() const { return read(reads::kDensity).pointBudget; }
    int growSegments() const { return read(reads::kDensity).growSegments; }
    const ScalpPtr& scalp() const { return read(reads::kScalp).scalp; }
    const ScalpPtr& currentScalp() const { return read(reads::kScalpHistory).currentScalp; }
    const std::shared_ptr<const GuideHierarchy>& hierarchy() const { return read(reads::kGuides).hierarchy; }
    const GuidesPtr& flatGuides() const { return read(reads::kGuides).flatGuides; }
    const std::shared_ptr<const PartLines>& parts() const { return read(reads::kParts).parts; }
    const std::shared_ptr<const FlowField>& flow() const { return read(reads::kFlow).flow; }
    const MapCatalogPtr& maps() const { return read(reads::kMaps).maps; }
    const std::map<std::string, MeshValue>& colliders() const { return read(reads::kColliders).colliders; }
    PathResolver pathResolver() const {
        return searchPathResolver(read(reads::kSearchPaths).directory, data_->searchPaths);
    }

private:
    const EvaluationData& read(std::uint32_t what) const;  ///< asserts mask_ & what
    const EvaluationData* data_;
    std::uint32_t mask_;
};

/// What the context things in `mask` say, as one hash.
std::uint64_t contextReadsHash(const EvaluationData& data, std::uint32_t mask);

/// The same, asked many times about much the same data: things that are hashed by passing over them
/// (guides, maps) are kept by identity, with a hold on them.
class ContextHasher {
public:
    /// Forgets what was said of other data.
    void begin(const EvaluationData& data);
    std::uint64_t hash(std::uint32_t mask);

private:
    static constexpr std::size_t kBits = 12;
    std::uint64_t bitHash(std::size_t bit);
    std::uint64_t held(std::size_t slot, const std::shared_ptr<const void>& thing,
                       std::uint64_t (*hashThing)(const void*));
    const EvaluationData* data_ = nullptr;
    std::uint64_t hashes_[kBits] = {};
    bool known_[kBits] = {};
    struct Held {
        std::shared_ptr<const void> thing;
        std::uint64_t hash = 0;
    };
    Held held_[4];
};

}  // namespace corvelle

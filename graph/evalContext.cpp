#include "graph/evalContext.h"

#include <cassert>

#include "model/hash.h"

namespace corvelle {

namespace {

constexpr const char* kWords[] = {"scalp", "scalpHistory", "guides",    "parts",
                                  "flow",  "maps",         "colliders", "prototypes",
                                  "time",  "viewport",     "density",   "searchPaths"};
static_assert(reads::kAll == (1u << std::size(kWords)) - 1);

enum HeldSlot : std::size_t { kHierarchy, kMaps, kParts, kFlow };

std::uint64_t meshHash(const ScalpPtr& mesh) { return mesh ? mesh->fullHash() : 0; }
std::uint64_t textHash(std::uint64_t h, const std::string& text) {
    return hashCombine(hashCombine(h, std::uint64_t(text.size())), std::string_view(text));
}

}  // namespace

std::vector<std::string> readsWords(std::uint32_t mask) {
    std::vector<std::string> words;
    for (std::size_t bit = 0; bit < std::size(kWords); ++bit)
        if (mask & (1u << bit)) words.emplace_back(kWords[bit]);
    return words;
}

std::uint64_t ScalpHistory::hash() const {
    std::uint64_t h = mix64(entries.size());
    for (const Entry& entry : entries) {
        h = hashCombine(h, std::uint64_t(entry.frame));
        h = hashCombine(h, meshHash(entry.mesh));
    }
    return h;
}

const EvaluationData& EvalContext::read(std::uint32_t what) const {
    assert((mask_ & what) == what && "a node reads what its contextReads does not declare");
    (void)what;
    return *data_;
}

void ContextHasher::begin(const EvaluationData& data) {
    data_ = &data;
    std::fill(std::begin(known_), std::end(known_), false);
}

std::uint64_t ContextHasher::held(std::size_t slot, const std::shared_ptr<const void>& thing,
                                  std::uint64_t (*hashThing)(const void*)) {
    if (!thing) return 0;
    Held& kept = held_[slot];
    if (kept.thing != thing) kept = {thing, hashThing(thing.get())};
    return kept.hash;
}

std::uint64_t ContextHasher::bitHash(std::size_t bit) {
    const EvaluationData& d = *data_;
    std::uint64_t h = mix64(bit);
    switch (1u << bit) {
        case reads::kScalp:
            return hashCombine(h, meshHash(d.scalp));
        case reads::kScalpHistory:
            h = hashCombine(h, meshHash(d.currentScalp));
            return hashCombine(h, d.scalpHistory ? d.scalpHistory->hash() : 0);
        case reads::kGuides:
            h = hashCombine(h, held(kHierarchy, d.hierarchy, [](const void* p) {
                                return static_cast<const GuideHierarchy*>(p)->contentHash();
                            }));
            return hashCombine(h, d.flatGuides ? d.flatGuides->contentHash() : 0);
        case reads::kParts:
            return hashCombine(h, held(kParts, d.parts, [](const void* p) {
                                   return static_cast<const PartLines*>(p)->hash();
                               }));
        case reads::kFlow:
            return hashCombine(h, held(kFlow, d.flow, [](const void* p) {
                                   return static_cast<const FlowField*>(p)->hash();
                               }));
        case reads::kMaps:
            return hashCombine(h, held(kMaps, d.maps, [](const void* p) {
                                   return static_cast<const MapCatalogValue*>(p)->hash();
                               }));
        case reads::kColliders:
            for (const auto& [name, collider] : d.colliders) {
                h = textHash(h, name);
                h = hashCombine(h, meshHash(collider.mesh));
                h = hashCombine(h, collider.friction);
            }
            return h;
        case reads::kTime:
            h = hashCombine(h, d.seconds);
            h = hashCombine(h, d.frame);
            return hashCombine(h, d.framesPerSecond);
        case reads::kViewport:
            return hashCombine(h, d.viewport);
        case reads::kDensity:
            h = hashCombine(h, d.density);
            h = hashCombine(h, d.pointBudget);
            return hashCombine(h, std::int32_t(d.growSegments));
        case reads::kSearchPaths:
            h = textHash(h, d.directory);
            for (const std::string& path : d.searchPaths) h = textHash(h, path);
            return h;
        default:
            return h;
    }
}

std::uint64_t ContextHasher::hash(std::uint32_t mask) {
    std::uint64_t h = mix64(mask);
    for (std::size_t bit = 0; bit < kBits; ++bit) {
        if (!(mask & (1u << bit))) continue;
        if (!known_[bit]) {
            hashes_[bit] = bitHash(bit);
            known_[bit] = true;
        }
        h = hashCombine(h, hashes_[bit]);
    }
    return h;
}

std::uint64_t contextReadsHash(const EvaluationData& data, std::uint32_t mask) {
    ContextHasher hasher;
    hasher.begin(data);
    return hasher.hash(mask);
}

}  // namespace corvelle

#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace corvelle {

// What rides on a strand set beside strands: instanced meshes, cards, feather layers. Each names
// strands by id, never by index, so a subset may carry them as they are. The set holds them behind
// these faces; the nodes that make them own their contents.

class InstanceSet {
public:
    virtual ~InstanceSet() = default;
    /// Enters the set's content hash.
    virtual std::uint64_t contentHash() const = 0;
    /// This set with the instances of `behind` after its own: what appending strand sets needs.
    virtual std::shared_ptr<const InstanceSet> joinedWith(const InstanceSet& behind) const = 0;
};

class CardMesh {
public:
    virtual ~CardMesh() = default;
};

class FeatherLayer {
public:
    virtual ~FeatherLayer() = default;
    /// The export group of the layer's feathers (their strands' `groupId`), 0 for none, and its name.
    virtual std::int32_t groupId() const { return 0; }
    virtual std::string groupName() const { return {}; }
};

}  // namespace corvelle

#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

#include "hosts/blender/helper/request.h"
#include "hosts/blender/helper/sharedRegion.h"
#include "model/vec3f.h"
#include "session/sceneSpace.h"

namespace corvelle {

/// A growing bump allocator for the arrays of answers, in shared memory that the host maps.
///
/// Each answer starts with `prepare` and then writes its arrays. An array of an earlier answer of
/// the same pool is good until then; a host that wants to keep it maps the region and copies. The
/// region is made anew, under a new name, only when an answer outgrows it: in a steady state no
/// memory is made, mapped or faulted in.
///
/// Main thread only. Arrays begin on 64-byte boundaries.
class AnswerPool {
public:
    /// `base` is the pool's part of its regions' names, such as "s3strands".
    explicit AnswerPool(std::string base) : base_(std::move(base)) {}

    /// Starts an answer of at most `bytes` bytes, the gaps between arrays included.
    /// Throws: std::runtime_error if shared memory cannot be made; the pool is then empty.
    void prepare(std::uint64_t bytes);

    /// An array of an answer: where to write it, and how the host finds it.
    struct Array {
        std::byte* data = nullptr;
        Json reference;
    };
    /// Throws: std::logic_error if the answer was prepared too small.
    Array allocate(std::uint64_t count, std::uint64_t elementSize, std::string_view dtype,
                   std::initializer_list<std::uint64_t> shape);

    /// The region in use; empty before the first answer.
    const SharedRegion& region() const noexcept { return region_; }
    std::uint64_t used() const noexcept { return used_; }
    /// How many regions this pool has made.
    std::uint32_t serial() const noexcept { return serial_; }

    /// Bytes that an array of `count` elements takes of a prepared answer, its gap included.
    static constexpr std::uint64_t bytesOf(std::uint64_t count, std::uint64_t elementSize) {
        return count * elementSize + 63;
    }

private:
    std::string base_;
    SharedRegion region_;
    std::uint64_t used_ = 0;
    std::uint32_t serial_ = 0;
};

// Writers of whole arrays. `components` numbers make an element: the shape is [count] for 1, else
// [count, components], where count is data.size() / components. All return the reference. Large
// arrays are copied on all threads.
Json writeInts(AnswerPool& pool, std::span<const std::int32_t> data, std::size_t components = 1);
Json writeFloats(AnswerPool& pool, std::span<const float> data, std::size_t components = 1);
Json writeLongs(AnswerPool& pool, std::span<const std::int64_t> data, std::size_t components = 1);
Json writeIds(AnswerPool& pool, std::span<const std::uint64_t> data, std::size_t components = 1);

/// Points as [n, 3] floats: as they are if `groomSpace`, else each turned to the host's space on its
/// way into the region.
Json writePoints(AnswerPool& pool, std::span<const Vec3f> points, const SceneSpace& space,
                 bool groomSpace);

}  // namespace corvelle

#include "hosts/blender/helper/answerPool.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "hosts/blender/helper/hostPoints.h"
#include "model/parallel.h"

namespace corvelle {
namespace {

constexpr std::uint64_t kAlignment = 64;
constexpr std::uint64_t kMebibyte = 1024 * 1024;

// Half as much again, in whole MiB, so that a growing groom does not make a region per evaluation.
std::uint64_t roomFor(std::uint64_t bytes) {
    constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max() / 2;
    if (bytes > kMost) return kMost;  // no system has it: makes the region fail, not the sum
    return (bytes + bytes / 2 + kMebibyte - 1) / kMebibyte * kMebibyte;
}

// Chunk by chunk on all threads; `copy(begin, end)` takes elements of `parts` numbers each.
template <class Copy>
void copyInChunks(std::size_t count, std::size_t parts, const Copy& copy) {
    const std::size_t chunk = kChunkElements / parts;
    parallelRange(0, (count + chunk - 1) / chunk, 1, [&](std::size_t begin, std::size_t end) {
        copy(begin * chunk, std::min(end * chunk, count));
    });
}

template <class T>
Json writeArray(AnswerPool& pool, std::span<const T> data, std::size_t components,
                std::string_view dtype) {
    const std::uint64_t count = data.size() / components;
    AnswerPool::Array array =
        components == 1 ? pool.allocate(data.size(), sizeof(T), dtype, {count})
                        : pool.allocate(data.size(), sizeof(T), dtype, {count, components});
    copyInChunks(data.size(), 1, [&](std::size_t begin, std::size_t end) {
        std::memcpy(array.data + begin * sizeof(T), data.data() + begin, (end - begin) * sizeof(T));
    });
    return std::move(array.reference);
}

}  // namespace

void AnswerPool::prepare(std::uint64_t bytes) {
    used_ = 0;
    if (region_ && region_.size() >= bytes && !region_.damaged()) return;
    region_ = {};  // before the next one: two at a time would double the memory
    ++serial_;
    region_ = SharedRegion::create(regionName(base_, serial_), roomFor(bytes));
}

AnswerPool::Array AnswerPool::allocate(std::uint64_t count, std::uint64_t elementSize,
                                       std::string_view dtype,
                                       std::initializer_list<std::uint64_t> shape) {
    const std::uint64_t start = (used_ + kAlignment - 1) / kAlignment * kAlignment;
    const std::uint64_t room = region_.size() > start ? region_.size() - start : 0;
    if (!region_ || start > region_.size() || count > room / elementSize)
        throw std::logic_error("an answer outgrew its shared memory");
    used_ = start + count * elementSize;
    return {.data = region_.bytes().data() + start,
            .reference = {{"shm", region_.name()},
                          {"offset", start},
                          {"dtype", dtype},
                          {"shape", Json::array_t(shape.begin(), shape.end())}}};
}

Json writeInts(AnswerPool& pool, std::span<const std::int32_t> data, std::size_t components) {
    return writeArray(pool, data, components, "<i4");
}

Json writeFloats(AnswerPool& pool, std::span<const float> data, std::size_t components) {
    return writeArray(pool, data, components, "<f4");
}

Json writeLongs(AnswerPool& pool, std::span<const std::int64_t> data, std::size_t components) {
    return writeArray(pool, data, components, "<i8");
}

Json writeIds(AnswerPool& pool, std::span<const std::uint64_t> data, std::size_t components) {
    return writeArray(pool, data, components, "<u8");
}

Json writePoints(AnswerPool& pool, std::span<const Vec3f> points, const SceneSpace& space,
                 bool groomSpace) {
    AnswerPool::Array array =
        pool.allocate(points.size(), sizeof(Vec3f), "<f4", {points.size(), 3});
    auto* const out = reinterpret_cast<Vec3f*>(array.data);
    copyInChunks(points.size(), 3, [&](std::size_t begin, std::size_t end) {
        const std::span<const Vec3f> part = points.subspan(begin, end - begin);
        if (groomSpace)
            std::memcpy(out + begin, part.data(), part.size_bytes());
        else
            pointsToHost(part, space, out + begin);
    });
    return std::move(array.reference);
}

}  // namespace corvelle

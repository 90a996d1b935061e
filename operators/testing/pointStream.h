#pragma once

#include <cstddef>
#include <memory>
#include <span>

#include "model/vec3f.h"

namespace corvelle {

/// The yardstick of benchmarks over points: p += w (q - p) over two arrays, which is what touching
/// every point costs at the least. Both lie in one block at fixed places, half a page apart beyond
/// whole pages: where the allocator would put them, a store to p and the next load of q may share
/// their address within a page and wait for one another, and the time doubles by chance.
class PointStream {
public:
    /// p begins as the points, q as the points backwards.
    explicit PointStream(std::span<const Vec3f> points);
    std::size_t size() const { return count_; }
    /// One pass, in parallel, `grain` points at a time.
    void step(std::size_t grain);

private:
    static constexpr std::size_t kPage = 4096;
    struct Free {
        void operator()(std::byte* block) const;
    };
    std::size_t count_;
    std::unique_ptr<std::byte[], Free> block_;
    Vec3f* p_ = nullptr;
    Vec3f* q_ = nullptr;
};

}  // namespace corvelle

#include "operators/testing/pointStream.h"

#include <algorithm>
#include <new>

#include "model/parallel.h"

namespace corvelle {

void PointStream::Free::operator()(std::byte* block) const {
    ::operator delete[](block, std::align_val_t(kPage));
}

PointStream::PointStream(std::span<const Vec3f> points) : count_(points.size()) {
    const std::size_t bytes = count_ * sizeof(Vec3f);
    const std::size_t pages = (bytes + kPage - 1) / kPage;
    const std::size_t second = pages * kPage + kPage / 2;
    block_.reset(new (std::align_val_t(kPage)) std::byte[second + bytes]);
    p_ = new (block_.get()) Vec3f[count_];
    q_ = new (block_.get() + second) Vec3f[count_];
    std::ranges::copy(points, p_);
    std::reverse_copy(points.begin(), points.end(), q_);
}

void PointStream::step(std::size_t grain) {
    Vec3f* const p = p_;
    const Vec3f* const q = q_;
    parallelRange(0, count_, grain, [p, q](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) p[i] += (q[i] - p[i]) * 0.25f;
    });
}

}  // namespace corvelle

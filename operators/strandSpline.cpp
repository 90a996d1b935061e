#include "operators/strandSpline.h"

#include <algorithm>

#include "model/simd4.h"
#include "operators/splineLanes.h"

namespace corvelle {

struct StrandSpline::Spans {
    std::vector<SplineSpan<float>> list;
    float length = 0.0f;
};

StrandSpline::StrandSpline() : spans_(std::make_unique<Spans>()) {}
StrandSpline::~StrandSpline() = default;

void StrandSpline::build(std::span<const Vec3f> points) {
    points_ = points;
    spans_->list.resize(points.size() - 1);
    spans_->length = measureSpans(&points[0].x, points.size(), spans_->list.data());
}

void StrandSpline::evenParams(std::span<float> params) const {
    const std::vector<SplineSpan<float>>& spans = spans_->list;
    const std::size_t last = params.size() - 1;
    const float step = spans_->length * (1.0f / float(last));
    std::size_t i = 0;
    for (std::size_t j = 0; j < last; ++j) {
        const float arc = step * float(j);
        while (i + 1 < spans.size() && !(arc < spans[i + 1].start)) ++i;
        params[j] = float(i) + std::clamp(placeIn(spans[i], arc), 0.0f, 1.0f);
    }
    params[0] = 0.0f;
    params[last] = float(spans.size());
}

Vec3f StrandSpline::at(float param) const {
    const std::size_t i = std::min(std::size_t(param), spans_->list.size() - 1);
    const float t = param - float(i);
    if (t <= 0.0f) return points_[i];
    if (t >= 1.0f) return points_[i + 1];
    const SplineSpan<float>& span = spans_->list[i];
    const Vec3f a = points_[i];
    return {componentAt(span, a.x, 0, t), componentAt(span, a.y, 1, t),
            componentAt(span, a.z, 2, t)};
}

float valueAt(std::span<const float> values, float param, bool discrete) {
    const std::size_t last = values.size() - 1;
    const std::size_t i = std::min(std::size_t(param), last);
    if (i == last) return values[last];
    const float t = param - float(i);
    if (discrete) return t < 0.5f ? values[i] : values[i + 1];
    return mix(values[i], values[i + 1], t);
}

}  // namespace corvelle

// The brush that paints values on guides.
#include "tools/brushModes.h"

namespace corvelle {

void paintGuide(const BrushWork& work, BrushEdit& edit) {
    const float b = work.strength(0.0f, 1.0f);
    if (work.settings.pointwise) {
        if (b == 0.0f) return;
        edit.pointWeights.resize(work.count());
        for (std::size_t i = 0; i < work.count(); ++i) edit.pointWeights[i] = work.weights[i] * b;
        return;
    }
    const float a = work.guideWeight * b;
    if (!(a > 0.0f)) return;
    if (work.guide.pointAttributes.contains(work.settings.attribute)) {
        edit.pointWeights.assign(work.count(), a);  // a layer of point values moves as one
        return;
    }
    const auto found = work.guide.attributes.find(work.settings.attribute);
    const float current = found != work.guide.attributes.end() ? found->second : 0.0f;
    edit.attributeValue = current + (work.settings.value - current) * a;
}

}  // namespace corvelle

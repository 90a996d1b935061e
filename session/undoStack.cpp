#include "session/undoStack.h"

#include <algorithm>

namespace corvelle {
namespace {

constexpr std::size_t kGuideBytes = 256;  ///< of a guide beside its lists
constexpr std::size_t kStepBytes = 1024;  ///< of a step beside what it holds

std::size_t bytesOf(const Guide& guide) {
    std::size_t bytes = kGuideBytes + (guide.points.size() + guide.offsets.size()) * sizeof(Vec3f) +
                        guide.tubeRadius.size() * sizeof(float);
    for (const auto& [name, values] : guide.pointAttributes)
        bytes += name.size() + values.size() * sizeof(float);
    return bytes + guide.attributes.size() * 64;
}

/// Guides come and go, but those that stay keep their order: both lists are walked side by side.
std::size_t bytesBeside(const GuideHierarchy& state, const GuideHierarchy* other) {
    std::size_t bytes = state.guides().size() * sizeof(GuidePtr);
    std::size_t at = 0;
    for (const GuidePtr& guide : state.guides()) {
        if (other) {
            const auto guides = other->guides();
            while (at < guides.size() && guides[at]->id != guide->id &&
                   !state.guide(guides[at]->id))
                ++at;  // gone
            if (at < guides.size() && guides[at]->id == guide->id) {
                const bool shared = guides[at] == guide;
                ++at;
                if (shared) continue;
            }
        }
        bytes += bytesOf(*guide);
    }
    return bytes;
}

std::size_t bytesBeside(const MapCatalogValue& state, const MapCatalogValue* other) {
    std::size_t bytes = 0;
    for (const auto& [name, map] : state.maps) {
        const PaintedMap* held = other ? other->find(name) : nullptr;
        bytes += 256 + name.size() + map.file.size();
        if (map.values && !(held && held->values == map.values))
            bytes += map.values->size() * sizeof(float);
    }
    return bytes;
}

}  // namespace

bool DocumentState::empty() const {
    const bool anyText =
        std::ranges::any_of(texts, [](const Text& text) { return text != nullptr; });
    return !anyText && !hierarchy && !maps && images.empty();
}

std::size_t bytesBeside(const DocumentState& state, const DocumentState& other) {
    std::size_t bytes = 0;
    for (std::size_t slot = 0; slot < kDocumentSlots; ++slot)
        if (state.texts[slot] && state.texts[slot] != other.texts[slot])
            bytes += state.texts[slot]->size();
    if (state.hierarchy && state.hierarchy != other.hierarchy)
        bytes += bytesBeside(*state.hierarchy, other.hierarchy.get());
    if (state.maps && *state.maps)
        bytes += bytesBeside(**state.maps, other.maps ? other.maps->get() : nullptr);
    for (const auto& [name, image] : state.images) {
        const auto held = other.images.find(name);
        if (image)
            bytes += image->bytesBeside(held != other.images.end() ? held->second.get() : nullptr);
    }
    return bytes;
}

void UndoStack::push(UndoStep step) {
    for (; steps_.size() > done_; steps_.pop_back()) bytes_ -= steps_.back().bytes;
    // What was before is mostly held already: by the step before this one, or by what came after.
    static const DocumentState kNothing;
    const DocumentState& held = steps_.empty() ? kNothing : steps_.back().step.after;
    std::size_t bytes =
        kStepBytes + bytesBeside(step.after, step.before) + bytesBeside(step.before, held);
    bytes_ += bytes;
    steps_.push_back({std::move(step), bytes});
    while (steps_.size() > 1 && (steps_.size() > mostSteps_ || bytes_ > mostBytes_)) {
        bytes_ -= steps_.front().bytes;
        steps_.pop_front();
    }
    done_ = steps_.size();
}

void UndoStack::stepBack() {
    if (done_ > 0) --done_;
}

void UndoStack::stepForward() {
    if (done_ < steps_.size()) ++done_;
}

void UndoStack::clear() {
    steps_.clear();
    done_ = bytes_ = 0;
}

}  // namespace corvelle

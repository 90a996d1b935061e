#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace corvelle {

class GuideHierarchy;
class PaintImage;

/// The texts of a groom that a stroke can change, in the order of their slots.
enum class DocumentSlot { Guides, Parts, Flow, Correctives, ScalpMaps, ShotLayer, Graph };
constexpr std::size_t kDocumentSlots = 7;
/// The name of each slot: "guideData", "partData", "flowData", "correctiveData", "scalpMaps",
/// "shotLayer", "graph".
const char* documentSlotName(DocumentSlot slot);

/// What a stroke leaves: complete texts, one for each slot it changed, so that undo needs no delta
/// logic. Texts are shared, so neighbouring undo steps share them.
struct StrokeDocument {
    using Text = std::shared_ptr<const std::string>;
    std::array<Text, kDocumentSlots> slots;  ///< null: the stroke left it alone
    /// What the text of the guides says, for hosts that need not read it; null: not at hand.
    std::shared_ptr<const GuideHierarchy> guides;
    /// Images the stroke painted on, by map name: their pixels after it. Tiles are shared with what
    /// was before.
    std::map<std::string, std::shared_ptr<const PaintImage>> images;

    bool has(DocumentSlot slot) const { return slots[std::size_t(slot)] != nullptr; }
    const Text& at(DocumentSlot slot) const { return slots[std::size_t(slot)]; }
    void set(DocumentSlot slot, std::string text) {
        slots[std::size_t(slot)] = std::make_shared<const std::string>(std::move(text));
    }
    bool empty() const {
        for (const Text& text : slots)
            if (text) return false;
        return images.empty();
    }
};

}  // namespace corvelle

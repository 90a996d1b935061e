// The corrective layers of a session: their text, and the guides with them.

#include <algorithm>
#include <stdexcept>

#include "model/correctiveApply.h"
#include "session/frameRate.h"
#include "session/groomSession.h"

namespace corvelle {

void GroomSession::setCorrectivesJson(const std::string& text) {
    if (text == document_.correctives) return;
    document_.correctives = text;
    readCorrectiveLayers();
}

void GroomSession::readCorrectiveLayers() {
    auto layers = std::make_shared<Correctives>();
    correctiveError_.clear();
    try {
        *layers = readCorrectives(document_.correctives);
    } catch (const std::exception& error) {
        correctiveError_ = std::string("correctiveData: ") + error.what();
    }
    correctives_ = std::move(layers);
    if (activeCorrective_ && *activeCorrective_ >= correctives_->layers.size())
        activeCorrective_.reset();
}

void GroomSession::setActiveCorrective(std::optional<std::size_t> layer) {
    if (layer && *layer >= correctives_->layers.size())
        throw std::out_of_range("setActiveCorrective: the groom has " +
                                std::to_string(correctives_->layers.size()) +
                                " corrective layers, no number " + std::to_string(*layer));
    activeCorrective_ = layer;
}

std::shared_ptr<const GuideHierarchy> GroomSession::correctedHierarchy() {
    return corrected(activeHierarchy(), document_.scalp);
}

std::shared_ptr<const GuideHierarchy> GroomSession::corrected(
    const std::shared_ptr<const GuideHierarchy>& guides, const ScalpPtr& pose) {
    if (!guides || correctives_->layers.empty()) return guides;
    std::vector<float> weights =
        correctiveWeights(*correctives_, framesFromSeconds(seconds_, document_.framesPerSecond));
    if (std::ranges::all_of(weights, [](float weight) { return weight == 0.0f; })) return guides;
    const auto known = [&](const Corrected& made) {
        return made.from == guides && made.pose == pose && made.layers == correctives_ &&
               made.weights == weights;
    };
    auto found = std::ranges::find_if(corrected_, known);
    if (found == corrected_.end()) {
        found = corrected_.end() - 1;
        *found = {};  // what it held is let go of first
        auto result = applyCorrectives(guides, *correctives_, weights, pose.get());
        *found = {guides, std::move(result), correctives_, pose, std::move(weights)};
    }
    std::rotate(corrected_.begin(), found, found + 1);
    return corrected_.front().result;
}

}  // namespace corvelle

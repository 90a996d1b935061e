#pragma once

#include <string>

#include "session/groomSession.h"
#include "tools/strokeHost.h"

namespace corvelle {

/// Gives the tools a GroomSession to work on. Who takes part, messages, and where images go are the
/// business of who derives from it.
class SessionStrokeHost : public StrokeHost {
public:
    explicit SessionStrokeHost(GroomSession& groom) : groom_(&groom) {}

    bool hasGroom() const override { return true; }
    ScalpPtr scalp() override { return groom_->scalp(); }
    ScalpPtr restScalp() override { return groom_->restScalp(); }
    std::shared_ptr<const GuideHierarchy> hierarchy() override { return groom_->hierarchy(); }
    std::shared_ptr<const GuideHierarchy> editHierarchy() override {
        return isCorrectiveActive() ? groom_->correctedHierarchy() : groom_->activeHierarchy();
    }
    std::shared_ptr<const GuideHierarchy> bareHierarchy() override {
        return groom_->activeHierarchy();
    }
    std::shared_ptr<const PartData> parts() override { return groom_->parts(); }
    std::shared_ptr<const FlowData> flow() override { return groom_->flow(); }
    MapCatalogPtr maps() override { return groom_->document().maps; }
    std::string graphText() override { return groom_->document().graph; }
    /// Read from its file once, then held by the session.
    std::shared_ptr<const PaintImage> image(const std::string& map) override;
    std::shared_ptr<const Correctives> correctives() override { return groom_->correctives(); }
    bool isCorrectiveActive() override { return groom_->activeCorrective().has_value(); }
    std::size_t activeCorrective() override { return groom_->activeCorrective().value_or(0); }
    double frame() override;

    void setStrokeActive(bool active) override;
    void setLiveHierarchy(std::shared_ptr<const GuideHierarchy> live) override {
        groom_->setLiveHierarchy(std::move(live));
    }
    void setLiveParts(std::shared_ptr<const PartData> live) override {
        groom_->setLiveParts(std::move(live));
    }
    void setLiveFlow(std::shared_ptr<const FlowData> live) override {
        groom_->setLiveFlow(std::move(live));
    }
    void setLiveMaps(MapCatalogPtr live) override { groom_->setLiveMaps(std::move(live)); }
    void setLiveGraph(const std::string& text) override { groom_->setLiveGraph(text); }

    bool commit(StrokeDocument document, const std::string& label) override;
    GuideHierarchy toDocumentPose(const GuideHierarchy& edited) override;

    void notify(const std::string& text) override { groom_->addMessage(text); }
    void addWarning(const std::string& text) override { groom_->addMessage(text); }

    GroomSession& groom() { return *groom_; }

protected:
    /// Where the images of texture maps are written, for the undo step.
    virtual std::string mapsDir() { return {}; }

private:
    GroomSession* groom_;
};

/// Writes the images of these maps to their files, the folder made if need be. Answers a text for
/// each that failed: the pixels in memory are the truth, and the next write tries again.
std::vector<std::string> writePaintImages(const GroomSession& groom,
                                          const std::vector<std::string>& maps);

}  // namespace corvelle

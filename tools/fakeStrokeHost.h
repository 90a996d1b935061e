#pragma once

#include <cmath>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "model/correctiveApply.h"
#include "model/hash.h"
#include "model/testing/guides.h"
#include "model/testing/meshes.h"
#include "tools/paintImage.h"
#include "tools/strokeHost.h"
#include "tools/toolView.h"

namespace corvelle {

/// A groom in plain fields, for the tests and benchmarks of the tools. Keeps what it is told.
class FakeStrokeHost : public StrokeHost {
public:
    bool isGroom = true;
    ScalpPtr mesh;
    std::shared_ptr<const GuideHierarchy> guides;
    std::shared_ptr<const PartData> partLines = std::make_shared<const PartData>();
    std::shared_ptr<const FlowData> flowLines = std::make_shared<const FlowData>();
    std::shared_ptr<const std::map<std::uint64_t, float>> weights;
    std::shared_ptr<const std::set<std::uint64_t>> frozen;
    std::set<std::string> hidden;
    std::shared_ptr<const Correctives> layers;
    bool inLayer = false, failsCommit = false, takes = true;
    double atFrame = 0.0;

    bool active = false;
    std::shared_ptr<const GuideHierarchy> live;
    std::shared_ptr<const PartData> liveParts;
    std::shared_ptr<const FlowData> liveFlow;
    MapCatalogPtr catalog, liveMaps;
    int published = 0;
    std::vector<StrokeDocument> commits;
    std::vector<std::string> labels, notes, warnings;

    bool hasGroom() const override { return isGroom; }
    ScalpPtr scalp() override { return mesh; }
    std::shared_ptr<const GuideHierarchy> hierarchy() override { return guides; }
    std::shared_ptr<const GuideHierarchy> editHierarchy() override {
        if (!inLayer) return guides;
        return applyCorrectives(guides, *layers, correctiveWeights(*layers, atFrame), mesh.get());
    }
    std::shared_ptr<const GuideHierarchy> bareHierarchy() override { return guides; }
    std::shared_ptr<const PartData> parts() override { return partLines; }
    std::shared_ptr<const FlowData> flow() override { return flowLines; }
    MapCatalogPtr maps() override { return catalog; }
    std::string graphText() override { return {}; }
    std::shared_ptr<const PaintImage> image(const std::string& map) override {
        throw std::runtime_error("no image '" + map + "'");
    }
    std::shared_ptr<const std::map<std::uint64_t, float>> selectionWeights() override {
        return weights;
    }
    std::shared_ptr<const std::set<std::uint64_t>> frozenGuides() override { return frozen; }
    std::set<std::string> hiddenGroups() override { return hidden; }
    std::shared_ptr<const Correctives> correctives() override { return layers; }
    bool isCorrectiveActive() override { return inLayer; }
    double frame() override { return atFrame; }
    void setStrokeActive(bool is) override { active = is; }
    void setLiveHierarchy(std::shared_ptr<const GuideHierarchy> value) override {
        published += value != nullptr;
        live = std::move(value);
    }
    void setLiveParts(std::shared_ptr<const PartData> value) override { liveParts = value; }
    void setLiveFlow(std::shared_ptr<const FlowData> value) override { liveFlow = value; }
    void setLiveMaps(MapCatalogPtr value) override { liveMaps = std::move(value); }
    void setLiveGraph(const std::string&) override {}
    bool commit(StrokeDocument document, const std::string& label) override {
        if (failsCommit) throw std::runtime_error("the host takes nothing");
        if (document.has(DocumentSlot::Guides))
            guides = std::make_shared<const GuideHierarchy>(
                guidesFromJson(*document.at(DocumentSlot::Guides)));
        if (document.has(DocumentSlot::Parts))
            partLines =
                std::make_shared<const PartData>(readPartData(*document.at(DocumentSlot::Parts)));
        if (document.has(DocumentSlot::Flow))
            flowLines =
                std::make_shared<const FlowData>(readFlowData(*document.at(DocumentSlot::Flow)));
        commits.push_back(std::move(document));
        labels.push_back(label);
        return takes;
    }
    GuideHierarchy toDocumentPose(const GuideHierarchy& edited) override { return edited; }
    void notify(const std::string& text) override { notes.push_back(text); }
    void addWarning(const std::string& text) override { warnings.push_back(text); }
};

/// A camera on the z axis that looks at the origin from `distance` cm, 800 by 600 pixels: about
/// distance / 900 cm a pixel at the origin.
inline ToolView frontView(double distance = 40.0, double aside = 0.0) {
    const double f = 3.0, near = 0.1, far = 1000.0;
    const double a = -(far + near) / (far - near), b = -2.0 * far * near / (far - near);
    return *makeToolView({f * 0.75, 0, 0, -f * 0.75 * aside,  //
                          0, f, 0, 0,                         //
                          0, 0, a, b - a * distance,          //
                          0, 0, -1, distance},
                         800.0, 600.0);
}

/// Looks along -z without perspective, `halfHeight` cm up and down.
inline ToolView flatView(double halfHeight = 12.0) {
    const double s = 1.0 / halfHeight;
    return *makeToolView({s * 0.75, 0, 0, 0, 0, s, 0, 0, 0, 0, -0.01, 0, 0, 0, 0, 1}, 800.0, 600.0);
}

/// A ball of 8 cm with guides all over it, in groups "hair" (level 0) and "hair_1" (level 1).
inline FakeStrokeHost makeHost(std::uint64_t seed, std::size_t primaries = 200, int levels = 1) {
    FakeStrokeHost host;
    host.mesh = std::make_shared<const ScalpMesh>(makeSphere(24, 32, 8.0f));
    host.guides = std::make_shared<const GuideHierarchy>(makeHierarchy(
        *host.mesh,
        {.primaries = primaries, .pointsPerGuide = 10, .levels = levels, .seed = seed}));
    return host;
}

}  // namespace corvelle

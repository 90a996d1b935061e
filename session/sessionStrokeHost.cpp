#include "session/sessionStrokeHost.h"

#include "session/frameRate.h"
#include "tools/strokeErrors.h"

namespace corvelle {

std::shared_ptr<const PaintImage> SessionStrokeHost::image(const std::string& map) {
    if (auto held = groom_->paintImage(map)) return held;
    const MapCatalogPtr maps = groom_->document().maps;
    const PaintedMap* found = maps ? maps->find(map) : nullptr;
    if (!found || found->kind != PaintedMap::Kind::Texture)
        throw StrokeNotFound("this groom has no texture map named " + map);
    const GroomFile& document = groom_->document();
    auto read =
        readPaintImage(searchPathResolver(document.directory, document.searchPaths)(found->file));
    groom_->holdPaintImage(map, read);
    return read;
}

double SessionStrokeHost::frame() {
    return framesFromSeconds(groom_->seconds(), groom_->framesPerSecond());
}

void SessionStrokeHost::setStrokeActive(bool active) {
    groom_->setStroking(active);
    if (active) return;
    groom_->setLiveHierarchy(nullptr);
    groom_->setLiveParts(nullptr);
    groom_->setLiveFlow(nullptr);
    groom_->setLiveMaps(nullptr);
    groom_->setLiveGraph({});
}

bool SessionStrokeHost::commit(StrokeDocument document, const std::string& label) {
    const bool changed = groom_->applyStroke(document, label, mapsDir());
    if (!changed) return false;
    std::vector<std::string> painted;
    for (const auto& [name, image] : document.images) painted.push_back(name);
    for (const std::string& text : writePaintImages(*groom_, painted)) notify(text);
    return true;
}

GuideHierarchy SessionStrokeHost::toDocumentPose(const GuideHierarchy& edited) {
    return *groom_->toDocumentPose(std::make_shared<const GuideHierarchy>(edited));
}

std::vector<std::string> writePaintImages(const GroomSession& groom,
                                          const std::vector<std::string>& maps) {
    std::vector<std::string> failures;
    const MapCatalogPtr catalog = groom.document().maps;
    for (const std::string& name : maps) {
        const PaintedMap* map = catalog ? catalog->find(name) : nullptr;
        const auto image = groom.paintImage(name);
        if (!map || map->file.empty() || !image) continue;
        try {
            image->writePng(map->file);
        } catch (const std::exception& error) {
            failures.push_back(error.what());
        }
    }
    return failures;
}

}  // namespace corvelle

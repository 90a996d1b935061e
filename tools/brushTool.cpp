#include "tools/brushTool.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "model/correctiveApply.h"
#include "model/elementary.h"
#include "tools/brushMode.h"
#include "tools/selection.h"
#include "tools/strokeState.h"

namespace corvelle {
namespace {

constexpr float kClickPixels = 3.0f;

bool paints(const BrushToolSettings& settings) {
    return settings.kind == ToolKind::Brush && settings.mode == BrushMode::Paint;
}

void check(const BrushToolSettings& settings) {
    if (settings.kind < ToolKind::Brush || settings.kind > ToolKind::Flow)
        throw std::invalid_argument("unknown tool kind " + std::to_string(int(settings.kind)));
    brushModeWord(settings.mode);  // throws for a number of no mode
    if (settings.paintKind != "guides" && settings.paintKind != "vertices" &&
        settings.paintKind != "texture")
        throw std::invalid_argument("paintKind is guides, vertices or texture");
    if ((settings.paintChannels & 15u) == 0)
        throw std::invalid_argument("name at least one channel of rgba");
    if (!settings.flowSink.empty()) flowSinkAngle(settings.flowSink);
    for (const float number : {settings.radius, settings.strength, settings.hardness,
                               settings.value, settings.symmetryCenter, settings.collideOffset,
                               settings.length, settings.spacing, settings.smoothStrength})
        if (!std::isfinite(number))
            throw std::invalid_argument("a setting of the brush is a NaN or an infinity");
}

void setGuides(StrokeDocument& document, GuideHierarchy guides) {
    document.set(DocumentSlot::Guides, guidesToJson(guides));
    document.guides = std::make_shared<const GuideHierarchy>(std::move(guides));
}

void check(const StrokePoint& point) {
    if (!std::isfinite(point.x) || !std::isfinite(point.y) || !std::isfinite(point.pressure))
        throw std::invalid_argument("a pen position holds a NaN or an infinity");
}

/// Ctrl turns a tool round.
void turnRound(BrushToolSettings& settings) {
    if (settings.kind != ToolKind::Brush) return;
    switch (settings.mode) {
        case BrushMode::Lift:
        case BrushMode::Twist:
        case BrushMode::Curl:
        case BrushMode::Attract:
        case BrushMode::Direction:
        case BrushMode::Noise:
        case BrushMode::Tube:
        case BrushMode::Length:
            settings.strength = -settings.strength;
            break;
        case BrushMode::Cut:
            settings.mode = BrushMode::Length;
            settings.strength = std::abs(settings.strength);
            break;
        case BrushMode::Paint:
            settings.value = 1.0f - settings.value;
            for (std::size_t k = 0; k < settings.paintColor.size(); ++k)
                if (settings.paintChannels >> k & 1u)
                    settings.paintColor[k] = 1.0f - settings.paintColor[k];
            break;
        default:
            break;
    }
}

/// Shift (or a script) makes a brush smooth: a painting one its map, any other the guides.
void makeSmooth(StrokeState& state) {
    state.label = "smooth";
    state.smooths = true;
    BrushToolSettings& settings = state.settings;
    if (paints(settings)) return;
    if (settings.kind != ToolKind::Brush) settings.targets = BrushTargets{};
    settings.kind = ToolKind::Brush;
    settings.mode = BrushMode::Smooth;
    settings.strength = std::abs(settings.strength);
}

/// Why no stroke of this kind goes into a layer of correctives; null: it may.
const char* refusedInLayer(const BrushToolSettings& settings) {
    switch (settings.kind) {
        case ToolKind::Place:
        case ToolKind::Draw:
            return "a corrective layer holds no new guides: leave it to add some";
        case ToolKind::Part:
            return "a corrective layer holds no parts: leave it to draw them";
        case ToolKind::Flow:
            return "a corrective layer holds no flow: leave it to lay it";
        case ToolKind::Brush:
            break;
    }
    if (settings.mode == BrushMode::Erase) return "a corrective layer erases nothing: leave it to";
    if (settings.mode == BrushMode::Paint)
        return "a corrective layer holds no paint: leave it to paint";
    return nullptr;
}

/// The layer strokes go into. Throws when there is none, or its weight on the frame is next to
/// nothing.
CorrectiveLayer activeLayer(StrokeHost& host) {
    const std::shared_ptr<const Correctives> layers = host.correctives();
    if (!layers || host.activeCorrective() >= layers->layers.size())
        throw std::invalid_argument("the corrective layer to sculpt in is gone");
    const CorrectiveLayer& layer = layers->layers[host.activeCorrective()];
    checkCorrectiveWeight(layer, host.frame());
    return layer;
}

std::unique_ptr<ToolStroke> makeStroke(StrokeState& state, StrokeHost& host) {
    switch (state.settings.kind) {
        case ToolKind::Place:
            return makePlaceStroke(state, host);
        case ToolKind::Draw:
            return makeDrawStroke(state, host);
        case ToolKind::Part:
            return makePartStroke();
        case ToolKind::Flow:
            return makeFlowStroke(state);
        case ToolKind::Brush:
            break;
    }
    return paints(state.settings) ? makePaintStroke(state, host) : makeShapeStroke(state, host);
}

template <class T>
std::shared_ptr<const T> orEmpty(std::shared_ptr<const T> value) {
    return value ? value : std::make_shared<const T>();
}

void drop(StrokeState& state, StrokeHost& host) {
    if (state.tool) state.tool->withdraw();
    state.withdraw(host);
    host.setStrokeActive(false);
}

}  // namespace

BrushTool::BrushTool() = default;
BrushTool::~BrushTool() = default;
BrushTool::BrushTool(BrushTool&&) noexcept = default;
BrushTool& BrushTool::operator=(BrushTool&&) noexcept = default;

bool BrushTool::begin(StrokeHost& host, const ToolView& view, float x, float y, float pressure,
                      bool shift, bool ctrl) {
    if (stroke_) cancel(host);
    document_ = {};
    edited_ = false;
    const StrokePoint point{x, y, pressure};
    check(settings);
    check(point);
    if (!host.hasGroom()) return false;
    const ScalpPtr scalp = host.scalp();
    if (!scalp || scalp->triangles().empty()) {
        host.notify("Corvelle brush: the groom has no scalp mesh");
        return false;
    }

    auto state = std::make_unique<StrokeState>();
    state->given = state->settings = settings;
    state->label = settings.label;
    BrushToolSettings& own = state->settings;
    own.radius = std::max(own.radius, 1.0f);
    if (!own.selectionWeights) own.selectionWeights = host.selectionWeights();
    if (!own.frozen) own.frozen = host.frozenGuides();
    // Parts and flow have nothing to smooth or to pick by level.
    state->shift = shift && own.kind != ToolKind::Part && own.kind != ToolKind::Flow;
    state->waiting = state->shift;
    state->ctrl = ctrl;
    state->isScriptedEnd = (scripted_ & kScriptedEnd) != 0;
    if (state->shift || ((scripted_ & kScriptedSmooth) != 0 && own.kind == ToolKind::Brush))
        makeSmooth(*state);
    else if (ctrl)
        turnRound(own);

    state->isCorrective = host.isCorrectiveActive();
    if (const char* why = state->isCorrective ? refusedInLayer(own) : nullptr) {
        host.addWarning(why);
        return false;
    }
    if (state->isCorrective) activeLayer(host);  // throws when it can take nothing
    state->press = point;
    state->scalp = scalp;
    scalp->prepareQueries();
    if (own.topology) {
        state->mirror = ScalpMirror::of(scalp);
        if (!state->mirror->valid()) {
            state->mirror = nullptr;
            host.addWarning("the scalp's left and right do not match: the stroke is not mirrored");
        }
    }
    state->hierarchyBefore = orEmpty(host.editHierarchy());
    state->hierarchy = *state->hierarchyBefore;
    state->partsBefore = orEmpty(host.parts());
    state->parts = *state->partsBefore;
    state->flowBefore = orEmpty(host.flow());
    state->flow = *state->flowBefore;
    state->takeView(view);

    host.setStrokeActive(true);
    try {
        state->tool = makeStroke(*state, host);
        const bool started = state->waiting || state->tool->press(*state, host, point);
        if (!started) {
            drop(*state, host);
            return false;
        }
        state->publish(host);
    } catch (...) {
        drop(*state, host);
        throw;
    }
    stroke_ = std::move(state);
    return true;
}

bool BrushTool::drag(StrokeHost& host, const ToolView& view, float x, float y, float pressure) {
    const StrokePoint point{x, y, pressure};
    return drag(host, view, {&point, 1});
}

bool BrushTool::drag(StrokeHost& host, const ToolView& view, std::span<const StrokePoint> points) {
    if (!stroke_) return false;
    for (const StrokePoint& point : points) check(point);
    StrokeState& state = *stroke_;
    if (view.matrix != state.view.matrix || view.width != state.view.width ||
        view.height != state.view.height) {
        state.takeView(view);
        state.tool->viewChanged(state);
    }
    for (const StrokePoint& point : points) {
        if (state.waiting) {
            const float way = math::hypot(point.x - state.press.x, point.y - state.press.y);
            if (!(way > kClickPixels)) continue;
            state.waiting = false;
            if (!state.tool->press(state, host, state.press)) continue;
        }
        state.tool->move(state, host, point);
    }
    return state.publish(host);
}

StrokeResult BrushTool::end(StrokeHost& host, const ToolView& view) {
    if (!stroke_) return {};
    StrokeState& state = *stroke_;
    if (state.waiting && !paints(state.settings)) return endClick(host, view);
    if (std::exchange(state.waiting, false)) state.tool->press(state, host, state.press);
    state.tool->release(state, host);
    if (state.settings.kind == ToolKind::Flow) commitFlow(host, view);
    state.tool->settle(state);

    StrokeDocument document;
    if (state.isCorrective) {
        commitShot(host);
        document = document_;
    } else if (state.edited) {
        if (state.settings.soloNewGuides && !state.newGuides.empty())
            soloGuides(state.hierarchy, state.newGuides, state.settings.freezeAttribute);
        const std::vector<std::uint64_t> moved(state.touched.begin(), state.touched.end());
        if (!moved.empty()) state.hierarchy.refreshRoots(moved, *state.scalp);
        if (state.hierarchy.contentHash() != state.hierarchyBefore->contentHash())
            setGuides(document, host.toDocumentPose(state.hierarchy));
        if (!(state.parts == *state.partsBefore))
            document.set(DocumentSlot::Parts, partDataJson(state.parts));
        if (!(state.flow == *state.flowBefore))
            document.set(DocumentSlot::Flow, flowDataJson(state.flow));
        state.tool->document(state, document);
    }
    return finish(host, std::move(document), state.label);
}

StrokeResult BrushTool::finish(StrokeHost& host, StrokeDocument document,
                               const std::string& label) {
    StrokeState& state = *stroke_;
    StrokeResult result;
    edited_ = state.edited;
    if (!document.empty() && host.commit(document, label)) {
        result.committed = true;
        result.label = label;
        result.graphChanged = document.has(DocumentSlot::Graph);
        for (std::size_t slot = 0; slot < kDocumentSlots; ++slot)
            if (document.slots[slot]) result.slots.push_back(DocumentSlot(slot));
    } else {
        document = {};
    }
    drop(state, host);
    document_ = std::move(document);
    stroke_.reset();
    return result;
}

StrokeResult BrushTool::endClick(StrokeHost& host, const ToolView& view) {
    StrokeState& state = *stroke_;
    const Vec2f place{state.press.x, state.press.y};
    BrushToolSettings given = state.given;
    given.symmetry = -1;
    given.topology = false;
    const GuideIds hit = pickGuides(host, view, {&place, 1}, given, {.anyLevel = true});
    const GuidePtr guide = hit.empty() ? nullptr : state.hierarchy.guide(*hit.begin());
    const bool solos = given.kind == ToolKind::Place || given.kind == ToolKind::Draw;

    StrokeDocument document;
    if (solos && guide && !state.isCorrective) {
        soloGuides(state.hierarchy, {guide->id}, given.freezeAttribute);
        if (state.hierarchy.contentHash() != state.hierarchyBefore->contentHash())
            setGuides(document, host.toDocumentPose(state.hierarchy));
    }
    StrokeResult result = finish(host, std::move(document), "solo selection");
    result.picked = true;
    result.level = given.level;
    result.group = given.group;
    if (!guide) return result;
    const std::shared_ptr<const GuideHierarchy> now = host.editHierarchy();
    result.guide = guide->id;
    result.soloed = solos;
    if (const GuideGroup* group = now ? now->group(guide->group) : nullptr) {
        result.level = now->depthOf(guide->group);
        result.group = group->name;
    }
    return result;
}

void BrushTool::cancel(StrokeHost& host) {
    if (!stroke_) return;
    const std::unique_ptr<StrokeState> state = std::move(stroke_);
    drop(*state, host);
    edited_ = false;
}

bool BrushTool::edited() const { return stroke_ ? stroke_->edited : edited_; }
bool BrushTool::graphChanged() const { return stroke_ && stroke_->tool->graphChanged(); }

const char* BrushTool::modeWord() const {
    if (stroke_ && stroke_->smooths) return brushModeWord(BrushMode::Smooth);
    const BrushToolSettings& own = stroke_ ? stroke_->settings : settings;
    return strokeModeWord(own.kind, own.mode);
}

std::span<const Vec3f> BrushTool::path() const {
    return stroke_ ? std::span<const Vec3f>(stroke_->path) : std::span<const Vec3f>();
}

BrushRing BrushTool::ring() const {
    if (!stroke_ || stroke_->path.empty()) return {};
    return {.valid = true,
            .center = stroke_->last,
            .radius = stroke_->worldRadius,
            .normal = stroke_->lastNormal,
            .onScalp = stroke_->lastOnScalp,
            .screenRadius = stroke_->settings.radius};
}

const ToolView* BrushTool::view() const { return stroke_ ? &stroke_->view : nullptr; }

void BrushTool::commitFlow(StrokeHost&, const ToolView&) {
    if (stroke_ && stroke_->settings.kind == ToolKind::Flow) stroke_->tool->settle(*stroke_);
}

bool BrushTool::commitShot(StrokeHost& host) {
    if (!stroke_ || !stroke_->isCorrective) return false;
    StrokeState& state = *stroke_;
    state.tool->settle(state);
    document_ = {};
    const std::vector<std::uint64_t> touched(state.touched.begin(), state.touched.end());
    const std::shared_ptr<const GuideHierarchy> bare = host.bareHierarchy();
    const CorrectiveLayer before = activeLayer(host);
    if (touched.empty() || !bare) return false;
    const std::size_t at = host.activeCorrective();
    Correctives layers = *host.correctives();
    layers.layers[at] =
        correctedLayer(layers, at, host.frame(), bare, state.hierarchy, touched, state.scalp.get());
    if (layers.layers[at] == before) return false;
    document_.set(DocumentSlot::Correctives, correctivesJson(layers));
    document_.set(DocumentSlot::ShotLayer, correctivesJson({{layers.layers[at]}}));
    return true;
}

bool BrushTool::scriptedStroke(StrokeHost& host, const BrushToolSettings& scripted,
                               const ToolView& view, std::span<const Vec2f> points, float pressure,
                               unsigned flags, const std::function<void()>& afterEachDrag) {
    if (points.empty()) return false;
    const BrushToolSettings before = std::exchange(settings, scripted);
    scripted_ = flags;
    const auto putBack = [&] {
        settings = before;
        scripted_ = 0;
    };
    try {
        if (begin(host, view, points[0].x, points[0].y, pressure)) {
            for (const Vec2f& point : points.subspan(1)) {
                drag(host, view, point.x, point.y, pressure);
                if (afterEachDrag) afterEachDrag();
            }
            end(host, view);
        }
    } catch (...) {
        cancel(host);
        putBack();
        throw;
    }
    putBack();
    return edited_;
}

const char* documentSlotName(DocumentSlot slot) {
    constexpr std::array<const char*, kDocumentSlots> kNames = {
        "guideData", "partData", "flowData", "correctiveData", "scalpMaps", "shotLayer", "graph"};
    return kNames.at(std::size_t(slot));
}

}  // namespace corvelle

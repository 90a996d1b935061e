#include "graph/testing/testOperators.h"

#include <algorithm>
#include <mutex>
#include <new>

#include "graph/strandDiff.h"
#include "model/hash.h"
#include "model/testing/tuft.h"

namespace corvelle {

namespace {

class ConstantField final : public FieldValue {
public:
    explicit ConstantField(float value) : value_(value) {}
    float sampleAt(Vec3f) const override { return value_; }
    std::optional<float> constant() const override { return value_; }
    float maxValue() const override { return value_; }

private:
    float value_;
};

/// Names, category and one strands input: what most test types share.
class TestOperator : public Operator {
public:
    explicit TestOperator(std::string typeName) : type_(std::move(typeName)) {}
    std::string type() const override { return type_; }
    std::string category() const override { return "utility"; }
    std::string description() const override { return "A node for tests."; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }

private:
    std::string type_;
};

class TestTuft final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<PortSpec> inputs() const override { return {}; }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "strands", .defaultValue = 20.0, .whole = true, .min = 0.0, .max = 1e6},
                {.name = "points", .defaultValue = 6.0, .whole = true, .min = 2.0, .max = 64.0},
                {.name = "shift", .defaultValue = 0.0, .description = "cm", .unit = "length"},
                {.name = "seed", .defaultValue = 0.0, .whole = true}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs&) override {
        StrandSet set = makeTuft({.strands = std::size_t(whole("strands")),
                                  .pointsPerStrand = std::size_t(whole("points")),
                                  .seed = seed()});
        if (const float shift = float(number("shift")); shift != 0.0f)
            for (Vec3f& p : set.mutablePoints()) p.x += shift;
        return std::make_shared<const StrandSet>(std::move(set));
    }
};

/// A strand-local node: full run and update share one worker.
class LocalOperator : public TestOperator {
public:
    using TestOperator::TestOperator;
    virtual void run(const EvalContext& context, const StrandSet& in, std::span<const std::uint32_t> strands,
                     StrandSet& out) = 0;
    virtual void share(StrandSet& out, const StrandSet& previous) = 0;
    /// The strands to make anew when those listed changed.
    virtual StrandChangesPtr spread(const StrandSet&, StrandChangesPtr changes) { return changes; }

    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override {
        const StrandsPtr in = requireStrands(*this, inputs);
        StrandSet out = *in;
        std::vector<std::uint32_t> all(in->strandCount());
        for (std::size_t i = 0; i < all.size(); ++i) all[i] = std::uint32_t(i);
        run(context, *in, all, out);
        return std::make_shared<const StrandSet>(std::move(out));
    }
    bool update(const EvalContext& context, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override {
        const StrandsPtr in = requireStrands(*this, inputs);
        auto* held = std::get_if<StrandsPtr>(&request.previous[0]);
        if (!held || !*held || !(*held)->sameLayout(*in)) return false;
        StrandSet out = *in;
        share(out, **held);
        held->reset();
        const StrandChangesPtr dirty = spread(*in, request.inputs[0].changes);
        run(context, *in, dirty->strands, out);
        result.outputs = {std::make_shared<const StrandSet>(std::move(out))};
        result.changes = {dirty};
        return true;
    }
};

class TestMove final : public LocalOperator {
public:
    using LocalOperator::LocalOperator;
    std::vector<ParamSpec> spec() const override {
        return {{.name = "amount",
                 .defaultValue = 0.5,
                 .description = "How far (mappable, per point)",
                 .unit = "length",
                 .min = -100.0,
                 .max = 100.0},
                {.name = "share", .defaultValue = 1.0, .min = 0.0, .max = 1.0},
                {.name = "axis", .defaultValue = std::string("x"), .choices = {"x", "y", "z"}},
                {.name = "on", .defaultValue = true},
                {.name = "direction", .defaultValue = Vec3f{1, 0, 0}, .vectorExpression = true},
                {.name = "profile", .defaultValue = Ramp({{0.0f, 0.0f}, {1.0f, 1.0f}}, true)},
                {.name = "seed", .defaultValue = 0.0, .whole = true}};
    }
    void share(StrandSet& out, const StrandSet& previous) override { out.sharePoints(previous); }
    void run(const EvalContext& context, const StrandSet& in, std::span<const std::uint32_t> strands,
             StrandSet& out) override {
        if (!boolean("on")) return;
        const FieldPtr amount = fieldFromParam(*this, "amount", context, in);
        const int axis = choice("axis")[0] - 'x';
        const std::uint64_t base = drawBase(seed(), "TestMove.share");
        const std::span<Vec3f> points = out.mutablePoints();
        for (const std::uint32_t s : strands) {
            const std::size_t first = std::size_t(in.offsets()[s]), count = in.pointCountOf(s);
            const bool moves = draw(base, in.ids()[s]) < float(number("share"));
            for (std::size_t p = 0; p < count; ++p) {
                Vec3f at = in.points()[first + p];
                const float t = count > 1 ? float(p) / float(count - 1) : 0.0f;
                if (moves) at[axis] += amount->samplePoint(in, s, p) * ramp("profile")(t);
                points[first + p] = at;
            }
        }
    }
};

class TestWidth final : public LocalOperator {
public:
    using LocalOperator::LocalOperator;
    std::vector<ParamSpec> spec() const override {
        return {{.name = "width", .defaultValue = 0.1, .mappable = true, .unit = "width", .min = 0.0}};
    }
    void share(StrandSet& out, const StrandSet& previous) override { out.shareWidths(previous); }
    void run(const EvalContext& context, const StrandSet& in, std::span<const std::uint32_t> strands,
             StrandSet& out) override {
        const FieldPtr width = fieldFromParam(*this, "width", context, in);
        const std::span<float> widths = out.mutableWidths();
        for (const std::uint32_t s : strands)
            for (std::size_t p = in.offsets()[s]; p < in.offsets()[s + 1]; ++p)
                widths[p] = width->sampleStrand(in, s) * (1.0f + in.points()[p].x);
    }
};

class TestTag final : public LocalOperator {
public:
    using LocalOperator::LocalOperator;
    std::vector<ParamSpec> spec() const override {
        return {{.name = "value", .defaultValue = 1.0, .unit = "density"},
                {.name = "rate", .defaultValue = 2.0, .unit = "perLength"}};
    }
    void share(StrandSet& out, const StrandSet& previous) override {
        out.copyStrandChannel("clumpId", previous);
        out.copyStrandChannel("glow", previous);
    }
    void run(const EvalContext&, const StrandSet& in, std::span<const std::uint32_t> strands,
             StrandSet& out) override {
        const std::span<float> clump = out.mutableStrandChannel("clumpId", -1.0f);
        const std::span<float> glow = out.mutableStrandChannel("glow", 0.25f);
        out.setStrandChannelDiscrete("clumpId");
        for (const std::uint32_t s : strands) {
            clump[s] = float(number("value")) + float(in.ids()[s] % 7);
            glow[s] = float(number("rate")) * in.pointsOf(s).back().x;
        }
    }
};

class TestSmear : public LocalOperator {
public:
    using LocalOperator::LocalOperator;
    void share(StrandSet& out, const StrandSet& previous) override { out.sharePoints(previous); }
    void run(const EvalContext&, const StrandSet& in, std::span<const std::uint32_t> strands,
             StrandSet& out) override {
        const std::span<Vec3f> points = out.mutablePoints();
        for (const std::uint32_t s : strands) {
            const Vec3f pull = s > 0 ? in.pointsOf(s - 1).back() * 0.25f : Vec3f{};
            for (std::size_t p = in.offsets()[s]; p < in.offsets()[s + 1]; ++p)
                points[p] = in.points()[p] + pull;
        }
    }
    bool update(const EvalContext&, const NodeInputs&, const UpdateRequest&, UpdateResult&) override {
        return false;
    }
};

class TestReach final : public TestSmear {
public:
    using TestSmear::TestSmear;
    bool update(const EvalContext& c, const NodeInputs& i, const UpdateRequest& r, UpdateResult& u) override {
        return LocalOperator::update(c, i, r, u);
    }
    StrandChangesPtr spread(const StrandSet& in, StrandChangesPtr changes) override {
        auto next = std::make_shared<StrandChanges>();
        for (const std::uint32_t s : changes->strands)
            if (s + 1 < in.strandCount()) next->strands.push_back(s + 1);
        return unite(changes, next);
    }
};

class TestThin final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<ParamSpec> spec() const override {
        return {{.name = "keep", .defaultValue = 0.5, .min = 0.0, .max = 1.0}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        const StrandsPtr in = requireStrands(*this, inputs);
        std::vector<std::uint32_t> kept;
        for (std::size_t s = 0; s < in->strandCount(); ++s)
            if (draw(drawBase(0, "TestThin"), in->ids()[s]) < float(number("keep")))
                kept.push_back(std::uint32_t(s));
        return std::make_shared<const StrandSet>(in->subset(kept));
    }
};

class TestMerge final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<PortSpec> inputs() const override {
        return {{"a", PortType::Strands}, {"b", PortType::Strands, true}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        const StrandsPtr a = requireStrands(*this, inputs), b = inputs.strands(1);
        if (!b) return a;
        StrandSet out = *a;
        out.append(*b);
        return std::make_shared<const StrandSet>(std::move(out));
    }
};

class TestSwitch final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<PortSpec> inputs() const override {
        return {{"a", PortType::Strands, true}, {"b", PortType::Strands, true}};
    }
    std::vector<ParamSpec> spec() const override { return {{.name = "second", .defaultValue = false}}; }
    bool inputSelected(std::size_t input) const override { return (input == 1) == boolean("second"); }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        const std::size_t picked = boolean("second") ? 1 : 0;
        if (!inputs.strands(picked)) throwNotConnected(*this, picked);
        return inputs.strands(picked);
    }
    bool update(const EvalContext&, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override {
        const std::size_t picked = boolean("second") ? 1 : 0;
        result.outputs = {inputs.strands(picked)};
        result.changes = {request.inputs[picked].changes ? request.inputs[picked].changes : noChanges()};
        return true;
    }
};

class TestSplit final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<PortSpec> outputs() const override {
        return {{"a", PortType::Strands}, {"b", PortType::Strands}};
    }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "share", .defaultValue = 0.5, .min = 0.0, .max = 1.0}};
    }
    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override {
        return evaluateAll(context, inputs)[0];
    }
    std::vector<NodeValue> evaluateAll(const EvalContext&, const NodeInputs& inputs) override {
        const StrandsPtr in = requireStrands(*this, inputs);
        std::vector<std::uint32_t> sides[2];
        for (std::size_t s = 0; s < in->strandCount(); ++s)
            sides[draw(drawBase(0, "TestSplit"), in->ids()[s]) < float(number("share")) ? 0 : 1].push_back(
                std::uint32_t(s));
        return {std::make_shared<const StrandSet>(in->subset(sides[0])),
                std::make_shared<const StrandSet>(in->subset(sides[1]))};
    }
};

class TestGuides final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"guides", PortType::Guides}; }
    std::uint32_t contextReads() const override { return reads::kGuides; }
    bool updatesOwnChanges() const override { return true; }
    NodeValue evaluate(const EvalContext& context, const NodeInputs&) override { return context.flatGuides(); }
    bool update(const EvalContext& context, const NodeInputs&, const UpdateRequest& request,
                UpdateResult& result) override {
        const auto* previous = std::get_if<GuidesPtr>(&request.previous[0]);
        if (!previous || !*previous || !context.flatGuides()) return false;
        const StrandChangesPtr changes = guideDiff(**previous, *context.flatGuides());
        if (!changes) return false;
        result.outputs = {context.flatGuides()};
        result.changes = {changes};
        return true;
    }
};

class TestFollow final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<PortSpec> inputs() const override {
        return {{"strands", PortType::Strands}, {"guides", PortType::Guides}};
    }
    static void run(const StrandSet& in, const GuideSet& guides, std::size_t s, std::span<Vec3f> points) {
        const Vec3f by = guides.empty() ? Vec3f{} : guides.pointsOf(s % guides.size()).back();
        for (std::size_t p = in.offsets()[s]; p < in.offsets()[s + 1]; ++p) points[p] = in.points()[p] + by;
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        const StrandsPtr in = requireStrands(*this, inputs);
        const GuidesPtr guides = requireGuides(*this, inputs, 1);
        StrandSet out = *in;
        const std::span<Vec3f> points = out.mutablePoints();
        for (std::size_t s = 0; s < in->strandCount(); ++s) run(*in, *guides, s, points);
        return std::make_shared<const StrandSet>(std::move(out));
    }
    bool update(const EvalContext&, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override {
        const StrandsPtr in = requireStrands(*this, inputs);
        const GuidesPtr guides = requireGuides(*this, inputs, 1);
        auto* held = std::get_if<StrandsPtr>(&request.previous[0]);
        if (guides->empty() || !held || !(*held)->sameLayout(*in)) return false;
        auto followers = std::make_shared<StrandChanges>();
        if (const auto& moved = request.inputs[1].changes)
            for (std::size_t s = 0; s < in->strandCount(); ++s)
                if (std::ranges::binary_search(moved->strands, std::uint32_t(s % guides->size())))
                    followers->strands.push_back(std::uint32_t(s));
        const StrandChangesPtr own = request.inputs[0].changes ? request.inputs[0].changes : noChanges();
        const StrandChangesPtr dirty = unite(own, followers);
        StrandSet out = *in;
        out.sharePoints(**held);
        held->reset();
        const std::span<Vec3f> points = out.mutablePoints();
        for (const std::uint32_t s : dirty->strands) run(*in, *guides, s, points);
        result.outputs = {std::make_shared<const StrandSet>(std::move(out))};
        result.changes = {dirty};
        return true;
    }
};

class TestField final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"field", PortType::Field}; }
    std::vector<ParamSpec> spec() const override { return {{.name = "value", .defaultValue = 1.0}}; }
    NodeValue evaluate(const EvalContext&, const NodeInputs&) override {
        return constantTestField(float(number("value")));
    }
};

class TestCurve final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"curve", PortType::Curve}; }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "curve", .defaultValue = Ramp({{0.0f, 0.0f}, {1.0f, 1.0f}}, true)}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs&) override {
        return std::make_shared<const Ramp>(ramp("curve"));
    }
};

/// Writes one number of the context into all widths.
class TestProbe final : public TestOperator {
public:
    using Read = float (*)(const EvalContext&);
    TestProbe(std::string typeName, std::uint32_t mask, Read read)
        : TestOperator(std::move(typeName)), mask_(mask), read_(read) {}
    std::uint32_t contextReads() const override { return mask_; }
    NodeValue evaluate(const EvalContext& context, const NodeInputs& inputs) override {
        StrandSet out = *requireStrands(*this, inputs);
        std::ranges::fill(out.mutableWidths(), read_(context));
        return std::make_shared<const StrandSet>(std::move(out));
    }

private:
    std::uint32_t mask_;
    Read read_;
};

class TestFail final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<ParamSpec> spec() const override {
        return {{.name = "text", .defaultValue = std::string()},
                {.name = "values", .defaultValue = 1.0, .whole = true, .min = 0.0}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        if (text("text") == "memory") throw std::bad_alloc();
        if (!text("text").empty()) throw GraphError(text("text"));
        return requireStrands(*this, inputs);
    }
    std::vector<NodeValue> evaluateAll(const EvalContext& context, const NodeInputs& inputs) override {
        return std::vector<NodeValue>(std::size_t(whole("values")), evaluate(context, inputs));
    }
};

class TestWarn final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<ParamSpec> spec() const override {
        return {{.name = "text", .defaultValue = std::string()}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        if (!text("text").empty()) warn(text("text"));
        return requireStrands(*this, inputs);
    }
    std::string warning(const EvalContext&) const override { return text("text").empty() ? "" : "and more"; }
};

class TestWrong final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<ParamSpec> spec() const override {
        return {{.name = "lie", .defaultValue = std::string("none")}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        return requireStrands(*this, inputs);
    }
    bool update(const EvalContext&, const NodeInputs& inputs, const UpdateRequest& request,
                UpdateResult& result) override {
        const StrandsPtr in = requireStrands(*this, inputs);
        const std::string& lie = text("lie");
        StrandChangesPtr changes = request.inputs[0].changes;
        NodeValue made = in;
        if (lie == "unlisted") changes = noChanges();
        if (lie == "kind") made = std::make_shared<const GuideSet>();
        if (lie == "past") changes = std::make_shared<const StrandChanges>(StrandChanges{false, {1000000}});
        if (lie == "strands" || lie == "all" || lie == "layout") {
            StrandSet wrong = *in;
            if (lie == "layout") wrong = in->subset(std::vector<std::uint32_t>{0});
            else wrong.mutableWidths()[lie == "all" ? 0 : in->offsets()[changes->strands.at(0)]] = 7.0f;
            if (lie == "all") changes = nullptr;
            made = std::make_shared<const StrandSet>(std::move(wrong));
        }
        result.outputs = {made};
        if (lie == "count") result.outputs.push_back(made);
        result.changes = {changes};
        return true;
    }
};

class TestOuter final : public TestOperator {
public:
    using TestOperator::TestOperator;
    std::vector<PortSpec> inputs() const override { return {}; }
    PortSpec output() const override { return {"out", portTypeFromName(text("type"))}; }
    std::vector<ParamSpec> spec() const override {
        return {{.name = "name", .defaultValue = std::string("strands")},
                {.name = "type", .defaultValue = std::string("Strands")}};
    }
    std::uint64_t contextHash(const EvalContext& context) const override {
        const auto found = context.data().inputs.find(text("name"));
        return found == context.data().inputs.end() ? 0 : found->second.hash;
    }
    NodeValue evaluate(const EvalContext& context, const NodeInputs&) override {
        const auto found = context.data().inputs.find(text("name"));
        return found == context.data().inputs.end() ? NodeValue{} : found->second.value;
    }
};

/// A type of the given name that passes its input on.
class TestPass final : public TestOperator {
public:
    TestPass(std::string typeName, std::vector<ParamSpec> params, int current = 1, bool source = false)
        : TestOperator(std::move(typeName)), params_(std::move(params)), version_(current), source_(source) {}
    std::vector<ParamSpec> spec() const override { return params_; }
    int nodeVersion() const override { return version_; }
    std::vector<PortSpec> inputs() const override {
        return source_ ? std::vector<PortSpec>{{"scalp", PortType::Mesh, true}} : TestOperator::inputs();
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        if (source_) return std::make_shared<const StrandSet>(makeTuft({.strands = 3}));
        return requireStrands(*this, inputs);
    }

private:
    std::vector<ParamSpec> params_;
    int version_;
    bool source_;
};

template <class T>
void add(const char* type) {
    OperatorRegistry::instance().add(type, [type] { return std::make_unique<T>(type); });
}

}  // namespace

FieldPtr constantTestField(float value) { return std::make_shared<const ConstantField>(value); }

void registerTestOperators() {
    static std::once_flag once;
    std::call_once(once, [] {
        add<TestTuft>("TestTuft");
        add<TestMove>("TestMove");
        add<TestWidth>("TestWidth");
        add<TestTag>("TestTag");
        add<TestSmear>("TestSmear");
        add<TestReach>("TestReach");
        add<TestThin>("TestThin");
        add<TestMerge>("TestMerge");
        add<TestSwitch>("TestSwitch");
        add<TestSplit>("TestSplit");
        add<TestGuides>("TestGuides");
        add<TestFollow>("TestFollow");
        add<TestField>("TestField");
        add<TestCurve>("TestCurve");
        add<TestFail>("TestFail");
        add<TestWarn>("TestWarn");
        add<TestWrong>("TestWrong");
        add<TestOuter>("TestOuter");
        OperatorRegistry& registry = OperatorRegistry::instance();
        const auto probe = [&](const char* type, std::uint32_t mask, TestProbe::Read read) {
            registry.add(type, [=] { return std::make_unique<TestProbe>(type, mask, read); });
        };
        probe("TestClock", reads::kTime, [](const EvalContext& c) { return float(c.frame()); });
        probe("TestGrow", reads::kDensity, [](const EvalContext& c) { return float(c.growSegments()); });
        probe("TestView", reads::kViewport, [](const EvalContext& c) { return c.viewport() ? 1.0f : 0.0f; });
        const auto pass = [&](const char* type, std::vector<ParamSpec> params, int version, bool source) {
            registry.add(type, [=] { return std::make_unique<TestPass>(type, params, version, source); });
        };
        const ParamSpec seed{.name = "seed", .defaultValue = 0.0, .whole = true};
        pass("Resample",
             {{.name = "segments", .defaultValue = 8.0, .whole = true, .min = 0.0, .max = 1024.0}}, 1, false);
        pass("Scatter", {seed}, 1, true);
        pass("Flyaway", {seed}, 1, false);
        pass("TestNewer", {seed}, 3, false);
    });
}

NodeId addTestNode(Graph& graph, const std::string& type, const std::string& name) {
    OperatorPtr op = OperatorRegistry::instance().create(type);
    op->name = name;
    return graph.addNode(std::move(op));
}

StrandsPtr evaluateStrands(Graph& graph, NodeId node, const EvaluationData& data) {
    const NodeValue value = graph.evaluate(node, data);
    const auto* strands = std::get_if<StrandsPtr>(&value);
    return strands ? *strands : nullptr;
}

}  // namespace corvelle

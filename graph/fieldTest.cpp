#include <algorithm>
#include <numeric>

#include <gmock/gmock.h>

#include "expr/testing/pictures.h"
#include "graph/expressionScope.h"
#include "graph/field.h"
#include "graph/operator.h"
#include "graph/scalarField.h"
#include "model/hash.h"
#include "model/parallel.h"
#include "model/testing/meshes.h"
#include "model/testing/tuft.h"

namespace corvelle {
namespace {

/// A node with one param of each sort that fields read.
class Probe final : public Operator {
public:
    std::string type() const override { return "Probe"; }
    std::string category() const override { return "shape"; }
    std::string description() const override { return "For tests."; }
    std::vector<PortSpec> inputs() const override { return {{"strands", PortType::Strands}}; }
    std::vector<ParamSpec> spec() const override {
        return {
            {.name = "amount", .defaultValue = 0.75, .mappable = true},
            {.name = "shape", .defaultValue = 0.5, .description = "Share (mappable, per point)"},
            {.name = "axis", .defaultValue = Vec3f{1, 2, 3}, .vectorExpression = true}};
    }
    NodeValue evaluate(const EvalContext&, const NodeInputs& inputs) override {
        return inputs.values[0];
    }
};

/// A field that is as plain as can be: batches come from the base class.
class PlaceField final : public FieldValue {
public:
    float sampleAt(Vec3f p) const override { return p.x + 2.0f * p.z; }
    float maxValue() const override { return 40.0f; }
};

GuidesPtr makeGuides(std::initializer_list<const char*> layers) {
    std::vector<GuideCurve> curves;
    for (int g = 0; g < 12; ++g) {
        const Vec3f root{float(g % 4) * 3.0f - 5.0f, 0.0f, float(g / 4) * 4.0f - 4.0f};
        GuideDetail detail;
        for (const char* layer : layers) detail.attributes[layer] = float(g) * 0.1f;
        curves.push_back({std::uint64_t(g + 1),
                          {},
                          {root, root + Vec3f{0, 2, 0}},
                          std::make_shared<const GuideDetail>(detail)});
    }
    return std::make_shared<const GuideSet>(std::move(curves));
}

class FieldTest : public testing::Test {
protected:
    FieldTest() {
        ScalpMesh mesh = makePlane(8, 8, 20.0f);
        std::vector<Color4f> colors;
        for (std::size_t i = 0; i < mesh.triangles().size() * 3; ++i)
            colors.push_back({unitHash(i), unitHash(i + 7777), unitHash(i + 999), 0.5f});
        mesh.addColorSet("paint", colors);
        data.scalp = std::make_shared<const ScalpMesh>(std::move(mesh));
        bare = std::make_shared<const ScalpMesh>(makeIcosphere(1, 5.0f));
        strands = makeTuft(
            {.strands = 700, .pointsPerStrand = 9, .seed = 4, .uneven = true, .triangles = 128});
        for (float& v : strands.mutableStrandChannel("mask", 0.0f)) v = 0.25f;
        picture = folder.file("p.png");
        writePng(picture, 32, 32, 4, makePixels(32, 32, 4, [](int x, int y, int c) {
                     return int(mix64(std::uint64_t(x + 32 * y + 5000 * c)) & 255);
                 }));
        auto catalog = std::make_shared<MapCatalogValue>();
        using Kind = PaintedMap::Kind;
        const std::size_t n = data.scalp->points().size();
        auto values = std::make_shared<std::vector<float>>(n);
        for (std::size_t i = 0; i < n; ++i) (*values)[i] = unitHash(i);
        catalog->maps = {
            {"vertices", {.kind = Kind::Vertices, .values = values, .vertices = n}},
            {"old", {.kind = Kind::Vertices, .values = values, .vertices = 3}},
            {"image", {.kind = Kind::Texture, .file = picture}},
            {"unpainted", {.kind = Kind::Texture}},
            {"lost", {.kind = Kind::Texture, .file = folder.file("lost.png")}},
        };
        data.maps = catalog;
        all.resize(strands.strandCount());
        std::iota(all.begin(), all.end(), 0u);
    }

    static MapSource map(MapKind kind, std::string source, float low = 0.0f, float high = 1.0f,
                         MapComponent component = MapComponent::Luminance) {
        return {kind, std::move(source), component, low, high};
    }
    FieldPtr bound(const ParamValue& value, const std::string& param = "shape",
                   const GuidesPtr& guides = nullptr) {
        op.set(param, value);
        return fieldFromParam(op, param, EvalContext(data), strands, guides);
    }
    FieldPtr unbound(const ParamValue& value, const std::string& param = "shape",
                     const GuidesPtr& guides = nullptr) {
        op.set(param, value);
        return fieldFromParam(op, param, EvalContext(data), guides);
    }
    /// One field of each kind, bound.
    std::vector<std::pair<std::string, FieldPtr>> everyKind() {
        const GuidesPtr guides = makeGuides({"layer"});
        std::vector<std::pair<std::string, FieldPtr>> fields = {
            {"constant", bound(2.5)},
            {"texture", bound(map(MapKind::Texture, picture, 1.0f, 3.0f))},
            {"texture red", bound(map(MapKind::Texture, picture, 0.0f, 1.0f, MapComponent::R))},
            {"color set", bound(map(MapKind::ColorSet, "paint", -1.0f, 1.0f, MapComponent::G))},
            {"attribute", bound(map(MapKind::Attribute, "tone", 2.0f, 5.0f))},
            {"point attribute", bound(map(MapKind::Attribute, "share", 1.0f, -2.0f))},
            {"guide channel", bound(map(MapKind::GuideLayer, "mask", 0.5f, 1.0f))},
            {"guide layer", bound(map(MapKind::GuideLayer, "layer", 0.0f, 2.0f), "shape", guides)},
            {"strand expression", bound(map(MapKind::Expression, "tone * 2 + P.x", 0.0f, 2.0f))},
            {"point expression", bound(map(MapKind::Expression, "t * share + 0.25"))},
            {"map expression",
             bound(map(MapKind::Expression, "map(\"vertices\") + map(\"image\", \"r\")"))},
        };
        op.unset("shape");
        op.drive("shape", Operator::DrivenField{std::make_shared<const PlaceField>(), 0.5f});
        fields.push_back({"driven", fieldFromParam(op, "shape", EvalContext(data), strands)});
        op.clearDriven();
        return fields;
    }

    Probe op;
    EvaluationData data;
    ScalpPtr bare;
    StrandSet strands;
    std::vector<std::uint32_t> all;
    const TempFolder folder;
    std::string picture;
};

TEST_F(FieldTest, BatchesGiveTheBitsOfSingleSamples) {
    SplitMix random(6);
    std::vector<std::uint32_t> some;
    for (int i = 0; i < 600; ++i)
        some.push_back(std::uint32_t(random.nextU64() % strands.strandCount()));
    std::size_t points = 0;
    for (const std::uint32_t s : some) points += strands.pointCountOf(s);
    for (const auto& [name, field] : everyKind()) {
        SCOPED_TRACE(name);
        std::vector<float> perStrand(some.size()), perPoint(points), perRoot(some.size());
        std::vector<StrandRoot> roots;
        std::vector<Vec3f> positions;
        for (const std::uint32_t s : some) {
            roots.push_back(strands.roots()[s]);
            positions.push_back(strands.pointsOf(s)[0]);
        }
        field->sampleStrands(strands, some, perStrand);
        field->samplePoints(strands, some, perPoint);
        field->sampleRoots(roots, positions, perRoot);
        bool varies = false;
        std::size_t at = 0;
        for (std::size_t i = 0; i < some.size(); ++i) {
            ASSERT_EQ(perStrand[i], field->sampleStrand(strands, some[i]));
            ASSERT_EQ(perRoot[i], field->sampleRoot(roots[i], positions[i]));
            varies = varies || perStrand[i] != perStrand[0];
            for (std::size_t p = 0; p < strands.pointCountOf(some[i]); ++p, ++at) {
                ASSERT_EQ(perPoint[at], field->samplePoint(strands, some[i], p));
                if (!field->perPoint()) {
                    ASSERT_EQ(perPoint[at], perStrand[i]);
                }
            }
        }
        const bool flat =
            name == "constant" || name == "guide channel" || name.starts_with("point");
        EXPECT_EQ(varies, !flat);
    }
}

TEST_F(FieldTest, GivesTheSameBitsOnOneThreadAndOnMany) {
    for (const auto& [name, field] : everyKind()) {
        std::vector<float> results[2];
        for (int many = 0; many < 2; ++many)
            runWithThreads(many ? 8 : 1, [&, &field = field] {
                results[many].resize(strands.strandCount());
                parallelRange(0, all.size(), many ? 13 : 256, [&](std::size_t b, std::size_t e) {
                    field->sampleStrands(strands, std::span(all).subspan(b, e - b),
                                         std::span(results[many]).subspan(b, e - b));
                });
            });
        EXPECT_EQ(results[0], results[1]) << name;
    }
}

TEST_F(FieldTest, EachKindGivesItsOwnNumbers) {
    const std::vector<float>& tone = *strands.strandChannel("tone");
    const std::vector<float>& share = *strands.pointChannel("share");
    const FieldPtr attribute = bound(map(MapKind::Attribute, "tone", 2.0f, 5.0f));
    const FieldPtr along = bound(map(MapKind::Attribute, "share"));
    const FieldPtr formula = bound(map(MapKind::Expression, "tone + 1", 10.0f, 20.0f));
    const FieldPtr paint = bound(map(MapKind::ColorSet, "paint", 0.0f, 1.0f, MapComponent::B));
    const auto& colors = data.scalp->colorSets().at("paint");
    EXPECT_TRUE(along->perPoint());
    EXPECT_FALSE(attribute->perPoint());
    for (std::size_t s = 0; s < strands.strandCount(); ++s) {
        EXPECT_EQ(attribute->sampleStrand(strands, s), 2.0f + 3.0f * tone[s]);
        EXPECT_EQ(formula->sampleStrand(strands, s), 10.0f + 10.0f * (tone[s] + 1.0f));
        EXPECT_EQ(along->sampleStrand(strands, s), share[strands.offsets()[s]])
            << "the first point";
        EXPECT_EQ(along->samplePoint(strands, s, 1), share[strands.offsets()[s] + 1]);
        EXPECT_NEAR(paint->sampleStrand(strands, s),
                    data.scalp->mixCorners(colors, strands.roots()[s]).b, 1e-6f);
    }
    EXPECT_EQ(attribute->maxValue(), 5.0f);
    EXPECT_EQ(bound(map(MapKind::Attribute, "tone", 4.0f, -1.0f))->maxValue(), 4.0f);
    EXPECT_EQ(bound(0.25)->maxValue(), 0.25f);
    EXPECT_EQ(bound(0.25)->constant(), 0.25f);
    EXPECT_EQ(attribute->constant(), std::nullopt);
    EXPECT_EQ(boundTo(attribute, strands)->sampleStrand(strands, 5),
              attribute->sampleStrand(strands, 5));
}

TEST_F(FieldTest, BindingMakesACopyAndOnlyWhereThereIsWhatToBind) {
    EXPECT_EQ(bound(1.0)->bind(strands), nullptr);
    EXPECT_EQ(bound(map(MapKind::Texture, picture))->bind(strands), nullptr);
    EXPECT_EQ(bound(map(MapKind::ColorSet, "paint"))->bind(strands), nullptr);
    const StrandSet other = makeTuft({.strands = 300, .seed = 9, .triangles = 128});
    for (const auto& source :
         {map(MapKind::Attribute, "tone"), map(MapKind::Expression, "tone + t")}) {
        const FieldPtr first = bound(source);
        const FieldPtr second = boundTo(first, other);
        EXPECT_NE(first, second);
        EXPECT_EQ(first->sampleStrand(strands, 7), (*strands.strandChannel("tone"))[7]);
        EXPECT_EQ(second->sampleStrand(other, 7), (*other.strandChannel("tone"))[7]);
    }
    op.drive("amount", Operator::DrivenField{std::make_shared<const PlaceField>(), 2.0f});
    const FieldPtr driven = fieldFromParam(op, "amount", EvalContext(data));
    EXPECT_EQ(driven->bind(strands), nullptr);
    EXPECT_EQ(driven->maxValue(), 80.0f);
    EXPECT_EQ(driven->sampleAt({1, 5, 3}), 14.0f);
}

TEST_F(FieldTest, SaysWhatAFieldReads) {
    const struct {
        ParamValue value;
        bool set, whole, place;
    } kCases[] = {
        {1.0, false, false, true},
        {map(MapKind::Texture, picture), false, false, true},
        {map(MapKind::Attribute, "tone"), true, false, false},
        {map(MapKind::GuideLayer, "mask"), true, false, false},
        {map(MapKind::Expression, "P.x + N.y"), false, false, true},
        {map(MapKind::Expression, "length"), true, false, false},
        {map(MapKind::Expression, "length / longest"), true, true, false},
        {map(MapKind::Expression, "tone"), true, false, false},
    };
    for (const auto& c : kCases) {
        const FieldPtr field = bound(c.value);
        const auto* source = std::get_if<MapSource>(&c.value);
        SCOPED_TRACE(source ? source->source : "constant");
        EXPECT_EQ(field->readsSet(), c.set);
        EXPECT_EQ(field->readsWholeSet(), c.whole);
        EXPECT_EQ(field->worksAtPosition(), c.place);
        op.drive("amount", Operator::DrivenField{field, 1.0f});
        const FieldPtr driven = fieldFromParam(op, "amount", EvalContext(data), strands);
        op.clearDriven();
        EXPECT_EQ(driven->readsSet(), c.set);
        EXPECT_EQ(driven->readsWholeSet(), c.whole);
        EXPECT_EQ(driven->worksAtPosition(), c.place);
    }
}

TEST_F(FieldTest, ALayerIsReadFromStrandsFirstThenFromGuides) {
    const GuidesPtr guides = makeGuides({"mask", "layer"});
    EXPECT_EQ(bound(map(MapKind::GuideLayer, "mask"), "amount", guides)->sampleStrand(strands, 3),
              0.25f);
    const NamedMapPtr byPlace = guideLayerMap(guides, data.scalp, "layer");
    const FieldPtr layer = bound(map(MapKind::GuideLayer, "layer"), "amount", guides);
    EXPECT_EQ(layer->sampleStrand(strands, 3),
              byPlace->at({}, strands.pointsOf(3)[0], MapComponent::R));
    // A node that makes strands reads attributes as layers.
    const FieldPtr source = unbound(map(MapKind::Attribute, "layer"), "amount", guides);
    EXPECT_EQ(source->sampleAt({1, 0, 1}), byPlace->at({}, {1, 0, 1}, MapComponent::R));
    // In an expression too.
    const FieldPtr carried = bound(map(MapKind::Expression, "map(\"mask\")"), "amount", guides);
    const FieldPtr near = bound(map(MapKind::Expression, "map(\"layer\")"), "amount", guides);
    EXPECT_EQ(carried->sampleStrand(strands, 3), 0.25f);
    EXPECT_EQ(near->sampleStrand(strands, 3), layer->sampleStrand(strands, 3));
    data.flatGuides = guides;  // the groom knows the layer, the node has no guides input
    EXPECT_EQ(bound(map(MapKind::Expression, "map(\"mask\")"))->sampleStrand(strands, 3), 0.25f);
}

TEST_F(FieldTest, SaysWhatIsWrongWithAMap) {
    enum Where { kNoStrands, kStrands };
    const GuidesPtr guides = makeGuides({"layer"});
    const ScalpPtr scalp = data.scalp;
    data.flatGuides = guides;
    const std::string lost = folder.file("lost.png");
    const struct {
        MapSource source;
        Where where;
        GuidesPtr guides;
        ScalpPtr scalp;
        std::string message;
    } kCases[] = {
        {map(MapKind::Texture, picture), kStrands, nullptr, bare,
         "param 'amount': a texture map needs a scalp with UVs"},
        {map(MapKind::Texture, picture), kNoStrands, nullptr, nullptr,
         "param 'amount': a texture map needs a scalp with UVs"},
        {map(MapKind::Texture, lost), kStrands, nullptr, scalp,
         "param 'amount': cannot read '" + lost + "': file not found"},
        {map(MapKind::ColorSet, "none"), kStrands, nullptr, scalp,
         "param 'amount': the scalp has no color set 'none'"},
        {map(MapKind::ColorSet, "paint"), kStrands, nullptr, nullptr,
         "param 'amount': the scalp has no color set 'paint'"},
        {map(MapKind::GuideLayer, "layer"), kNoStrands, nullptr, scalp,
         "param 'amount': a guide map here needs guides: connect them to this node's guides input"},
        {map(MapKind::GuideLayer, "none"), kNoStrands, guides, scalp,
         "param 'amount': no guide carries the layer 'none'"},
        {map(MapKind::GuideLayer, "none"), kStrands, guides, scalp,
         "param 'amount': no guide carries the layer 'none'"},
        {map(MapKind::GuideLayer, "none"), kStrands, nullptr, scalp,
         "param 'amount': no guide layer 'none' on the strands (Interpolate writes it; paint it on "
         "the guides)"},
        {map(MapKind::Attribute, "none"), kNoStrands, nullptr, scalp,
         "param 'amount': no strands yet, so 'none' must be a layer painted on the guides, with "
         "the "
         "guides connected to this node"},
        {map(MapKind::Attribute, "none"), kStrands, guides, scalp,
         "param 'amount': strands have no attribute 'none'"},
        {map(MapKind::Expression, "none * 2"), kStrands, nullptr, scalp,
         "param 'amount': the expression reads 'none', which is neither a variable nor a channel "
         "of the strands"},
        {map(MapKind::Expression, "clumpId"), kNoStrands, nullptr, scalp,
         "param 'amount': the expression reads 'clumpId', which is neither a variable nor a "
         "channel of the strands"},
        {map(MapKind::Expression, "length"), kNoStrands, nullptr, scalp,
         "param 'amount': the expression reads strands, and there are none yet: use P, N, u, v, "
         "noise or maps"},
    };
    for (const auto& c : kCases) {
        data.scalp = c.scalp;
        op.set("amount", c.source);
        try {
            const EvalContext context(data);
            if (c.where == kStrands)
                fieldFromParam(op, "amount", context, strands, c.guides);
            else
                fieldFromParam(op, "amount", context, c.guides);
            ADD_FAILURE() << "nothing was thrown: " << c.message;
        } catch (const GraphError& error) {
            EXPECT_EQ(error.what(), c.message);
        }
    }
}

TEST_F(FieldTest, SaysWhatIsWrongWithAMapInAnExpression) {
    const GuidesPtr guides = makeGuides({"layer"});
    data.flatGuides = guides;
    const std::string lost = folder.file("lost.png");
    const struct {
        const char* name;
        ScalpPtr scalp;
        GuidesPtr guides;
        std::string message;
    } kCases[] = {
        {"unpainted", data.scalp, nullptr, "the texture map has no image file yet"},
        {"old", data.scalp, nullptr, "the vertex map does not fit this scalp"},
        {"image", bare, nullptr, "a texture map needs a scalp with UVs"},
        {"lost", data.scalp, nullptr, "cannot read '" + lost + "': file not found"},
        {"layer", data.scalp, nullptr,
         "no guide layer 'layer' on the strands (Interpolate writes it; paint it on the guides)"},
        {"layer", data.scalp, makeGuides({"other"}), "no guide carries the layer 'layer'"},
    };
    for (const auto& c : kCases) {
        data.scalp = c.scalp;
        op.set("amount", map(MapKind::Expression, "map(\"" + std::string(c.name) + "\")"));
        try {
            fieldFromParam(op, "amount", EvalContext(data), strands, c.guides);
            ADD_FAILURE() << "nothing was thrown: " << c.message;
        } catch (const GraphError& error) {
            EXPECT_THAT(error.what(),
                        testing::HasSubstr("map(\"" + std::string(c.name) + "\"): " + c.message));
            EXPECT_THAT(error.what(), testing::StartsWith("param 'amount': "));
        }
    }
    op.set("amount", map(MapKind::Expression, "map(\"nobody\")"));
    EXPECT_THROW(fieldFromParam(op, "amount", EvalContext(data), strands), GraphError);
}

TEST_F(FieldTest, OneUnfitMapLeavesTheOthersWorking) {
    data.scalp = bare;
    EXPECT_THROW(bound(map(MapKind::Texture, picture)), GraphError);
    EXPECT_NO_THROW(bound(map(MapKind::Expression, "P.x")));
}

TEST_F(FieldTest, AFieldOfStrandsCannotDriveANodeThatMakesThem) {
    const FieldPtr ofStrands = bound(map(MapKind::Expression, "length"));
    op.drive("amount", Operator::DrivenField{ofStrands, 1.0f});
    try {
        fieldFromParam(op, "amount", EvalContext(data));
        ADD_FAILURE();
    } catch (const GraphError& error) {
        EXPECT_THAT(error.what(),
                    testing::StartsWith("param 'amount': no strands yet, so the field"));
    }
}

TEST_F(FieldTest, VectorsAreConstantsOrExpressions) {
    const EvalContext context(data);
    EXPECT_EQ(vectorFromParam(op, "axis", context, strands)->constant(), (Vec3f{1, 2, 3}));
    op.set("axis", map(MapKind::Expression, "[tone, 0, 2] * 2"));
    const auto field = vectorFromParam(op, "axis", context, strands);
    EXPECT_EQ(field->constant(), std::nullopt);
    std::vector<Vec3f> out(all.size());
    field->sampleStrands(strands, all, out);
    for (std::size_t s = 0; s < all.size(); ++s)
        EXPECT_EQ(out[s], (Vec3f{(*strands.strandChannel("tone"))[s] * 2.0f, 0.0f, 4.0f}));
    op.set("axis", map(MapKind::Expression, "none * [1, 0, 0]"));
    try {
        vectorFromParam(op, "axis", context, strands);
        ADD_FAILURE();
    } catch (const GraphError& error) {
        EXPECT_STREQ(error.what(),
                     "param 'axis': the expression reads 'none', which is neither a variable nor a "
                     "channel of the strands");
    }
    try {
        op.set("axis", map(MapKind::ColorSet, "paint"));
        vectorFromParam(op, "axis", context, strands);
        ADD_FAILURE();
    } catch (const GraphError& error) {
        EXPECT_STREQ(
            error.what(),
            "param 'axis': a vector takes an expression (a colorSet map gives one number)");
    }
}

// Hashes.

TEST(ExpressionReads, FindsTheWordsThatMatter) {
    const struct {
        const char* text;
        bool time, maps, surface;
    } kCases[] = {
        {"1 + length", false, false, false},
        {"frame", true, false, false},
        {"sin(time*2)", true, false, false},
        {"timer + frames + atime", false, false, false},
        {"$time + $N", false, false, false},
        {"2 * N.x", false, false, true},
        {"u", false, false, true},
        {"1e5 + 3u", false, false, false},
        {"cmap(\"a\").x", false, true, true},
        {"map(\"a\")", false, true, true},
        {"$a = time;\n$a", true, false, false},
    };
    for (const auto& c : kCases) {
        const ExpressionReads reads = expressionReads(c.text);
        EXPECT_EQ(reads.time, c.time) << c.text;
        EXPECT_EQ(reads.maps, c.maps) << c.text;
        EXPECT_EQ(reads.surface, c.surface) << c.text;
    }
}

TEST_F(FieldTest, TheHashOfReadsFollowsWhatIsRead) {
    enum { kScalp, kFile, kTime, kCatalog, kLayer, kShape, kCount };
    const auto changes = [&](const MapSource& source) {
        std::vector<bool> moved;
        for (int what = 0; what < kCount; ++what) {
            writePng(picture, 4, 4, 1, std::vector<std::uint8_t>(16, 9));
            EvaluationData other = data;
            const GuidesPtr guides = makeGuides({"layer"});
            GuidesPtr later = guides;
            const std::uint64_t before = mapReadsHash(source, data, guides);
            if (what == kScalp) other.scalp = bare;
            if (what == kFile) writePng(picture, 9, 9, 1, std::vector<std::uint8_t>(81, 9));
            if (what == kTime) other.frame = 12.0;
            if (what == kCatalog) {
                auto catalog = std::make_shared<MapCatalogValue>(*data.maps);
                catalog->maps["vertices"].values =
                    std::make_shared<const std::vector<float>>(81, 0.5f);
                other.maps = catalog;
            }
            if (what == kLayer || what == kShape) {
                std::vector<GuideCurve> curves = guides->curves();
                GuideDetail detail = *curves[1].detail;
                detail.attributes["layer"] = 77.0f;
                if (what == kLayer) curves[1].detail = std::make_shared<const GuideDetail>(detail);
                if (what == kShape) curves[1].points[1].y += 1.0f;
                later = std::make_shared<const GuideSet>(std::move(curves));
            }
            moved.push_back(mapReadsHash(source, other, later) != before);
        }
        return moved;
    };
    using testing::ElementsAre;
    EXPECT_THAT(changes(map(MapKind::Texture, picture)),
                ElementsAre(true, true, false, false, false, false));
    EXPECT_THAT(changes(map(MapKind::ColorSet, "paint")),
                ElementsAre(true, false, false, false, false, false));
    EXPECT_THAT(changes(map(MapKind::GuideLayer, "layer")),
                ElementsAre(false, false, false, false, true, false));
    EXPECT_THAT(changes(map(MapKind::Expression, "length")),
                ElementsAre(false, false, false, false, false, false));
    EXPECT_THAT(changes(map(MapKind::Expression, "u")),
                ElementsAre(true, false, false, false, false, false));
    EXPECT_THAT(changes(map(MapKind::Expression, "frame")),
                ElementsAre(false, false, true, false, false, false));
    EXPECT_THAT(changes(map(MapKind::Expression, "map(\"image\")")),
                ElementsAre(true, true, false, true, true, false));
    EXPECT_TRUE(mapReadsTime(map(MapKind::Expression, "frame")));
    EXPECT_FALSE(mapReadsTime(map(MapKind::Attribute, "frame")));
}

}  // namespace
}  // namespace corvelle

// The checks of written files must themselves be able to fail.

#include <Alembic/AbcCoreOgawa/All.h>
#include <Alembic/AbcGeom/All.h>
#include <gmock/gmock.h>

#include "io/testing/alembicRules.h"
#include "io/testing/exportCases.h"
#include "io/testing/usdGrammar.h"

namespace corvelle {
namespace {

namespace Abc = Alembic::Abc;
namespace AbcG = Alembic::AbcGeom;
using testing::Contains;
using testing::HasSubstr;

TEST(AlembicRules, RefuseWhatConsumersWould) {
    ScratchFolder folder;
    const std::string path = folder.file("bad.abc");
    {
        AbcG::OArchive archive(Alembic::AbcCoreOgawa::WriteArchive(), path);
        AbcG::OXform top(archive.getTop(), "hair");  // no sample
        AbcG::OCurves curves(top, "hairShape");
        const std::vector<Abc::V3f> points(4);
        const std::vector<std::int32_t> counts = {3, 1};
        curves.getSchema().set({Abc::P3fArraySample(points), Abc::Int32ArraySample(counts)});
        const std::vector<std::int16_t> none = {0, 0};
        AbcG::OInt16GeomParam guide(curves.getSchema().getArbGeomParams(), "groom_guide", false,
                                    AbcG::kUniformScope, 1);
        guide.set({Abc::Int16ArraySample(none), AbcG::kUniformScope});
        const std::vector<float> one = {1.0f};
        AbcG::OFloatGeomParam odd(curves.getSchema().getArbGeomParams(), "groom_odd", false,
                                  AbcG::kVertexScope, 1);
        odd.set({Abc::FloatArraySample(one), AbcG::kVertexScope});
    }
    const std::vector<std::string> faults = alembicFaults(path, true);
    for (const char* fault :
         {"not linear", "no widths", "hair marked as guides",
          "groom_odd is no name that importers know", "groom_odd of sample 0 has 1 values for 4",
          "no int16 groom_version_major", "an Xform without a sample"})
        EXPECT_THAT(faults, Contains(HasSubstr(fault)));
    EXPECT_THAT(alembicFaults(path, false), Contains(HasSubstr("no strandId per curve")));
}

std::string layer(const std::string& body, const std::string& head = "") {
    return "#usda 1.0\n(\n    defaultPrim = \"r\"\n    framesPerSecond = 24\n    "
           "timeCodesPerSecond = 24\n"
           "    metersPerUnit = 0.01\n    upAxis = \"Y\"\n" +
           head + ")\ndef Xform \"r\"\n{\n" + body + "}\n";
}

TEST(UsdRules, RefuseTextThatConsumersWould) {
    EXPECT_NO_THROW(parseUsd(layer("")));
    const auto fault = [](const std::string& body, const std::string& head = "") {
        return errorOf([&] { parseUsd(layer(body, head)); });
    };
    EXPECT_THAT(fault("", "    doc = \"a\nb\"\n"), HasSubstr("a control character in a string"));
    EXPECT_THAT(fault("def Xform \"a b\" {}\n"), HasSubstr("no identifier: a b"));
    EXPECT_THAT(fault("def Xform \"a-b\" {}\n"), HasSubstr("no identifier"));
    EXPECT_THAT(fault("def Xform \"1a\" {}\n"), HasSubstr("no identifier"));
    EXPECT_THAT(fault("def Xform \"a\" {}\ndef Xform \"a\" {}\n"), HasSubstr("a prim twice"));
    EXPECT_THAT(fault("rel prototypes = [</r/a>, </r/a>]\n"), HasSubstr("a target twice"));
    EXPECT_THAT(fault("int64[] a = [9223372036854775808]\n"),
                HasSubstr("no whole number of 64 bits"));
    EXPECT_THAT(fault("int[] a = [4294967295]\n"), HasSubstr("out of the type's range"));
    EXPECT_THAT(fault("float[] a = [1,5e]\n"), HasSubstr("no number"));
    EXPECT_THAT(fault("point3f[] a = [(1, 2)]\n"), HasSubstr("expected ,"));
    EXPECT_THAT(fault("float[] primvars:1a = []\n"), HasSubstr("a bad name"));
    EXPECT_THAT(fault("float[] a.timeSamples = { 2: [], 1: [], }\n"),
                HasSubstr("times that do not rise"));
}

TEST(UsdRules, RefuseLayersThatConsumersWould) {
    const auto faults = [](const std::string& body) { return usdFaults(parseUsd(layer(body))); };
    const std::string curves =
        "def BasisCurves \"c\" {\n uniform token type = \"linear\"\n uniform token wrap = "
        "\"nonperiodic\"\n"
        " int[] curveVertexCounts.timeSamples = { 1: [2], }\n point3f[] points.timeSamples = { 1: "
        "[(0,0,0), (0,5,0)], }\n";
    EXPECT_THAT(faults(curves + "}\n"), Contains(HasSubstr("no extent")));
    EXPECT_THAT(faults(curves + " float3[] extent.timeSamples = { 1: [(0,0,0), (1,1,1)], }\n}\n"),
                Contains(HasSubstr("a point outside of the extent")));
    EXPECT_THAT(faults(curves + "}\n"), Contains(HasSubstr("no strand ids")));
    EXPECT_THAT(faults(curves + " float[] widths (\n interpolation = \"vertex\"\n )\n float[] "
                                "widths.timeSamples = { 1: [1], }\n}\n"),
                Contains(HasSubstr("widths is not one per vertex")));
    EXPECT_THAT(faults(curves + " float[] widths.timeSamples = { 2: [1, 1], }\n}\n"),
                Contains(HasSubstr("other times")));
    const std::string instancer =
        "def PointInstancer \"i\" {\n rel prototypes = [</r/i/p>]\n int[] protoIndices.timeSamples "
        "= { 1: [3], }\n"
        " point3f[] positions.timeSamples = { 1: [(0,0,0)], }\n float3[] scales.timeSamples = { 1: "
        "[], }\n"
        " quath[] orientations.timeSamples = { 1: [(2,0,0,0)], }\n}\n";
    for (const char* fault :
         {"no prim /r/i/p", "a prototype index out of range", "a rotation that is not unit",
          "scales is not one per instance", "no extent"})
        EXPECT_THAT(faults(instancer), Contains(HasSubstr(fault)));
}

}  // namespace
}  // namespace corvelle

#include "io/testing/alembicRules.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <sstream>

#include <Alembic/AbcCoreOgawa/All.h>
#include <Alembic/AbcGeom/All.h>

namespace corvelle {

namespace {

namespace Abc = Alembic::Abc;
namespace AbcG = Alembic::AbcGeom;

/// One array property with all its samples' lengths.
struct Property {
    std::string name;
    AbcG::GeometryScope scope = AbcG::kUnknownScope;
    Abc::DataType type;
    std::string arrayExtent;
    std::vector<std::size_t> lengths;
    std::vector<double> times;
};

struct Curves {
    std::string path;
    AbcG::ICurvesSchema schema;
    std::vector<std::size_t> curves, points;  ///< per sample
    std::vector<double> times;
    std::vector<Property> attributes;
    bool isGuides() const { return path.find("/guides_") != std::string::npos; }
    const Property* attribute(const std::string& name) const {
        const auto found = std::ranges::find(attributes, name, &Property::name);
        return found == attributes.end() ? nullptr : &*found;
    }
};

struct Archive {
    Abc::IArchive archive;
    std::vector<Curves> curves;
    std::vector<AbcG::IPolyMesh> meshes;
    bool groomLayout = false;
};

std::vector<double> timesOf(const Abc::TimeSamplingPtr& sampling, std::size_t count) {
    std::vector<double> times;
    for (std::size_t i = 0; i < count; ++i)
        times.push_back(sampling->getSampleTime(Abc::index_t(i)));
    return times;
}

Property propertyOf(const Abc::ICompoundProperty& parent, const Abc::PropertyHeader& header) {
    const Abc::IArrayProperty array(parent, header.getName());
    Property out{header.getName(),
                 AbcG::GetGeometryScope(header.getMetaData()),
                 header.getDataType(),
                 header.getMetaData().get("arrayExtent"),
                 {},
                 {}};
    for (std::size_t i = 0; i < array.getNumSamples(); ++i) {
        Alembic::Util::Dimensions size;
        array.getDimensions(size, Abc::ISampleSelector(Abc::index_t(i)));
        out.lengths.push_back(size.numPoints());
    }
    out.times = timesOf(array.getTimeSampling(), array.getNumSamples());
    return out;
}

void collect(const Abc::IObject& object, Archive& out) {
    for (std::size_t i = 0; i < object.getNumChildren(); ++i) {
        const Abc::IObject child = object.getChild(i);
        if (AbcG::ICurves::matches(child.getHeader())) {
            Curves curves{child.getFullName(),
                          AbcG::ICurves(child, Abc::kWrapExisting).getSchema(),
                          {},
                          {},
                          {},
                          {}};
            for (std::size_t s = 0; s < curves.schema.getNumSamples(); ++s) {
                const auto sample = curves.schema.getValue(Abc::ISampleSelector(Abc::index_t(s)));
                curves.curves.push_back(sample.getNumCurves());
                curves.points.push_back(sample.getPositions() ? sample.getPositions()->size() : 0);
            }
            curves.times = timesOf(curves.schema.getTimeSampling(), curves.schema.getNumSamples());
            const Abc::ICompoundProperty params = curves.schema.getArbGeomParams();
            for (std::size_t p = 0; params.valid() && p < params.getNumProperties(); ++p)
                curves.attributes.push_back(propertyOf(params, params.getPropertyHeader(p)));
            out.curves.push_back(std::move(curves));
        } else if (AbcG::IPolyMesh::matches(child.getHeader())) {
            out.meshes.emplace_back(child, Abc::kWrapExisting);
        }
        collect(child, out);
    }
}

template <class... Parts>
std::string text(const Parts&... parts) {
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}

// ---- rules: each gives a fault, or an empty text ------------------------------------------------

std::string shapeOfSamples(const Archive&, const Curves& object) {
    for (std::size_t s = 0; s < object.schema.getNumSamples(); ++s) {
        const auto sample = object.schema.getValue(Abc::ISampleSelector(Abc::index_t(s)));
        if (sample.getType() != AbcG::kLinear) return "not linear";
        if (sample.getWrap() != AbcG::kNonPeriodic) return "periodic";
        if (sample.getBasis() != AbcG::kNoBasis) return "has a basis";
        const auto counts = sample.getCurvesNumVertices();
        if (!counts || !sample.getPositions()) return "sample without positions or counts";
        std::size_t total = 0;
        for (std::size_t i = 0; i < counts->size(); ++i) {
            if ((*counts)[i] < 2) return text("curve ", i, " of fewer than 2 points");
            total += std::size_t((*counts)[i]);
        }
        if (total != sample.getPositions()->size()) return "counts do not add up";
        const Abc::Box3d box = sample.getSelfBounds();
        for (std::size_t i = 0; i < total; ++i) {
            const Abc::V3d p((*sample.getPositions())[i]);
            if (!box.intersects(p)) return text("point ", i, " outside of the bounds");
        }
    }
    return {};
}

std::string widthsPerVertex(const Archive&, const Curves& object) {
    AbcG::IFloatGeomParam widths = object.schema.getWidthsParam();
    if (!widths.valid()) return "no widths";
    if (widths.getScope() != AbcG::kVertexScope || widths.isIndexed())
        return "widths not per vertex";
    if (widths.getNumSamples() != object.points.size()) return "widths lack samples";
    for (std::size_t s = 0; s < object.points.size(); ++s)
        if (widths.getExpandedValue(Abc::ISampleSelector(Abc::index_t(s))).getVals()->size() !=
            object.points[s])
            return text("widths of sample ", s, " are not one per vertex");
    return {};
}

std::string uvsPerCurve(const Archive&, const Curves& object) {
    AbcG::IV2fGeomParam uvs = object.schema.getUVsParam();
    if (!uvs.valid()) return {};
    if (uvs.getScope() != AbcG::kUniformScope) return "uvs not per curve";
    for (std::size_t s = 0; s < object.curves.size(); ++s)
        if (uvs.getExpandedValue(Abc::ISampleSelector(Abc::index_t(s))).getVals()->size() !=
            object.curves[s])
            return text("uvs of sample ", s, " are not one per curve");
    return {};
}

std::string oneClock(const Archive&, const Curves& object) {
    for (std::size_t i = 1; i < object.times.size(); ++i)
        if (!(object.times[i] > object.times[i - 1])) return "times do not rise";
    const auto agrees = [&](const std::vector<double>& times) { return times == object.times; };
    for (const Property& attribute : object.attributes)
        if (!agrees(attribute.times)) return attribute.name + " has other sample times";
    AbcG::IFloatGeomParam widths = object.schema.getWidthsParam();
    if (widths.valid() && !agrees(timesOf(widths.getTimeSampling(), widths.getNumSamples())))
        return "widths have other sample times";
    AbcG::IV2fGeomParam uvs = object.schema.getUVsParam();
    if (uvs.valid() && !agrees(timesOf(uvs.getTimeSampling(), uvs.getNumSamples())))
        return "uvs have other sample times";
    return {};
}

/// All objects play together, or a reader that samples one time for all misses some.
std::string sharedClock(const Archive& archive, const Curves& object) {
    return object.times == archive.curves.front().times ? "" : "other times than the first object";
}

std::string attributeLengths(const Archive&, const Curves& object) {
    for (const Property& attribute : object.attributes)
        for (std::size_t s = 0; s < attribute.lengths.size(); ++s) {
            const std::size_t items = attribute.scope == AbcG::kConstantScope  ? 1
                                      : attribute.scope == AbcG::kUniformScope ? object.curves[s]
                                      : attribute.scope == AbcG::kVertexScope  ? object.points[s]
                                                                               : 99'999'999;
            const std::size_t each = std::size_t(std::atoi(attribute.arrayExtent.c_str()));
            if (attribute.lengths[s] != items * each)
                return text(attribute.name, " of sample ", s, " has ", attribute.lengths[s],
                            " values for ", items);
        }
    return {};
}

/// What a groom importer knows by name.
struct Known {
    const char* name;
    AbcG::GeometryScope scope;
    Abc::PlainOldDataType pod;
    int extent;
    const char* arrayExtent;
    bool required;
};
constexpr auto kInt = Alembic::Util::kInt32POD;
constexpr auto kFloat = Alembic::Util::kFloat32POD;
const Known kKnown[] = {
    {"groom_id", AbcG::kUniformScope, kInt, 1, "1", true},
    {"groom_group_id", AbcG::kConstantScope, kInt, 1, "1", true},
    {"groom_group_name", AbcG::kConstantScope, Alembic::Util::kStringPOD, 1, "1", true},
    {"groom_width", AbcG::kVertexScope, kFloat, 1, "1", true},
    {"corvelle_strand_id_low", AbcG::kUniformScope, kInt, 1, "1", true},
    {"corvelle_strand_id_high", AbcG::kUniformScope, kInt, 1, "1", true},
    {"groom_guide", AbcG::kUniformScope, Alembic::Util::kInt16POD, 1, "1", false},
    {"groom_root_uv", AbcG::kUniformScope, kFloat, 2, "1", false},
    {"groom_color", AbcG::kVertexScope, kFloat, 3, "1", false},
    {"groom_roughness", AbcG::kVertexScope, kFloat, 1, "1", false},
    {"groom_ao", AbcG::kVertexScope, kFloat, 1, "1", false},
    {"groom_iridescence", AbcG::kVertexScope, kFloat, 1, "1", false},
    {"groom_clump_id", AbcG::kUniformScope, kInt, 1, "1", false},
    {"groom_clumpid", AbcG::kUniformScope, kInt, 1, "1", false},
    {"groom_closest_guides", AbcG::kUniformScope, kInt, 1, "3", false},
    {"groom_guide_weights", AbcG::kUniformScope, kFloat, 1, "3", false},
};

std::string knownAttributes(const Archive& archive, const Curves& object) {
    if (!archive.groomLayout) return {};
    for (const Property& attribute : object.attributes) {
        const auto known = std::ranges::find(kKnown, attribute.name, &Known::name);
        if (known == std::end(kKnown)) return attribute.name + " is no name that importers know";
        if (attribute.scope != known->scope || attribute.type.getPod() != known->pod ||
            attribute.type.getExtent() != known->extent ||
            attribute.arrayExtent != known->arrayExtent)
            return attribute.name + " has another type or scope";
    }
    for (const Known& known : kKnown)
        if (known.required && !object.attribute(known.name)) return text("no ", known.name);
    return {};
}

std::string guideMarks(const Archive& archive, const Curves& object) {
    if (!archive.groomLayout) return {};
    if (!object.isGuides())
        return object.attribute("groom_guide") ? "hair marked as guides"
                                               : "";  // even all 0 makes guides
    if (!object.attribute("groom_guide")) return "guides that are not marked";
    const Abc::IInt16ArrayProperty marks(object.schema.getArbGeomParams(), "groom_guide");
    for (std::size_t s = 0; s < marks.getNumSamples(); ++s) {
        const auto values = marks.getValue(Abc::ISampleSelector(Abc::index_t(s)));
        for (std::size_t i = 0; i < values->size(); ++i)
            if ((*values)[i] != 1) return "a guide that is not marked";
    }
    return {};
}

std::string guideShares(const Archive& archive, const Curves& object) {
    if (!object.attribute("groom_closest_guides")) return {};
    if (!object.attribute("groom_guide_weights")) return "closest guides without weights";
    std::set<std::int32_t> guides;
    for (const Curves& other : archive.curves) {
        if (!other.isGuides()) continue;
        const Abc::IInt32ArrayProperty ids(other.schema.getArbGeomParams(), "groom_id");
        for (std::size_t s = 0; s < ids.getNumSamples(); ++s) {
            const auto values = ids.getValue(Abc::ISampleSelector(Abc::index_t(s)));
            for (std::size_t i = 0; i < values->size(); ++i) guides.insert((*values)[i]);
        }
    }
    const Abc::IInt32ArrayProperty closest(object.schema.getArbGeomParams(),
                                           "groom_closest_guides");
    const Abc::IFloatArrayProperty weights(object.schema.getArbGeomParams(), "groom_guide_weights");
    for (std::size_t s = 0; s < closest.getNumSamples(); ++s) {
        const Abc::ISampleSelector at{Abc::index_t(s)};
        const auto ids = closest.getValue(at);
        const auto shares = weights.getValue(at);
        for (std::size_t i = 0; i < ids->size(); ++i) {
            const float share = (*shares)[i];
            if (!(share >= 0.0f && share <= 1.0f)) return "a weight outside of 0 to 1";
            if (share > 0.0f && !guides.contains((*ids)[i]))
                return text("guide ", (*ids)[i], " is not there");
            if (i % 3 != 0 && share > (*shares)[i - 1]) return "weights that rise";
        }
    }
    return {};
}

std::string positiveIds(const Archive& archive, const Curves& object) {
    if (!archive.groomLayout || !object.attribute("groom_id")) return {};
    const Abc::IInt32ArrayProperty ids(object.schema.getArbGeomParams(), "groom_id");
    for (std::size_t s = 0; s < ids.getNumSamples(); ++s) {
        const auto values = ids.getValue(Abc::ISampleSelector(Abc::index_t(s)));
        for (std::size_t i = 0; i < values->size(); ++i)
            if ((*values)[i] < 0) return "a negative groom_id";
    }
    return {};
}

std::string stampedVersion(const Archive& archive, const Curves&) {
    if (!archive.groomLayout) return {};
    Abc::IObject top = archive.archive.getTop();
    const Abc::IObject xform = top.getChild(0);
    if (!AbcG::IXform::matches(xform.getHeader())) return "the top object is no Xform";
    for (const Abc::ICompoundProperty& properties :
         {top.getProperties(),
          AbcG::IXform(xform, Abc::kWrapExisting).getSchema().getUserProperties()}) {
        for (const char* name : {"groom_version_major", "groom_version_minor"}) {
            const auto* header = properties.getPropertyHeader(name);
            if (!header || !header->isScalar() ||
                header->getDataType().getPod() != Alembic::Util::kInt16POD)
                return text("no int16 ", name);
        }
        if (!properties.getPropertyHeader("groom_tool")) return "no groom_tool";
        if (Abc::IInt16Property(properties, "groom_version_major").getValue() != 1 ||
            Abc::IInt16Property(properties, "groom_version_minor").getValue() != 5)
            return "another groom version";
    }
    return {};
}

std::string identityAbove(const Archive&, const Curves& object) {
    for (Abc::IObject up = object.schema.getObject().getParent();
         up.valid() && up.getParent().valid(); up = up.getParent()) {
        if (!AbcG::IXform::matches(up.getHeader())) return "not below an Xform";
        AbcG::IXformSchema schema = AbcG::IXform(up, Abc::kWrapExisting).getSchema();
        if (schema.getNumSamples() == 0) return "an Xform without a sample";
        if (schema.getValue().getMatrix() != Abc::M44d()) return "an Xform that moves";
    }
    return {};
}

std::string strandIds(const Archive& archive, const Curves& object) {
    if (archive.groomLayout) return {};
    const Property* ids = object.attribute("strandId");
    return ids && ids->type.getPod() == Alembic::Util::kUint64POD &&
                   ids->scope == AbcG::kUniformScope
               ? ""
               : "no strandId per curve";
}

struct Rule {
    const char* consumer;
    std::string (*check)(const Archive&, const Curves&);
};
constexpr Rule kRules[] = {
    {"renderers", shapeOfSamples},
    {"renderers", widthsPerVertex},
    {"renderers", uvsPerCurve},
    {"renderers", attributeLengths},
    {"renderers", oneClock},
    {"renderers", strandIds},
    {"engine groom importers", knownAttributes},
    {"engine groom importers", guideMarks},
    {"engine groom importers", guideShares},
    {"engine groom importers", positiveIds},
    {"engine groom importers", stampedVersion},
    {"engine groom importers", sharedClock},
    {"hosts", identityAbove},
};

std::string meshFault(AbcG::IPolyMesh& mesh) {
    AbcG::IPolyMeshSchema& schema = mesh.getSchema();
    for (std::size_t s = 0; s < schema.getNumSamples(); ++s) {
        const Abc::ISampleSelector at{Abc::index_t(s)};
        const auto sample = schema.getValue(at);
        std::size_t corners = 0;
        for (std::size_t f = 0; f < sample.getFaceCounts()->size(); ++f)
            corners += std::size_t((*sample.getFaceCounts())[f]);
        if (corners != sample.getFaceIndices()->size()) return "face counts do not add up";
        for (std::size_t i = 0; i < corners; ++i)
            if (std::size_t((*sample.getFaceIndices())[i]) >= sample.getPositions()->size())
                return "face index out of range";
        AbcG::IV2fGeomParam uvs = schema.getUVsParam();
        if (uvs.valid() && (uvs.getScope() != AbcG::kFacevaryingScope ||
                            uvs.getExpandedValue(at).getVals()->size() != corners))
            return "uvs not per corner";
        AbcG::IN3fGeomParam normals = schema.getNormalsParam();
        if (normals.valid() &&
            (normals.getScope() != AbcG::kVertexScope ||
             normals.getExpandedValue(at).getVals()->size() != sample.getPositions()->size()))
            return "normals not per vertex";
        const Abc::ICompoundProperty params = schema.getArbGeomParams();
        for (std::size_t p = 0; params.valid() && p < params.getNumProperties(); ++p) {
            const Property property = propertyOf(params, params.getPropertyHeader(p));
            if (property.scope != AbcG::kUniformScope ||
                property.lengths.size() != schema.getNumSamples() ||
                property.lengths[s] != sample.getFaceCounts()->size())
                return property.name + " not per face";
        }
    }
    return {};
}

}  // namespace

std::vector<std::string> alembicFaults(const std::string& path, bool groomLayout) {
    Archive archive;
    archive.groomLayout = groomLayout;
    archive.archive = Abc::IArchive(Alembic::AbcCoreOgawa::ReadArchive(), path);
    collect(archive.archive.getTop(), archive);
    std::vector<std::string> faults;
    if (archive.curves.empty() && archive.meshes.empty()) faults.push_back("hosts: nothing in it");
    for (const Curves& curves : archive.curves)
        for (const Rule& rule : kRules)
            if (const std::string fault = rule.check(archive, curves); !fault.empty())
                faults.push_back(text(rule.consumer, ": ", curves.path, ": ", fault));
    for (AbcG::IPolyMesh& mesh : archive.meshes)
        if (const std::string fault = meshFault(mesh); !fault.empty())
            faults.push_back(text("renderers: ", mesh.getFullName(), ": ", fault));
    return faults;
}

}  // namespace corvelle

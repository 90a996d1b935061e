#include "io/alembicReader.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <optional>

#include <Alembic/AbcCoreOgawa/All.h>
#include <Alembic/AbcGeom/All.h>

#include "model/utf8Path.h"
#include "io/alembicCheck.h"
#include "model/hash.h"

namespace corvelle {

namespace AbcG = Alembic::AbcGeom;

namespace {

constexpr std::size_t kDeepestObject = 256;
constexpr std::size_t kMostObjects = 1'000'000;
/// Times that were computed two ways still meet: seconds.
constexpr double kTimeTolerance = 1e-6;

bool sameName(std::string_view have, std::string_view wanted) {
    if (have == wanted) return true;
    constexpr std::string_view kShape = "Shape";
    return have.size() == wanted.size() + kShape.size() && have.starts_with(wanted) &&
           have.ends_with(kShape);
}

/// By its full path or the last part of it, with and without "Shape".
bool isNamed(const std::string& path, std::string wanted) {
    if (sameName(std::string_view(path).substr(path.rfind('/') + 1), wanted)) return true;
    if (!wanted.starts_with('/')) wanted.insert(0, "/");
    return sameName(path, wanted);
}

Alembic::Abc::ISampleSelector at(std::size_t index) {
    return Alembic::Abc::ISampleSelector(Alembic::Abc::index_t(index));
}

/// The sample at or before a time, of `count` above 0.
std::size_t sampleIndex(const Alembic::Abc::TimeSamplingPtr& sampling, std::size_t count,
                        double seconds) {
    if (count <= 1 || !sampling || !std::isfinite(seconds)) return 0;
    const auto floor = sampling->getFloorIndex(seconds, Alembic::Abc::index_t(count));
    const std::size_t index =
        std::min(std::size_t(std::max<Alembic::Abc::index_t>(floor.first, 0)), count - 1);
    const bool next =
        index + 1 < count &&
        sampling->getSampleTime(Alembic::Abc::index_t(index + 1)) <= seconds + kTimeTolerance;
    return next ? index + 1 : index;
}

}  // namespace

struct AlembicCurves::Archive {
    struct Entry {
        std::string path;
        AbcG::ICurvesSchema curves;
        std::vector<AbcG::IXformSchema> xforms;  ///< outermost first
    };

    std::string name;
    std::uint64_t bytes = 0;
    std::unique_ptr<std::istream> stream;  ///< before what reads from it
    Alembic::Abc::IArchive archive;
    std::vector<Entry> entries;

    void open();
    void collect();
    void checkXform(const Alembic::Abc::IObject& object) const;
    const Entry& entry(const std::string& object) const;
    std::vector<const Entry*> entriesUnder(const std::string& object) const;
    [[noreturn]] void noCurves(const std::string& object) const;
    CurveSet read(const Entry& entry, double seconds) const;
    std::size_t indexOf(const Entry& entry, double seconds) const {
        return sampleIndex(entry.curves.getTimeSampling(), entry.curves.getNumSamples(), seconds);
    }

    /// An array of a property at a sample; null where it has none. What claims to be longer than
    /// the file is refused before memory is asked for.
    template <class Property>
    auto array(const Property& property, std::size_t index) const {
        typename Property::sample_ptr_type sample;
        const std::size_t count = property.valid() ? property.getNumSamples() : 0;
        if (count == 0) return sample;
        const auto selector = at(std::min(index, count - 1));
        Alembic::Util::Dimensions size;
        property.getDimensions(size, selector);
        const double claimed =
            double(size.numPoints()) * double(property.getDataType().getNumBytes());
        if (size.rank() > 1 || claimed > double(bytes))
            throw AlembicError(name + ": an array is longer than the file");
        property.get(sample, selector);
        return sample;
    }

    /// The values of a geometry parameter with its indices followed; empty where they lead astray.
    template <class Param>
    auto values(Param param, std::size_t index) const {
        std::vector<typename Param::value_type> out;
        if (!param.valid()) return out;
        const auto held = array(param.getValueProperty(), index);
        if (!held) return out;
        const auto indices = param.isIndexed() ? array(param.getIndexProperty(), index) : nullptr;
        if (!param.isIndexed()) {
            if (held->size() > 0) out.assign(held->get(), held->get() + held->size());
        } else if (indices) {
            out.reserve(indices->size());
            for (std::size_t i = 0; i < indices->size(); ++i) {
                if ((*indices)[i] >= held->size()) return decltype(out)();
                out.push_back((*held)[(*indices)[i]]);
            }
        }
        return out;
    }

    template <class Property>
    auto plainArray(const Alembic::Abc::ICompoundProperty& parent, const char* property,
                    std::size_t index) const {
        const auto* header = parent.valid() ? parent.getPropertyHeader(property) : nullptr;
        return header && header->isArray() && Property::matches(*header)
                   ? array(Property(parent, property), index)
                   : nullptr;
    }
    std::vector<std::uint64_t> ids(const Entry& entry, std::size_t index, std::size_t curves) const;
    Alembic::Abc::M44d matrix(const Entry& entry, double seconds) const;
};

void AlembicCurves::Archive::open() {
    if (const std::string fault = alembicFault(*stream); !fault.empty())
        throw AlembicError(name + ": " + fault);
    stream->clear();
    stream->seekg(0, std::ios::end);
    bytes = std::uint64_t(stream->tellg());
    stream->seekg(0);
    try {
        archive = Alembic::Abc::IArchive(
            Alembic::AbcCoreOgawa::ReadArchive(std::vector<std::istream*>{stream.get()})(name),
            Alembic::Abc::kWrapExisting, Alembic::Abc::ErrorHandler::kThrowPolicy);
        collect();
    } catch (const AlembicError&) {
        throw;
    } catch (const std::exception& error) {
        throw AlembicError(name + ": " + error.what());
    }
}

/// The library takes the values of an Xform's operations from where they should be.
void AlembicCurves::Archive::checkXform(const Alembic::Abc::IObject& object) const {
    constexpr std::size_t kChannels[] = {3, 3, 4, 16,
                                         1, 1, 1};  // scale, translate, rotate, matrix, x, y, z
    const auto fail = [&] { throw AlembicError(name + ": broken transform"); };
    const Alembic::Abc::ICompoundProperty all = object.getProperties();
    const auto* header = all.getPropertyHeader(".xform");
    if (!header || !header->isCompound()) fail();
    const Alembic::Abc::ICompoundProperty xform(all, ".xform");
    const auto* ops = xform.getPropertyHeader(".ops");
    const auto* vals = xform.getPropertyHeader(".vals");
    const auto* inherits = xform.getPropertyHeader(".inherits");
    if (inherits &&
        !(inherits->isScalar() &&
          inherits->getDataType() == Alembic::Abc::DataType(Alembic::Util::kBooleanPOD)))
        fail();
    if (!ops) return;
    if (!vals || vals->isCompound() || !ops->isScalar() ||
        ops->getDataType().getPod() != Alembic::Util::kUint8POD ||
        vals->getDataType().getPod() != Alembic::Util::kFloat64POD)
        fail();
    const Alembic::Abc::IScalarProperty codes(xform, ".ops");
    std::vector<std::uint8_t> opBytes(ops->getDataType().getExtent());
    if (codes.getNumSamples() == 0) fail();
    codes.get(opBytes.data(), at(0));
    std::size_t channels = 0;
    for (const std::uint8_t code : opBytes) {
        if (code >> 4 >= int(std::size(kChannels))) fail();
        channels += kChannels[code >> 4];
    }
    if (vals->isScalar()) {
        if (vals->getDataType().getExtent() != channels) fail();
    } else {
        const Alembic::Abc::IArrayProperty values(xform, ".vals");
        for (std::size_t i = 0; i < values.getNumSamples(); ++i) {
            Alembic::Util::Dimensions size;
            values.getDimensions(size, at(i));
            if (size.numPoints() * vals->getDataType().getExtent() != channels) fail();
        }
    }
    if (const auto* animated = xform.getPropertyHeader(".animChans")) {
        if (!animated->isArray() ||
            animated->getDataType() != Alembic::Abc::DataType(Alembic::Util::kUint32POD))
            fail();
        const Alembic::Abc::IUInt32ArrayProperty numbers(xform, ".animChans");
        if (const auto first = array(numbers, 0))
            for (std::size_t i = 0; i < first->size(); ++i)
                if ((*first)[i] >= channels) fail();
    }
}

void AlembicCurves::Archive::collect() {
    struct Step {
        Alembic::Abc::IObject object;
        std::string path;
        std::vector<AbcG::IXformSchema> xforms;
        std::size_t next = 0;
    };
    std::size_t seen = 0;
    std::vector<Step> stack{{archive.getTop(), "", {}}};
    while (!stack.empty()) {
        Step& top = stack.back();
        if (top.next == top.object.getNumChildren()) {
            stack.pop_back();
            continue;
        }
        const std::size_t i = top.next++;
        if (++seen > kMostObjects || stack.size() > kDeepestObject)
            throw AlembicError(name + ": too many objects");
        const auto& header = top.object.getChildHeader(i);
        Step below{top.object.getChild(i), top.path + "/" + header.getName(), top.xforms};
        if (!below.object.valid()) continue;
        if (AbcG::IXform::matches(header)) {
            checkXform(below.object);
            below.xforms.push_back(AbcG::IXform(top.object, header.getName()).getSchema());
        } else if (AbcG::ICurves::matches(header)) {
            entries.push_back({below.path, AbcG::ICurves(top.object, header.getName()).getSchema(),
                               below.xforms});
        }
        stack.push_back(std::move(below));
    }
}

void AlembicCurves::Archive::noCurves(const std::string& object) const {
    throw AlembicError(object.empty() ? "no curves in " + name
                                      : "no curves named '" + object + "'");
}

const AlembicCurves::Archive::Entry& AlembicCurves::Archive::entry(
    const std::string& object) const {
    if (object.empty() && !entries.empty()) return entries.front();
    const auto found = std::ranges::find_if(
        entries, [&](const Entry& entry) { return isNamed(entry.path, object); });
    if (object.empty() || found == entries.end()) noCurves(object);
    return *found;
}

std::vector<const AlembicCurves::Archive::Entry*> AlembicCurves::Archive::entriesUnder(
    const std::string& object) const {
    std::vector<const Entry*> found;
    for (const Entry& entry : entries) {
        bool wanted = object.empty();
        // The object itself and each one above it.
        for (std::string path = entry.path; !wanted && !path.empty(); path.resize(path.rfind('/')))
            wanted = isNamed(path, object);
        if (wanted) found.push_back(&entry);
    }
    if (found.empty()) noCurves(object);
    return found;
}

std::vector<std::uint64_t> AlembicCurves::Archive::ids(const Entry& entry, std::size_t index,
                                                       std::size_t curves) const {
    std::vector<std::uint64_t> out;
    const Alembic::Abc::ICompoundProperty params = entry.curves.getArbGeomParams();
    if (const auto whole =
            plainArray<Alembic::Abc::IUInt64ArrayProperty>(params, "strandId", index);
        whole && whole->size() == curves) {
        if (curves > 0) out.assign(whole->get(), whole->get() + curves);
        return out;
    }
    const auto low =
        plainArray<Alembic::Abc::IInt32ArrayProperty>(params, "corvelle_strand_id_low", index);
    const auto high =
        plainArray<Alembic::Abc::IInt32ArrayProperty>(params, "corvelle_strand_id_high", index);
    if (!low || !high || low->size() != curves || high->size() != curves) return out;
    out.resize(curves);
    for (std::size_t i = 0; i < curves; ++i)
        out[i] = std::uint64_t(std::uint32_t((*high)[i])) << 32 | std::uint32_t((*low)[i]);
    return out;
}

Alembic::Abc::M44d AlembicCurves::Archive::matrix(const Entry& entry, double seconds) const {
    Alembic::Abc::M44d matrix;
    for (const AbcG::IXformSchema& schema : entry.xforms) {
        if (schema.getNumSamples() == 0) continue;
        const AbcG::XformSample sample = schema.getValue(
            at(sampleIndex(schema.getTimeSampling(), schema.getNumSamples(), seconds)));
        matrix = sample.getInheritsXforms() ? sample.getMatrix() * matrix : sample.getMatrix();
    }
    return matrix;
}

CurveSet AlembicCurves::Archive::read(const Entry& entry, double seconds) const try {
    const std::size_t index = indexOf(entry, seconds);
    const auto positions = array(entry.curves.getPositionsProperty(), index);
    const auto counts = array(entry.curves.getNumVerticesProperty(), index);
    if (!positions || !counts)
        throw AlembicError(name + ": a curves sample has no positions or vertex counts");
    CurveSet out;
    std::int64_t total = 0;
    for (std::size_t i = 0; i < counts->size(); ++i) {
        if ((*counts)[i] < 0)
            throw AlembicError(name + ": curve " + std::to_string(i) +
                               " has a negative vertex count");
        total += (*counts)[i];
    }
    const std::size_t points = positions->size(), curves = counts->size();
    if (total != std::int64_t(points))
        throw AlembicError(name + ": the vertex counts add up to " + std::to_string(total) +
                           " points but the sample holds " + std::to_string(points));
    if (curves > 0) out.counts.assign(counts->get(), counts->get() + curves);
    out.points.resize(points);
    const Alembic::Abc::M44d through = matrix(entry, seconds);
    const bool moved = through != Alembic::Abc::M44d();
    for (std::size_t i = 0; i < points; ++i) {
        const auto& p = (*positions)[i];
        out.points[i] = {p.x, p.y, p.z};
        if (!moved) continue;
        Alembic::Abc::V3d q;
        through.multVecMatrix(Alembic::Abc::V3d(p.x, p.y, p.z), q);
        out.points[i] = {float(q.x), float(q.y), float(q.z)};
    }
    const auto spread = [&](const auto& values, auto& perPoint) {
        if (values.size() == points) {
            perPoint.assign(values.begin(), values.end());
        } else if (values.size() == 1) {
            perPoint.assign(points, values[0]);
        } else if (values.size() == curves) {
            for (std::size_t s = 0; s < curves; ++s)
                perPoint.insert(perPoint.end(), std::size_t(out.counts[s]), values[s]);
        }
    };
    spread(values(entry.curves.getWidthsParam(), index), out.widths);
    const auto uvs = values(entry.curves.getUVsParam(), index);
    if (!uvs.empty() && (uvs.size() == curves || uvs.size() == points || uvs.size() == 1)) {
        std::size_t root = 0;
        for (std::size_t s = 0; s < curves; root += std::size_t(out.counts[s++])) {
            const std::size_t from = uvs.size() == curves ? s : uvs.size() == 1 ? 0 : root;
            out.uvs.push_back(from < uvs.size() ? Vec2f{uvs[from].x, uvs[from].y} : Vec2f{});
        }
    }
    out.ids = ids(entry, index, curves);
    return out;
} catch (const AlembicError&) {
    throw;
} catch (const std::exception& error) {
    throw AlembicError(name + ": " + error.what());
}

AlembicCurves::AlembicCurves(const std::string& path) : archive_(std::make_unique<Archive>()) {
    archive_->name = path;
    auto stream = std::make_unique<std::ifstream>(utf8Path(path), std::ios::binary);
    if (!*stream) throw AlembicError("cannot open '" + path + "'");
    archive_->stream = std::move(stream);
    archive_->open();
}

AlembicCurves::AlembicCurves(std::unique_ptr<std::istream> bytes, const std::string& name)
    : archive_(std::make_unique<Archive>()) {
    archive_->name = name;
    archive_->stream = std::move(bytes);
    archive_->open();
}

AlembicCurves::~AlembicCurves() = default;
AlembicCurves::AlembicCurves(AlembicCurves&&) noexcept = default;
AlembicCurves& AlembicCurves::operator=(AlembicCurves&&) noexcept = default;

std::vector<std::string> AlembicCurves::objects() const {
    std::vector<std::string> paths;
    for (const Archive::Entry& entry : archive_->entries) paths.push_back(entry.path);
    return paths;
}

CurveSet AlembicCurves::read(const std::string& object, double seconds) const {
    return archive_->read(archive_->entry(object), seconds);
}

CurveSet AlembicCurves::readUnder(const std::string& object, double seconds) const {
    CurveSet joined;
    bool widths = true, uvs = true, ids = true;
    for (const Archive::Entry* entry : archive_->entriesUnder(object)) {
        const CurveSet part = archive_->read(*entry, seconds);
        const auto add = [](auto& to, const auto& from) {
            to.insert(to.end(), from.begin(), from.end());
        };
        add(joined.points, part.points);
        add(joined.counts, part.counts);
        add(joined.widths, part.widths);
        add(joined.uvs, part.uvs);
        add(joined.ids, part.ids);
        widths = widths && part.widths.size() == part.points.size();
        uvs = uvs && part.uvs.size() == part.counts.size();
        ids = ids && part.ids.size() == part.counts.size();
    }
    if (!widths) joined.widths.clear();
    if (!uvs) joined.uvs.clear();
    if (!ids) joined.ids.clear();
    return joined;
}

std::uint64_t AlembicCurves::samplesAt(const std::string& object, double seconds) const try {
    std::uint64_t h = hashOf("alembicSamples");
    for (const Archive::Entry* entry : archive_->entriesUnder(object)) {
        h = hashCombine(h, std::uint64_t(archive_->indexOf(*entry, seconds)));
        for (const AbcG::IXformSchema& xform : entry->xforms)
            if (xform.getNumSamples() > 0)
                h = hashCombine(h, std::uint64_t(sampleIndex(xform.getTimeSampling(),
                                                             xform.getNumSamples(), seconds)));
    }
    return h;
} catch (const AlembicError&) {
    throw;
} catch (const std::exception& error) {
    throw AlembicError(archive_->name + ": " + error.what());
}

AlembicCurves::Range AlembicCurves::range(const std::string& object) const {
    const AbcG::ICurvesSchema& curves = archive_->entry(object).curves;
    Range range{.samples = curves.getNumSamples()};
    const auto sampling = curves.getTimeSampling();
    if (range.samples == 0 || !sampling) return range;
    try {
        range.first = sampling->getSampleTime(0);
        range.last = sampling->getSampleTime(Alembic::Abc::index_t(range.samples - 1));
    } catch (const std::exception& error) {
        throw AlembicError(archive_->name + ": " + error.what());
    }
    return range;
}

CurveSet readCurves(const std::string& path, const std::string& object, double seconds) {
    return AlembicCurves(path).read(object, seconds);
}

}  // namespace corvelle

#include "io/alembicWriter.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <set>

#include <Alembic/AbcCoreOgawa/All.h>
#include <Alembic/AbcGeom/All.h>

#include "model/utf8Path.h"
#include "io/alembicAttributes.h"
#include "model/parallel.h"

namespace corvelle {

namespace AbcG = Alembic::AbcGeom;

namespace {

constexpr std::int16_t kGroomVersionMajor = 1;
constexpr std::int16_t kGroomVersionMinor = 5;
constexpr std::uint64_t kGroomIdMask = 0x7fffffff;  ///< importers take ids as positive int32

/// Per-point floats of the groom layout and the channel (per point, else per strand) each comes
/// from.
struct FloatRow {
    const char* attribute;
    const char* channel;
};
constexpr FloatRow kRoughness{"groom_roughness", "roughness"};
constexpr FloatRow kIridescence{"groom_iridescence", "iridescence"};
constexpr FloatRow kOcclusion{"groom_ao", "ao"};

/// A name for an object: never empty, no slash.
std::string objectName(std::string name) {
    std::ranges::replace(name, '/', '_');
    return name.empty() ? "groom" : name;
}

template <class T, class Value>
std::vector<T> perStrand(const StrandSet& strands, const Value& value) {
    std::vector<T> out(strands.strandCount());
    parallelRange(0, out.size(), kChunkElements, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s) out[s] = T(value(s));
    });
    return out;
}

/// A value of each strand at all of its points.
template <class T>
std::vector<T> spreadOverPoints(const StrandSet& strands, std::span<const T> values) {
    std::vector<T> out(strands.pointCount());
    const auto offsets = strands.offsets();
    parallelRange(0, values.size(), kStrandGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t s = begin; s < end; ++s)
            std::fill(out.begin() + std::ptrdiff_t(offsets[s]),
                      out.begin() + std::ptrdiff_t(offsets[s + 1]), values[s]);
    });
    return out;
}

/// `values` times `scale`, in `scaled` unless the scale is 1.
template <class T>
std::span<const T> scaledBy(std::span<const T> values, float scale, std::vector<T>& scaled) {
    if (scale == 1.0f) return values;
    scaled.resize(values.size());
    parallelRange(0, values.size(), kChunkElements, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) scaled[i] = values[i] * scale;
    });
    return scaled;
}

/// Whole numbers as channels hold them; what is no number, or none that fits, is -1.
std::int32_t wholeOf(float value) {
    return value >= -2147483648.0f && value < 2147483648.0f ? std::int32_t(std::lrint(value)) : -1;
}

/// A file for the library to write to, which ends the process when a stream fails under one of its
/// destructors. This one never fails to its face: it takes all, and remembers.
class CarefulFile final : public std::streambuf {
public:
    bool open(const std::string& path) {
        buffer_.resize(kBufferBytes);
        file_.pubsetbuf(buffer_.data(), std::streamsize(buffer_.size()));
        return file_.open(utf8Path(path), std::ios::binary | std::ios::out | std::ios::trunc) !=
               nullptr;
    }
    /// What comes from here on is dropped, so that the file is never marked whole.
    void abandon() { good_ = false; }
    /// True when all that came is in the file.
    bool close() { return file_.close() != nullptr && good_; }

protected:
    std::streamsize xsputn(const char* bytes, std::streamsize count) override {
        if (good_) good_ = file_.sputn(bytes, count) == count;
        at_ += count;
        return count;
    }
    int_type overflow(int_type byte) override {
        const char one = traits_type::to_char_type(byte);
        if (!traits_type::eq_int_type(byte, traits_type::eof())) xsputn(&one, 1);
        return traits_type::not_eof(byte);
    }
    pos_type seekoff(off_type offset, std::ios::seekdir way, std::ios::openmode) override {
        if (way == std::ios::cur && offset == 0) return at_;
        end_ = std::max(end_, at_);
        at_ = way == std::ios::beg ? offset : way == std::ios::cur ? at_ + offset : end_ + offset;
        if (good_) good_ = file_.pubseekpos(at_, std::ios::out) == pos_type(at_);
        return at_;
    }
    pos_type seekpos(pos_type place, std::ios::openmode mode) override {
        return seekoff(off_type(place), std::ios::beg, mode);
    }
    int sync() override {
        if (good_) good_ = file_.pubsync() == 0;
        return 0;
    }

private:
    static constexpr std::size_t kBufferBytes = 1 << 20;
    std::vector<char> buffer_;
    std::filebuf file_;
    off_type at_ = 0, end_ = 0;
    bool good_ = true;
};

/// Some readers take an Xform without a sample for a broken one.
void writeIdentity(AbcG::OXform& xform) {
    AbcG::XformSample identity;
    xform.getSchema().set(identity);
}

}  // namespace

/// One curves object.
struct AlembicWriter::Object {
    std::string name;
    std::int32_t id = 0;
    bool guides = false;
    std::string groupName;
    AbcG::OCurves curves;
    AlembicAttributes attributes;
    bool hasUvs = false;

    Object(const AbcG::OObject& parent, const std::string& itsName, std::int32_t itsId,
           bool isGuides, std::string itsGroupName, bool withUvs, std::size_t framesBefore)
        : name(itsName),
          id(itsId),
          guides(isGuides),
          groupName(std::move(itsGroupName)),
          curves(parent, name),
          attributes(curves.getSchema().getArbGeomParams()),
          hasUvs(withUvs) {
        for (std::size_t i = 0; i < framesBefore; ++i) writeEmpty(1.0f);
    }

    void writeEmpty(float scale) {
        static const StrandSet none;
        writeCurves({.strands = &none}, scale);
        attributes.endSample({});
    }

    void writeCurves(const StrandFrame& frame, float scale) {
        const StrandSet& strands = *frame.strands;
        const std::size_t count = strands.strandCount();
        const auto offsets = strands.offsets();
        const std::vector<std::int32_t> counts = perStrand<std::int32_t>(
            strands, [&](std::size_t s) { return offsets[s + 1] - offsets[s]; });
        std::vector<Vec3f> scaledPoints;
        std::vector<float> scaledWidths;
        const auto points = scaledBy(strands.points(), scale, scaledPoints);
        const auto widths = scaledBy(strands.widths(), scale, scaledWidths);
        AbcG::OCurvesSchema::Sample sample;
        sample.setType(AbcG::kLinear);
        sample.setWrap(AbcG::kNonPeriodic);
        sample.setBasis(AbcG::kNoBasis);
        sample.setPositions(sampleOver<Alembic::Abc::P3fArraySample>(points));
        sample.setCurvesNumVertices(
            sampleOver<Alembic::Abc::Int32ArraySample>(std::span<const std::int32_t>(counts)));
        sample.setWidths({sampleOver<Alembic::Abc::FloatArraySample>(widths), AbcG::kVertexScope});
        std::vector<Vec2f> noUvs;
        if (hasUvs) {
            if (frame.rootUvs.empty()) noUvs.resize(count);
            const std::span<const Vec2f> uvs =
                frame.rootUvs.empty() ? std::span<const Vec2f>(noUvs) : frame.rootUvs;
            sample.setUVs({sampleOver<Alembic::Abc::V2fArraySample>(uvs), AbcG::kUniformScope});
        }
        curves.getSchema().set(sample);
    }

    void writePlainAttributes(const StrandFrame& frame) {
        attributes.write<AbcG::OUInt64GeomParam>("strandId", AbcG::kUniformScope,
                                                 frame.strands->ids());
    }

    void writeGroomAttributes(const StrandFrame& frame, float scale) {
        const StrandSet& strands = *frame.strands;
        const auto ids = strands.ids();
        const auto uniform = AbcG::kUniformScope;
        const auto vertex = AbcG::kVertexScope;
        const auto ints = [&](const char* attribute, const std::vector<std::int32_t>& values,
                              std::int32_t otherwise) {
            attributes.write<AbcG::OInt32GeomParam>(
                attribute, uniform, std::span<const std::int32_t>(values), otherwise);
        };
        ints("corvelle_strand_id_low",
             perStrand<std::int32_t>(
                 strands, [&](std::size_t s) { return std::int32_t(std::uint32_t(ids[s])); }),
             0);
        ints("corvelle_strand_id_high",
             perStrand<std::int32_t>(
                 strands, [&](std::size_t s) { return std::int32_t(std::uint32_t(ids[s] >> 32)); }),
             0);
        std::vector<float> scaledWidths;
        attributes.write<AbcG::OFloatGeomParam>("groom_width", vertex,
                                                scaledBy(strands.widths(), scale, scaledWidths));
        if (guides) {
            const std::vector<std::int16_t> marks(strands.strandCount(), 1);
            attributes.write<AbcG::OInt16GeomParam>("groom_guide", uniform,
                                                    std::span<const std::int16_t>(marks), 1);
        }
        if (!frame.rootUvs.empty())
            attributes.write<AbcG::OV2fGeomParam>("groom_root_uv", uniform, frame.rootUvs);
        if (!frame.pointColors.empty()) {
            writeColors(frame.pointColors);
        } else if (!frame.colors.empty()) {
            const std::vector<Vec3f> spread = spreadOverPoints(strands, frame.colors);
            writeColors(spread);
        }
        writeFloats(strands, kRoughness);
        if (const auto* clumps = strands.strandChannel("clumpId")) {
            const std::vector<std::int32_t> numbers = perStrand<std::int32_t>(
                strands, [&](std::size_t s) { return wholeOf((*clumps)[s]); });
            const std::int32_t none = wholeOf(strands.strandChannelDefault("clumpId"));
            ints("groom_clump_id", numbers, none);
            ints("groom_clumpid", numbers, none);
        }
        writeFloats(strands, kIridescence);
        writeFloats(strands, kOcclusion);
        ints("groom_id",
             perStrand<std::int32_t>(strands, [&](std::size_t s) { return ids[s] & kGroomIdMask; }),
             0);
        attributes.write<AbcG::OInt32GeomParam>("groom_group_id", AbcG::kConstantScope,
                                                std::span<const std::int32_t>(&id, 1), id);
        attributes.write<AbcG::OStringGeomParam>("groom_group_name", AbcG::kConstantScope,
                                                 std::span<const std::string>(&groupName, 1),
                                                 groupName);
        writeShares(frame);
    }

    void setTimeSampling(std::uint32_t index) {
        curves.getSchema().setTimeSampling(index);
        attributes.setTimeSampling(index);
    }

private:
    void writeColors(std::span<const Vec3f> colors) {
        attributes.write<AbcG::OV3fGeomParam>("groom_color", AbcG::kVertexScope, colors,
                                              {kNoColor.x, kNoColor.y, kNoColor.z});
    }

    void writeFloats(const StrandSet& strands, const FloatRow& row) {
        if (const auto* values = strands.pointChannel(row.channel)) {
            attributes.write<AbcG::OFloatGeomParam>(row.attribute, AbcG::kVertexScope,
                                                    std::span<const float>(*values),
                                                    strands.pointChannelDefault(row.channel));
        } else if (const auto* each = strands.strandChannel(row.channel)) {
            const std::vector<float> spread =
                spreadOverPoints(strands, std::span<const float>(*each));
            attributes.write<AbcG::OFloatGeomParam>(row.attribute, AbcG::kVertexScope,
                                                    std::span<const float>(spread),
                                                    strands.strandChannelDefault(row.channel));
        }
    }

    void writeShares(const StrandFrame& frame) {
        if (frame.shares.empty()) return;
        const std::size_t count = frame.shares.size();
        std::vector<std::int32_t> closest(3 * count);
        std::vector<float> weights(3 * count);
        parallelRange(0, count, kChunkElements, [&](std::size_t begin, std::size_t end) {
            for (std::size_t s = begin; s < end; ++s)
                for (std::size_t k = 0; k < 3; ++k) {
                    closest[3 * s + k] = std::int32_t(frame.shares[s].guides[k] & kGroomIdMask);
                    weights[3 * s + k] = frame.shares[s].weights[k];
                }
        });
        attributes.write<AbcG::OInt32GeomParam>("groom_closest_guides", AbcG::kUniformScope,
                                                std::span<const std::int32_t>(closest), 0, 3);
        attributes.write<AbcG::OFloatGeomParam>("groom_guide_weights", AbcG::kUniformScope,
                                                std::span<const float>(weights), 0.0f, 3);
    }
};

/// An open archive. Objects go before the archive that they belong to.
struct AlembicWriter::File {
    /// Plates: a mesh with samples and times of its own.
    struct Plates {
        AbcG::OXform xform;
        AbcG::OPolyMesh mesh;
        AlembicAttributes attributes;
        std::vector<double> times;
        bool hasUvs = false, hasNormals = false;
        Plates(const AbcG::OObject& parent, bool uvs, bool normals)
            : xform(parent, "scales"),
              mesh(xform, "scalesShape"),
              attributes(mesh.getSchema().getArbGeomParams()),
              hasUvs(uvs),
              hasNormals(normals) {
            writeIdentity(xform);
        }
    };

    std::string path;
    std::string name;
    double framesPerSecond = 24.0;
    float scale = 1.0f;
    CarefulFile disk;  ///< outlives the archive, which writes as it goes
    std::ostream stream{&disk};
    Alembic::Abc::OArchive archive;
    AbcG::OXform top;
    std::vector<std::unique_ptr<Object>> objects;
    std::set<std::string> names;  ///< taken below `top`
    std::vector<double> times;    ///< seconds of the frames written
    std::optional<bool> usesGroups;
    std::unique_ptr<Plates> plates;

    std::uint32_t timeSampling(const std::vector<double>& seconds) {
        if (seconds.empty()) return 0;
        if (seconds.size() == 1)
            return archive.addTimeSampling(
                Alembic::Abc::TimeSampling(1.0 / framesPerSecond, seconds[0]));
        const double step = (seconds.back() - seconds.front()) / double(seconds.size() - 1);
        bool even = true;
        for (std::size_t i = 0; i < seconds.size(); ++i)
            even = even && std::abs(seconds[i] - (seconds[0] + double(i) * step)) < 1e-6 * step;
        if (even) return archive.addTimeSampling(Alembic::Abc::TimeSampling(step, seconds[0]));
        return archive.addTimeSampling(Alembic::Abc::TimeSampling(
            Alembic::Abc::TimeSamplingType(Alembic::Abc::TimeSamplingType::kAcyclic), seconds));
    }
};

AlembicWriter::AlembicWriter(Layout layout) : layout_(layout) {}
AlembicWriter::~AlembicWriter() {
    if (file_) file_->disk.abandon();
}

AlembicWriter::File& AlembicWriter::opened() {
    if (!file_) throw AlembicError("writer is closed");
    return *file_;
}

void AlembicWriter::open(const std::string& path, const std::string& name, double framesPerSecond,
                         double scale, const std::string& application) {
    if (!(scale > 0.0) || !std::isfinite(scale)) throw AlembicError("the scale must be positive");
    if (!(framesPerSecond > 0.0) || !std::isfinite(framesPerSecond))
        throw AlembicError("the frame rate must be positive");
    if (file_) file_->disk.abandon();
    file_.reset();
    auto file = std::make_unique<File>();
    file->path = path;
    file->name = objectName(name);
    file->framesPerSecond = framesPerSecond;
    file->scale = float(scale);
    if (!file->disk.open(path)) throw AlembicError("cannot create '" + path + "'");
    try {
        // No date: the same frames make the same file.
        Alembic::Abc::MetaData about;
        about.set(Alembic::Abc::kApplicationNameKey, application);
        about.set(Alembic::Abc::kUserDescriptionKey, "Corvelle hair: Y up, centimetres");
        about.set(Alembic::Abc::kDCCFPSKey, std::to_string(framesPerSecond));
        file->archive = Alembic::Abc::OArchive(
            Alembic::AbcCoreOgawa::WriteArchive()(&file->stream, about),
            Alembic::Abc::kWrapExisting, Alembic::Abc::ErrorHandler::kThrowPolicy);
        file->top = AbcG::OXform(file->archive.getTop(), file->name);
        writeIdentity(file->top);
        if (layout_ == Layout::Groom) {
            const auto sign = [&](const Alembic::Abc::OCompoundProperty& properties) {
                Alembic::Abc::OInt16Property(properties, "groom_version_major")
                    .set(kGroomVersionMajor);
                Alembic::Abc::OInt16Property(properties, "groom_version_minor")
                    .set(kGroomVersionMinor);
                Alembic::Abc::OStringProperty(properties, "groom_tool").set(application);
            };
            sign(file->top.getSchema().getUserProperties());
            sign(file->archive.getTop().getProperties());
        }
    } catch (const std::exception&) {
        throw AlembicError("cannot create '" + path + "'");
    }
    file_ = std::move(file);
}

void AlembicWriter::writeOne(double frame, const StrandFrame& strands, const StrandFrame* guides) {
    const File& file = opened();
    std::vector<StrandGroup> groups = {{0, file.name, strands, false}};
    if (guides) groups.push_back({0, file.name, *guides, true});
    writeObjects(frame, groups, false);
}

void AlembicWriter::writeMany(double frame, std::span<const StrandGroup> groups) {
    opened();
    writeObjects(frame, groups, true);
}

AlembicWriter::Object& AlembicWriter::objectOf(const StrandGroup& group, bool grouped) {
    File& file = *file_;
    for (const auto& object : file.objects) {
        if (object->guides != group.guides) continue;
        if (layout_ == Layout::Groom ? object->id == group.id : object->groupName == group.name)
            return *object;
    }
    std::string wanted = group.guides ? "guides_" + std::to_string(group.id)
                         : grouped    ? objectName(group.name)
                                      : file.name + "Shape";
    std::string name = wanted;
    for (int i = 2; !file.names.insert(name).second; ++i) name = wanted + "_" + std::to_string(i);
    file.objects.push_back(std::make_unique<Object>(file.top, name, group.id, group.guides,
                                                    group.name, !group.frame.rootUvs.empty(),
                                                    file.times.size()));
    return *file.objects.back();
}

void AlembicWriter::writeObjects(double frame, std::span<const StrandGroup> groups, bool grouped) {
    File& file = opened();
    // All checks first: a frame that does not pass leaves no sample.
    const char* what = layout_ == Layout::Groom ? "groom was" : "strands were";
    if (file.usesGroups && *file.usesGroups != grouped)
        throw AlembicError("the " + std::string(what) +
                           (grouped ? " written without groups" : " written in groups"));
    const double seconds = frame / file.framesPerSecond;
    if (!std::isfinite(seconds) || (!file.times.empty() && !(seconds > file.times.back())))
        throw AlembicError("frames must increase");
    std::set<std::pair<bool, std::int32_t>> ids;
    std::set<std::string> groupNames;
    for (const StrandGroup& group : groups) {
        if (layout_ == Layout::Groom && !ids.insert({group.guides, group.id}).second)
            throw AlembicError("two groups with the id " + std::to_string(group.id));
        if (layout_ == Layout::Plain && !groupNames.insert(group.name).second)
            throw AlembicError("two groups named '" + group.name + "'");
        if (const std::string fault = faultOf(group.frame); !fault.empty())
            throw AlembicError(fault);
        const auto offsets = group.frame.strands->offsets();
        for (std::size_t s = 1; s < offsets.size(); ++s)
            if (offsets[s] - offsets[s - 1] < 2)
                throw AlembicError("strands need at least 2 points");
    }
    try {
        file.usesGroups = grouped;
        if (file.names.empty()) file.names.insert("scales");
        for (const StrandGroup& group : groups) {
            Object& object = objectOf(group, grouped);
            object.writeCurves(group.frame, file.scale);
            if (layout_ == Layout::Groom)
                object.writeGroomAttributes(group.frame, file.scale);
            else
                object.writePlainAttributes(group.frame);
            object.attributes.endSample(
                {group.frame.strands->strandCount(), group.frame.strands->pointCount()});
        }
        file.times.push_back(seconds);
        for (const auto& object : file.objects)
            if (object->attributes.samples() < file.times.size()) object->writeEmpty(file.scale);
    } catch (const std::exception& error) {
        throw AlembicError(std::string("cannot write frame: ") + error.what());
    }
}

void AlembicWriter::writeScales(double frame, const ScaleMesh& scales) {
    File& file = opened();
    try {
        const MeshView& mesh = scales.mesh;
        if (const std::string fault = faultOf({.mesh = scales}); !fault.empty())
            throw AlembicError(fault);
        const double seconds = frame / file.framesPerSecond;
        if (!std::isfinite(seconds) ||
            (file.plates && !file.plates->times.empty() && !(seconds > file.plates->times.back())))
            throw AlembicError("frames must increase");
        if (!file.plates)
            file.plates =
                std::make_unique<File::Plates>(file.top, !mesh.uvs.empty(), !mesh.normals.empty());
        File::Plates& plates = *file.plates;

        // Alembic winds faces clockwise.
        std::vector<std::int32_t> indices(mesh.faceVertexIndices.begin(),
                                          mesh.faceVertexIndices.end());
        std::size_t at = 0;
        for (const std::int32_t count : mesh.faceVertexCounts) {
            std::reverse(indices.begin() + std::ptrdiff_t(at),
                         indices.begin() + std::ptrdiff_t(at + count));
            at += std::size_t(count);
        }
        std::vector<Vec3f> scaledPoints;
        AbcG::OPolyMeshSchema::Sample sample;
        sample.setPositions(sampleOver<Alembic::Abc::P3fArraySample>(
            scaledBy(mesh.points, file.scale, scaledPoints)));
        sample.setFaceIndices(
            sampleOver<Alembic::Abc::Int32ArraySample>(std::span<const std::int32_t>(indices)));
        sample.setFaceCounts(sampleOver<Alembic::Abc::Int32ArraySample>(mesh.faceVertexCounts));
        std::vector<Vec3f> normals;
        if (plates.hasNormals) {
            normals.assign(mesh.normals.begin(), mesh.normals.end());
            normals.resize(mesh.points.size());
            sample.setNormals(
                {sampleOver<Alembic::Abc::N3fArraySample>(std::span<const Vec3f>(normals)),
                 AbcG::kVertexScope});
        }
        std::vector<Vec2f> uvs;
        if (plates.hasUvs) {
            uvs.resize(indices.size());
            if (!mesh.uvs.empty())
                for (std::size_t i = 0; i < uvs.size(); ++i)
                    uvs[i] = mesh.uvs[std::size_t(indices[i])];
            sample.setUVs({sampleOver<Alembic::Abc::V2fArraySample>(std::span<const Vec2f>(uvs)),
                           AbcG::kFacevaryingScope});
        }
        plates.mesh.getSchema().set(sample);

        const ScaleLook& look = scales.look;
        const auto uniform = AbcG::kUniformScope;
        const Alembic::Abc::C3f grey(kNoColor.x, kNoColor.y, kNoColor.z);
        if (!look.color.empty())
            plates.attributes.write<AbcG::OC3fGeomParam>("scaleColor", uniform, look.color, grey);
        if (!look.rootColor.empty())
            plates.attributes.write<AbcG::OC3fGeomParam>("scaleRootColor", uniform, look.rootColor,
                                                         grey);
        if (!look.id.empty())
            plates.attributes.write<AbcG::OFloatGeomParam>("scaleId", uniform, look.id);
        if (!look.uv.empty())
            plates.attributes.write<AbcG::OV2fGeomParam>("scaleUV", uniform, look.uv);
        if (!look.variant.empty())
            plates.attributes.write<AbcG::OInt32GeomParam>("scaleVariant", uniform, look.variant);
        plates.attributes.endSample({mesh.faceVertexCounts.size(), mesh.points.size()});
        plates.times.push_back(seconds);
    } catch (const std::exception& error) {
        throw AlembicError(std::string("cannot write the scales: ") + error.what());
    }
}

void AlembicWriter::close() {
    if (!file_) return;
    const std::unique_ptr<File> file = std::move(file_);
    const std::string path = file->path;
    try {
        if (!file->times.empty()) {
            const std::uint32_t index = file->timeSampling(file->times);
            for (const auto& object : file->objects) object->setTimeSampling(index);
        }
        if (file->plates) {
            const std::uint32_t index = file->timeSampling(file->plates->times);
            file->plates->mesh.getSchema().setTimeSampling(index);
            file->plates->attributes.setTimeSampling(index);
        }
        // Each writes what is left of it as it goes: objects, then what holds them.
        file->plates.reset();
        file->objects.clear();
        file->top.reset();
        file->archive.reset();
    } catch (const std::exception& error) {
        throw AlembicError("cannot write '" + path + "': " + error.what());
    }
    if (!file->disk.close()) throw AlembicError("cannot write '" + path + "'");
}

}  // namespace corvelle

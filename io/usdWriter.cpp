#include "io/usdWriter.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "model/utf8Path.h"
#include "io/usdText.h"
#include "model/parallel.h"

namespace corvelle {

namespace {

constexpr std::size_t kChunk = 16384;        ///< elements one task makes text of
constexpr std::size_t kBatch = 1'048'576;    ///< elements whose text is held at once
constexpr std::size_t kCopyBytes = 1 << 20;  ///< of a spool at a time
constexpr const char* kVertex = "interpolation = \"vertex\"";
constexpr const char* kUniform = "interpolation = \"uniform\"";
constexpr const char* kNone = "";

/// Primvars that the writer makes itself: channels of these names get another one.
const std::set<std::string, std::less<>> kReserved = {"strandId", "strandIdLow",  "strandIdHigh",
                                                      "st",       "displayColor", "displayOpacity",
                                                      "widths",   "normals"};

template <class T>
std::string listText(std::span<const T> values) {
    std::string out = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) out += ", ";
        appendUsd(out, values[i]);
    }
    return out + "]";
}

struct Box {
    Vec3f lo{3.4028235e38f, 3.4028235e38f, 3.4028235e38f};
    Vec3f hi{-3.4028235e38f, -3.4028235e38f, -3.4028235e38f};
    void add(Vec3f p) {
        lo = componentMin(lo, p);
        hi = componentMax(hi, p);
    }
};

Box boxOf(std::span<const Vec3f> points) {
    Box box;
    for (const Vec3f& p : points) box.add(p);
    return box;
}

/// v turned by the rotation (w, x, y, z), which need not be unit.
Vec3f turned(const std::array<float, 4>& q, Vec3f v) {
    const Vec3f axis{q[1], q[2], q[3]};
    const float squares = q[0] * q[0] + lengthSquared(axis);
    if (!(squares > 0.0f) || !std::isfinite(squares)) return v;
    const Vec3f across = cross(axis, v);
    return v + (across * q[0] + cross(axis, across)) * (2.0f / squares);
}

/// A mesh as the lines of a prototype, at sixteen blanks.
std::string meshBlock(const MeshView& mesh, const Box& box) {
    const std::string blanks(16, ' ');
    std::string out = blanks + "uniform token subdivisionScheme = \"none\"\n";
    out += blanks + "int[] faceVertexCounts = " + listText(mesh.faceVertexCounts) + "\n";
    out += blanks + "int[] faceVertexIndices = " + listText(mesh.faceVertexIndices) + "\n";
    out += blanks + "point3f[] points = " + listText(mesh.points) + "\n";
    const Vec3f corners[] = {box.lo, box.hi};
    out += blanks + "float3[] extent = " + listText(std::span<const Vec3f>(corners)) + "\n";
    const std::string vertex = " (\n" + blanks + "    " + kVertex + "\n" + blanks + ")\n";
    if (!mesh.normals.empty())
        out += blanks + "normal3f[] normals = " + listText(mesh.normals) + vertex;
    if (!mesh.uvs.empty())
        out += blanks + "texCoord2f[] primvars:st = " + listText(mesh.uvs) + vertex;
    return out;
}

}  // namespace

UsdWriter::UsdWriter(std::string path, UsdOptions options)
    : path_(std::move(path)),
      options_(std::move(options)),
      root_(usdIdentifier(options_.rootName)) {}

UsdWriter::~UsdWriter() {
    if (!closed_) removeSpools();
}

void UsdWriter::removeSpools() {
    for (Attribute& attribute : attributes_) {
        attribute.spool.close();
        std::error_code ignored;
        std::filesystem::remove(utf8Path(attribute.spoolPath), ignored);
    }
}

std::ofstream UsdWriter::openForWriting(const std::string& path) const {
    std::ofstream out(utf8Path(path), std::ios::binary | std::ios::trunc);
    if (!out) throw UsdError("cannot write '" + path + "'");
    return out;
}

UsdWriter::Attribute& UsdWriter::nextAttribute(const std::string& declaration,
                                               const char* interpolation) {
    if (frameCount_ == 0) {
        Attribute fresh{
            declaration, interpolation, path_ + ".spool" + std::to_string(attributes_.size()), {}};
        fresh.spool = openForWriting(fresh.spoolPath);
        attributes_.push_back(std::move(fresh));
    }
    return attributes_[cursor_++];
}

template <class Element>
void UsdWriter::sample(const std::string& declaration, const char* interpolation, std::size_t count,
                       const Element& element) {
    Attribute& attribute = nextAttribute(declaration, interpolation);
    std::ofstream& out = attribute.spool;
    out << "        " << timeText_ << ": [";
    for (std::size_t batch = 0; batch < count; batch += kBatch) {
        const std::size_t end = std::min(count, batch + kBatch);
        const std::size_t chunks = (end - batch + kChunk - 1) / kChunk;
        if (pieces_.size() < chunks) pieces_.resize(chunks);
        parallelRange(0, chunks, 1, [&](std::size_t first, std::size_t last) {
            for (std::size_t c = first; c < last; ++c) {
                std::string& text = pieces_[c];
                text.clear();
                const std::size_t from = batch + c * kChunk;
                for (std::size_t i = from; i < std::min(end, from + kChunk); ++i) {
                    if (i > 0) text += ", ";
                    element(text, i);
                }
            }
        });
        for (std::size_t c = 0; c < chunks; ++c)
            out.write(pieces_[c].data(), std::streamsize(pieces_[c].size()));
    }
    out << "],\n";
    if (!out) throw UsdError("cannot write '" + attribute.spoolPath + "'");
}

template <class T>
void UsdWriter::sampleOf(const std::string& declaration, const char* interpolation,
                         std::span<const T> values) {
    sample(declaration, interpolation, values.size(),
           [&](std::string& out, std::size_t i) { appendUsd(out, values[i]); });
}

void UsdWriter::chooseAttributes(const StrandFrame& frame, const InstancesFrame* instances,
                                 const ScalesFrame* scales) {
    hasUvs_ = !frame.rootUvs.empty();
    hasColors_ = !frame.colors.empty();
    hasInstances_ = instances != nullptr;
    strandsInvisible_ = instances && instances->carriersOnly;
    hasScaleMesh_ = scales && scales->mesh;
    hasScaleInstances_ = scales && scales->instances;

    const StrandSet& strands = *frame.strands;
    std::set<std::string, std::less<>> taken = kReserved;
    channels_.clear();
    const auto add = [&](const std::string& channel, const std::string& name, float otherwise,
                         bool perPoint) {
        channels_.push_back(
            {channel, "float[] primvars:" + usdIdentifier(name, taken), otherwise, perPoint});
    };
    for (const auto& [name, channel] : strands.strandChannels())
        if (!name.starts_with('_'))
            add(name, strands.pointChannel(name) ? name + "_strand" : name, channel.defaultValue,
                false);
    for (const auto& [name, channel] : strands.pointChannels())
        if (!name.starts_with('_')) add(name, name, channel.defaultValue, true);
}

void UsdWriter::writeFrame(double time, const StrandFrame& strands, const InstancesFrame* instances,
                           const ScalesFrame* scales) {
    if (closed_) throw UsdError("writeFrame after close");
    if (broken_) throw UsdError("cannot write '" + path_ + "'");
    if (!std::isfinite(time)) throw UsdError("frame times must be finite");
    if (frameCount_ > 0 && !(time > lastTime_)) throw UsdError("frames must increase");
    for (const std::string& fault :
         {faultOf(strands), instances ? faultOf(*instances) : "", scales ? faultOf(*scales) : ""})
        if (!fault.empty()) throw UsdError(fault);

    timeText_.clear();
    appendUsd(timeText_, time);
    cursor_ = 0;
    static const InstancesFrame noInstances;
    static const ScaleMesh noMesh;
    static const ScaleInstances noScales;
    broken_ = true;  // until all of the frame is in the spools
    try {
        if (frameCount_ == 0) chooseAttributes(strands, instances, scales);
        writeStrandSamples(strands);
        strandEnd_ = cursor_;
        if (hasInstances_) writeInstanceSamples(instances ? *instances : noInstances, instances_);
        instanceEnd_ = cursor_;
        if (hasScaleMesh_) writeScaleSamples(scales && scales->mesh ? *scales->mesh : noMesh);
        scaleEnd_ = cursor_;
        if (hasScaleInstances_) {
            const ScaleInstances& rigid =
                scales && scales->instances ? *scales->instances : noScales;
            writeInstanceSamples(rigid.instances, scaleInstances_);
            writeScaleLook(rigid.look, rigid.instances.positions.size(), kVertex, false);
        }
    } catch (...) {
        if (frameCount_ == 0) {  // nothing was written yet: it may be tried again
            removeSpools();
            attributes_.clear();
            broken_ = false;
        }
        throw;
    }
    broken_ = false;
    if (frameCount_++ == 0) firstTime_ = time;
    lastTime_ = time;
}

void UsdWriter::writeStrandSamples(const StrandFrame& frame) {
    const StrandSet& strands = *frame.strands;
    const std::size_t count = strands.strandCount();
    const auto offsets = strands.offsets();
    const auto ids = strands.ids();
    sample("int[] curveVertexCounts", kNone, count, [&](std::string& out, std::size_t s) {
        appendUsd(out, std::int64_t(offsets[s + 1] - offsets[s]));
    });
    sampleOf("point3f[] points", kNone, strands.points());
    const StrandSet::Extent extent = strands.extent();
    const Vec3f corners[] = {extent.min, extent.max};
    sampleOf("float3[] extent", kNone, std::span<const Vec3f>(corners));
    sampleOf("float[] widths", kVertex, strands.widths());
    // Readers take no value above 2^63: the id's bits as a signed number. Some drop 64 bits whole.
    sample("int64[] primvars:strandId", kUniform, count,
           [&](std::string& out, std::size_t s) { appendUsd(out, std::int64_t(ids[s])); });
    sample("int[] primvars:strandIdLow", kUniform, count, [&](std::string& out, std::size_t s) {
        appendUsd(out, std::int32_t(std::uint32_t(ids[s])));
    });
    sample("int[] primvars:strandIdHigh", kUniform, count, [&](std::string& out, std::size_t s) {
        appendUsd(out, std::int32_t(std::uint32_t(ids[s] >> 32)));
    });
    if (hasUvs_)
        sample("texCoord2f[] primvars:st", kUniform, count, [&](std::string& out, std::size_t s) {
            appendUsd(out, frame.rootUvs.empty() ? Vec2f{} : frame.rootUvs[s]);
        });
    if (hasColors_) writeColors("displayColor", kUniform, frame.colors, count);
    for (const ChannelColumn& column : channels_) {
        const auto* values = column.perPoint ? strands.pointChannel(column.channel)
                                             : strands.strandChannel(column.channel);
        sample(column.declaration, column.perPoint ? kVertex : kUniform,
               column.perPoint ? strands.pointCount() : count,
               [&](std::string& out, std::size_t i) {
                   appendUsd(out, values ? (*values)[i] : column.otherwise);
               });
    }
}

void UsdWriter::writeColors(const char* name, const char* interpolation,
                            std::span<const Vec3f> colors, std::size_t count) {
    sample(std::string("color3f[] primvars:") + name, interpolation, count,
           [&](std::string& out, std::size_t i) {
               appendUsd(out, colors.empty() ? kNoColor : colors[i]);
           });
}

void UsdWriter::writeInstanceSamples(const InstancesFrame& frame, Prototypes& prototypes) {
    std::vector<std::size_t> number(frame.prototypes.size());  // of each in the layer
    for (std::size_t p = 0; p < number.size(); ++p) {
        const Prototype& given = frame.prototypes[p];
        const auto [known, fresh] =
            prototypes.byName.try_emplace(given.name, prototypes.entries.size());
        number[p] = known->second;
        if (!fresh) continue;
        const Box box = given.mesh ? boxOf(given.mesh->points) : Box{};
        prototypes.entries.push_back({given.name, usdIdentifier(given.name, prototypes.taken),
                                      given.mesh ? meshBlock(*given.mesh, box) : "", box.lo,
                                      box.hi});
    }
    const std::size_t count = frame.positions.size();
    sample("int[] protoIndices", kNone, count, [&](std::string& out, std::size_t i) {
        appendUsd(out, std::int64_t(number[std::size_t(frame.protoIndices[i])]));
    });
    sampleOf("point3f[] positions", kNone, frame.positions);
    sample("quath[] orientations", kNone, count,
           [&](std::string& out, std::size_t i) { appendUsdRotation(out, frame.orientations[i]); });
    sampleOf("float3[] scales", kNone, frame.scales);
    Box box;
    for (std::size_t i = 0; i < count; ++i) {
        const auto& entry = prototypes.entries[number[std::size_t(frame.protoIndices[i])]];
        if (entry.lo.x > entry.hi.x) {
            box.add(frame.positions[i]);
            continue;
        }
        for (int corner = 0; corner < 8; ++corner) {
            const Vec3f p{corner & 1 ? entry.hi.x : entry.lo.x,
                          corner & 2 ? entry.hi.y : entry.lo.y,
                          corner & 4 ? entry.hi.z : entry.lo.z};
            box.add(frame.positions[i] + turned(frame.orientations[i], p * frame.scales[i]));
        }
    }
    const Vec3f corners[] = {box.lo, box.hi};
    sampleOf("float3[] extent", kNone, std::span<const Vec3f>(corners));
}

void UsdWriter::writeScaleSamples(const ScaleMesh& frame) {
    const MeshView& mesh = frame.mesh;
    sampleOf("int[] faceVertexCounts", kNone, mesh.faceVertexCounts);
    sampleOf("int[] faceVertexIndices", kNone, mesh.faceVertexIndices);
    sampleOf("point3f[] points", kNone, mesh.points);
    const Box box = boxOf(mesh.points);
    const Vec3f corners[] = {box.lo, box.hi};
    sampleOf("float3[] extent", kNone, std::span<const Vec3f>(corners));
    const std::size_t points = mesh.points.size();
    sample("normal3f[] normals", kVertex, points, [&](std::string& out, std::size_t i) {
        appendUsd(out, mesh.normals.empty() ? Vec3f{} : mesh.normals[i]);
    });
    sample("texCoord2f[] primvars:st", kVertex, points, [&](std::string& out, std::size_t i) {
        appendUsd(out, mesh.uvs.empty() ? Vec2f{} : mesh.uvs[i]);
    });
    writeColors("displayColor", kVertex, frame.colors, points);
    writeScaleLook(frame.look, mesh.faceVertexCounts.size(), kUniform, true);
}

void UsdWriter::writeScaleLook(const ScaleLook& look, std::size_t count, const char* interpolation,
                               bool rootColor) {
    writeColors("scaleColor", interpolation, look.color, count);
    if (rootColor) writeColors("scaleRootColor", interpolation, look.rootColor, count);
    const auto orDefaults = [&]<class T>(const char* declaration, std::span<const T> values) {
        sample(declaration, interpolation, count, [&](std::string& out, std::size_t i) {
            appendUsd(out, values.empty() ? T{} : values[i]);
        });
    };
    orDefaults("float[] primvars:scaleId", look.id);
    orDefaults("float2[] primvars:scaleUV", look.uv);
    orDefaults("int[] primvars:scaleVariant", look.variant);
}

void UsdWriter::layerHead(std::ostream& out) const {
    const auto number = [](double value) {
        std::string text;
        appendUsd(text, value);
        return text;
    };
    std::string doc = "Corvelle " + options_.version;
    if (!options_.source.empty()) doc += ": " + options_.source;
    out << "#usda 1.0\n(\n    defaultPrim = \"" << root_ << "\"\n"
        << "    doc = " << usdQuoted(doc) << "\n";
    if (frameCount_ > 0)
        out << "    startTimeCode = " << number(firstTime_)
            << "\n    endTimeCode = " << number(lastTime_) << "\n";
    const std::string rate = number(options_.framesPerSecond);
    out << "    framesPerSecond = " << rate << "\n    timeCodesPerSecond = " << rate
        << "\n    metersPerUnit = " << number(options_.metersPerUnit)
        << "\n    upAxis = " << usdQuoted(options_.upAxis) << "\n)\n\n"
        << "def Xform \"" << root_ << "\" (\n    kind = \"component\"\n)\n{\n";
}

void UsdWriter::attributeBlocks(std::ostream& out, std::size_t begin, std::size_t end) {
    std::vector<char> buffer(kCopyBytes);
    for (std::size_t i = begin; i < end; ++i) {
        Attribute& attribute = attributes_[i];
        attribute.spool.close();
        if (!attribute.spool) throw UsdError("cannot write '" + attribute.spoolPath + "'");
        if (!attribute.metadata.empty())
            out << "        " << attribute.declaration << " (\n            " << attribute.metadata
                << "\n        )\n";
        out << "        " << attribute.declaration << ".timeSamples = {\n";
        std::ifstream in(utf8Path(attribute.spoolPath), std::ios::binary);
        if (!in) throw UsdError("cannot read '" + attribute.spoolPath + "'");
        while (in.read(buffer.data(), std::streamsize(buffer.size())) || in.gcount() > 0)
            out.write(buffer.data(), in.gcount());
        out << "        }\n";
    }
}

void UsdWriter::instancerPrim(std::ostream& out, const char* name, const Prototypes& prototypes,
                              std::size_t begin, std::size_t end) {
    out << "\n    def PointInstancer \"" << name << "\"\n    {\n        rel prototypes = [";
    const char* separator = "";
    for (const auto& entry : prototypes.entries) {
        out << separator << "</" << root_ << "/" << name << "/prototypes/" << entry.identifier
            << ">";
        separator = ", ";
    }
    out << "]\n";
    attributeBlocks(out, begin, end);
    out << "\n        def Scope \"prototypes\"\n        {\n";
    for (const auto& entry : prototypes.entries) {
        const std::string doc = "Corvelle prototype '" + entry.name + "'";
        const bool empty = entry.block.empty();
        out << "            def " << (empty ? "Xform" : "Mesh") << " \"" << entry.identifier
            << "\" (\n"
            << "                doc = "
            << usdQuoted(empty ? doc + ": reference its geometry here" : doc) << "\n            )\n"
            << "            {\n"
            << entry.block << "            }\n";
    }
    out << "        }\n    }\n";
}

void UsdWriter::close() {
    if (closed_) return;
    closed_ = true;  // whatever happens, the spools stay as they are
    if (broken_) throw UsdError("cannot write '" + path_ + "'");
    std::ofstream out = openForWriting(path_);
    layerHead(out);
    out << "    def BasisCurves \"strands\"\n    {\n        uniform token type = \"linear\"\n"
           "        uniform token wrap = \"nonperiodic\"\n";
    if (strandsInvisible_) out << "        token visibility = \"invisible\"\n";
    attributeBlocks(out, 0, strandEnd_);
    out << "    }\n";
    if (hasInstances_) instancerPrim(out, "instances", instances_, strandEnd_, instanceEnd_);
    if (hasScaleMesh_) {
        out << "\n    def Mesh \"scales\"\n    {\n        uniform token subdivisionScheme = "
               "\"none\"\n";
        attributeBlocks(out, instanceEnd_, scaleEnd_);
        out << "    }\n";
    }
    if (hasScaleInstances_)
        instancerPrim(out, "scaleInstances", scaleInstances_, scaleEnd_, attributes_.size());
    out << "}\n";
    out.close();
    if (!out) throw UsdError("cannot write '" + path_ + "'");
    removeSpools();
}

}  // namespace corvelle

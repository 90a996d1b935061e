#include "io/exportFrame.h"

#include <algorithm>

namespace corvelle {

namespace {

template <class T>
std::string fitting(const char* what, std::span<const T> values, std::size_t wanted) {
    if (values.empty() || values.size() == wanted) return {};
    return std::string(what) + ": " + std::to_string(values.size()) + " values for " +
           std::to_string(wanted);
}

std::string firstOf(std::initializer_list<std::string> faults) {
    for (const std::string& fault : faults)
        if (!fault.empty()) return fault;
    return {};
}

std::string faultOf(const ScaleLook& look, std::size_t count) {
    return firstOf({fitting("scale colors", look.color, count),
                    fitting("scale root colors", look.rootColor, count),
                    fitting("scale ids", look.id, count), fitting("scale uvs", look.uv, count),
                    fitting("scale variants", look.variant, count)});
}

}  // namespace

std::string faultOf(const StrandFrame& frame) {
    if (!frame.strands) return "no strands were given";
    const std::size_t strands = frame.strands->strandCount();
    return firstOf({fitting("root uvs", frame.rootUvs, strands),
                    fitting("colors", frame.colors, strands),
                    fitting("point colors", frame.pointColors, frame.strands->pointCount()),
                    fitting("guide shares", frame.shares, strands)});
}

std::string faultOf(const MeshView& mesh) {
    std::int64_t corners = 0;
    for (const std::int32_t count : mesh.faceVertexCounts) {
        if (count < 3) return "a face has " + std::to_string(count) + " corners";
        corners += count;
    }
    if (corners != std::int64_t(mesh.faceVertexIndices.size()))
        return "the faces have " + std::to_string(corners) + " corners, not the " +
               std::to_string(mesh.faceVertexIndices.size()) + " given";
    for (const std::int32_t index : mesh.faceVertexIndices)
        if (index < 0 || std::size_t(index) >= mesh.points.size())
            return "face index " + std::to_string(index) + " is out of range";
    return firstOf({fitting("normals", mesh.normals, mesh.points.size()),
                    fitting("uvs", mesh.uvs, mesh.points.size())});
}

std::string faultOf(const InstancesFrame& frame) {
    const std::size_t count = frame.positions.size();
    if (frame.protoIndices.size() != count || frame.orientations.size() != count ||
        frame.scales.size() != count)
        return "instances: prototypes, positions, orientations and scales differ in number";
    for (const std::int32_t index : frame.protoIndices)
        if (index < 0 || std::size_t(index) >= frame.prototypes.size())
            return "prototype index " + std::to_string(index) + " is out of range";
    for (const Prototype& prototype : frame.prototypes)
        if (prototype.mesh)
            if (std::string fault = faultOf(*prototype.mesh); !fault.empty())
                return "prototype '" + prototype.name + "': " + fault;
    return {};
}

std::string faultOf(const ScalesFrame& frame) {
    if (frame.mesh) {
        const ScaleMesh& scales = *frame.mesh;
        std::string fault = firstOf({faultOf(scales.mesh),
                                     fitting("colors", scales.colors, scales.mesh.points.size()),
                                     faultOf(scales.look, scales.mesh.faceVertexCounts.size())});
        if (!fault.empty()) return fault;
    }
    if (!frame.instances) return {};
    return firstOf({faultOf(frame.instances->instances),
                    faultOf(frame.instances->look, frame.instances->instances.positions.size())});
}

}  // namespace corvelle

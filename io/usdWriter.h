#pragma once

#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "io/exportFrame.h"

namespace corvelle {

/// A USD layer that cannot be written. The text is for the user.
struct UsdError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct UsdOptions {
    std::string rootName = "groom";  ///< made an identifier
    double framesPerSecond = 24.0;
    double metersPerUnit = 0.01;  ///< groom space is centimetres
    std::string upAxis = "Y";
    std::string source;   ///< what host wrote it; goes into the layer's doc
    std::string version;  ///< of the program, likewise
};

/// Writes a run of frames as one USD text layer with time samples: BasisCurves "strands", and where
/// the first frame has them PointInstancer "instances", Mesh "scales" and PointInstancer
/// "scaleInstances".
///
/// A layer holds each attribute's samples together while frames come one by one, so every attribute
/// has a spool file ("<path>.spool<n>") until `close` puts them together. Memory does not grow with
/// the frames. The first frame fixes the attributes; what a later frame lacks is written as its
/// default (a channel's own, grey for colours), what it has beyond is left out.
/// The same frames give the same bytes at any thread count.
/// Throws UsdError "cannot write '<path>'", "frames must increase", "writeFrame after close", or
/// what of a frame does not fit together; the last three leave nothing of the frame.
class UsdWriter {
public:
    UsdWriter(std::string path, UsdOptions options = {});
    /// A writer that was not closed removes its spools.
    ~UsdWriter();
    UsdWriter(const UsdWriter&) = delete;
    UsdWriter& operator=(const UsdWriter&) = delete;

    /// `time` is a time code: a frame number.
    void writeFrame(double time, const StrandFrame& strands,
                    const InstancesFrame* instances = nullptr, const ScalesFrame* scales = nullptr);
    /// Puts the layer together and removes the spools; a failed one leaves them. A second call does
    /// nothing.
    void close();
    std::uint64_t frameCount() const { return frameCount_; }

private:
    struct Attribute {
        std::string declaration;  ///< "point3f[] points"
        std::string metadata;     ///< "interpolation = \"vertex\"", or empty
        std::string spoolPath;
        std::ofstream spool;
    };
    /// A channel that the first frame had.
    struct ChannelColumn {
        std::string channel;
        std::string declaration;
        float otherwise = 0.0f;
        bool perPoint = false;
    };
    /// The prototypes of one PointInstancer, in the order in which frames brought them.
    struct Prototypes {
        struct Entry {
            std::string name, identifier, block;
            Vec3f lo, hi;  ///< box of its points; lo above hi: it has none
        };
        std::vector<Entry> entries;
        std::map<std::string, std::size_t> byName;
        std::set<std::string, std::less<>> taken;
    };

    void chooseAttributes(const StrandFrame& strands, const InstancesFrame* instances,
                          const ScalesFrame* scales);
    void writeStrandSamples(const StrandFrame& strands);
    void writeInstanceSamples(const InstancesFrame& frame, Prototypes& prototypes);
    void writeScaleSamples(const ScaleMesh& frame);
    void writeScaleLook(const ScaleLook& look, std::size_t count, const char* interpolation,
                        bool rootColor);
    void writeColors(const char* name, const char* interpolation, std::span<const Vec3f> colors,
                     std::size_t count);

    /// One sample of the next attribute in order; the first frame makes them. `element(out, i)`
    /// appends element i. Large arrays are made in parallel.
    template <class Element>
    void sample(const std::string& declaration, const char* interpolation, std::size_t count,
                const Element& element);
    template <class T>
    void sampleOf(const std::string& declaration, const char* interpolation,
                  std::span<const T> values);
    Attribute& nextAttribute(const std::string& declaration, const char* interpolation);
    std::ofstream openForWriting(const std::string& path) const;

    void layerHead(std::ostream& out) const;
    void attributeBlocks(std::ostream& out, std::size_t begin, std::size_t end);
    void instancerPrim(std::ostream& out, const char* name, const Prototypes& prototypes,
                       std::size_t begin, std::size_t end);
    void removeSpools();

    std::string path_;
    UsdOptions options_;
    std::string root_;  ///< `rootName` as an identifier
    std::vector<Attribute> attributes_;
    std::size_t cursor_ = 0;  ///< next attribute of the frame under way
    std::size_t strandEnd_ = 0, instanceEnd_ = 0, scaleEnd_ = 0;  ///< ends of the prims' ranges
    std::vector<ChannelColumn> channels_;
    bool hasUvs_ = false, hasColors_ = false;
    bool hasInstances_ = false, hasScaleMesh_ = false, hasScaleInstances_ = false;
    bool strandsInvisible_ = false;
    Prototypes instances_, scaleInstances_;
    std::uint64_t frameCount_ = 0;
    double firstTime_ = 0.0, lastTime_ = 0.0;
    bool closed_ = false, broken_ = false;
    std::string timeText_;
    std::vector<std::string> pieces_;  ///< texts of the chunks of a batch, their memory kept
};

}  // namespace corvelle

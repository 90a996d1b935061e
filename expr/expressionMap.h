#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "expr/namedMap.h"
#include "model/scalpMesh.h"
#include "model/strandSet.h"

namespace corvelle {

struct ExpressionError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// What an expression can see beside the strands.
struct ExpressionEnvironment {
    /// The map of a name; null when there is none; throws ExpressionError "map("<name>"): <why>"
    /// for one that is there but unfit. Absent: no maps at all.
    std::function<NamedMapPtr(const std::string&)> findMap;
    std::uint64_t mapsHash = 0;  ///< of all that findMap can give, for the hashes of callers
    ScalpPtr scalp;              ///< for normals and UVs at roots; may be null
    double frame = 0.0;
    double time = 0.0;  ///< seconds
    /// `$` names given by the Expression node: numbers and vectors.
    std::map<std::string, std::variant<float, Vec3f>> variables;
};

struct ExpressionProgram;
class ExpressionMap;
using ExpressionPtr = std::shared_ptr<const ExpressionMap>;

/// A compiled expression: a flat list of stack-machine operations, immutable and shared between
/// threads. No value can trap: division by 0 gives 0, and so does any result that is not finite.
///
/// Variables per strand: u, v (the scalp's UVs at the root, else 0), x, y, z (the root), nx, ny, nz
/// (the scalp's normal there, else the first segment's direction), rand (by id), index, length,
/// longest (among the strands every preview holds), reach (root to tip), straightness (reach over
/// length), lift (of the direction to the tip, along N), tipx, tipy, tipz. Per point: t (0 to 1 by
/// arc length), pt (by point index), px, py, pz, pointIndex; evaluated per strand they are 0 and
/// the root. And frame, time. Any other name is a channel.
class ExpressionMap {
public:
    enum class Shape { Number, Vector };
    /// Throws ExpressionError: "expression '<text>': <message> at position <n>" and the like. With
    /// `perPointAllowed` false a point variable is an error, and point channels are read at the
    /// root.
    ExpressionMap(std::string text, const ExpressionEnvironment& environment, bool perPointAllowed,
                  Shape wanted = Shape::Number);
    ~ExpressionMap();

    const std::string& text() const;
    bool isVector() const;
    bool perPoint() const;       ///< reads point variables; channels may add to it when bound
    bool readsStrands() const;   ///< needs a strand set: shape variables, channels, ids
    bool readsWholeSet() const;  ///< `longest`
    bool readsTime() const;      ///< `frame` or `time`
    bool readsMaps() const;
    std::span<const std::string> channelNames() const;  ///< in order of first use
    std::uint64_t number() const;                       ///< process-unique

    /// One strand set's channels and scans resolved; use it while the set lives. Batch forms run
    /// one dispatch per operation and batch, and give the bits of the single forms. No allocation;
    /// safe from parallel bodies. A number's vector forms give (number, 0, 0).
    class Bound {
    public:
        bool perPoint() const;
        float strand(std::size_t strand) const;
        /// `point` counts within the strand.
        float point(std::size_t strand, std::size_t point) const;
        Vec3f strandVector(std::size_t strand) const;
        Vec3f pointVector(std::size_t strand, std::size_t point) const;
        /// out[i] for strands[i]. Throws std::invalid_argument, before writing, when `out` is
        /// smaller.
        void strands(std::span<const std::uint32_t> strands, std::span<float> out) const;
        /// out: the points of the listed strands, one strand after the other.
        void points(std::span<const std::uint32_t> strands, std::span<float> out) const;
        void strandVectors(std::span<const std::uint32_t> strands, std::span<Vec3f> out) const;
        void pointVectors(std::span<const std::uint32_t> strands, std::span<Vec3f> out) const;

    private:
        friend class ExpressionMap;
        struct Data;
        std::shared_ptr<const Data> data_;
    };
    /// Channels of `strands` (strand channels win over point channels of the name); names that are
    /// neither read 0: callers check `channelNames` first. `environment` gives the scalp and the
    /// time; maps are those the expression was compiled with. Not for parallel bodies: `longest`
    /// takes a loop over the set.
    Bound bind(const StrandSet& strands, const ExpressionEnvironment& environment) const;

    /// Without strands: P, N, u, v at places of the scalp (pointP is P); other strand variables and
    /// channels read 0, and ids are 0. Takes one place per `out`.
    void atRoots(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                 const ExpressionEnvironment& environment, std::span<float> out) const;

private:
    friend ExpressionPtr compileExpression(const std::string&, const ExpressionEnvironment&, bool,
                                           Shape);
    ExpressionMap(std::shared_ptr<const ExpressionProgram> program,
                  const ExpressionEnvironment& environment);

    std::shared_ptr<const ExpressionProgram> program_;
    std::vector<NamedMapPtr> maps_;  ///< by map index
    std::uint64_t number_ = 0;
};

/// Compiled once per text, shape, per-point permission and (where the text reads any) `$`
/// variables, through a process-wide cache of the newest; shared. Maps are asked for anew each
/// time, so the cache never keeps a groom's data alive. Safe from any thread. Throws
/// ExpressionError.
ExpressionPtr compileExpression(const std::string& text, const ExpressionEnvironment& environment,
                                bool perPointAllowed,
                                ExpressionMap::Shape wanted = ExpressionMap::Shape::Number);

/// Reads the `variables` JSON of an Expression node; blank text has none. Throws ExpressionError
/// with the text to show.
std::map<std::string, std::variant<float, Vec3f>> expressionVariables(std::string_view json);

}  // namespace corvelle

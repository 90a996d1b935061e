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
    /// The map of a name; null when there is none; throws ExpressionError "map("<name>"): <why>" for
    /// one that is there but unfit. Absent: no maps at all.
    std::function<NamedMapPtr(const std::string&)> findMap;
    std::uint64_t mapsHash = 0;  ///< of all that findMap can give: the compile cache's key
    ScalpPtr scalp;              ///< for normals and UVs at roots; may be null
    double frame = 0.0;
    double time = 0.0;  ///< seconds
    /// `$` names given by the Expression node: numbers and vectors.
    std::map<std::string, std::variant<float, Vec3f>> variables;
};

/// A compiled expression: a flat list of stack-machine operations, immutable and shared between
/// threads. No value can trap: division by 0 gives 0, and so does any result that is not finite.
class ExpressionMap {
public:
    enum class Shape { Number, Vector };
    /// Throws ExpressionError: "expression '<text>': <message> at position <n>" and the like.
    ExpressionMap(std::string text, const ExpressionEnvironment& environment, bool perPointAllowed,
                  Shape wanted = Shape::Number);
    ~ExpressionMap();

    const std::string& text() const;
    bool isVector() const;
    bool perPoint() const;        ///< reads point variables; channels may add to it when bound
    bool readsStrands() const;    ///< needs a strand set: shape variables, channels, ids
    bool readsWholeSet() const;   ///< `longest`
    bool readsTime() const;       ///< `frame` or `time`
    std::span<const std::string> channelNames() const;  ///< in order of first use
    std::uint64_t number() const;  ///< process-unique

    /// One strand set's channels and scans resolved; use it while the set lives. Batch forms run one
    /// dispatch per operation and batch, and give the bits of the single forms.
    class Bound {
    public:
        bool perPoint() const;
        /// out[i] for strands[i].
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
    /// neither read 0: callers check `channelNames` first.
    Bound bind(const StrandSet& strands, const ExpressionEnvironment& environment) const;

    /// Without strands: P, N, u, v at places of the scalp; strand variables and channels read 0.
    void atRoots(std::span<const StrandRoot> roots, std::span<const Vec3f> positions,
                 const ExpressionEnvironment& environment, std::span<float> out) const;

private:
    struct Program;
    std::shared_ptr<const Program> program_;
};
using ExpressionPtr = std::shared_ptr<const ExpressionMap>;

/// Compiled once per text, shape, per-point permission and maps; shared.
ExpressionPtr compileExpression(const std::string& text, const ExpressionEnvironment& environment,
                                bool perPointAllowed, ExpressionMap::Shape wanted = ExpressionMap::Shape::Number);

/// Reads the `variables` JSON of an Expression node. Throws ExpressionError with the text to show.
std::map<std::string, std::variant<float, Vec3f>> expressionVariables(std::string_view json);

}  // namespace corvelle

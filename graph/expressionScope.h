#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "expr/expressionMap.h"
#include "expr/mapCatalog.h"
#include "graph/evalContext.h"
#include "model/strandSet.h"

namespace corvelle {

/// What the words of an expression say that it may read, without compiling it: never less than it
/// reads, so that hashes may rely on it.
struct ExpressionReads {
    bool time = false;     ///< `frame`, `time`
    bool maps = false;     ///< `map`, `cmap`
    bool surface = false;  ///< normals and UVs at roots
};
ExpressionReads expressionReads(std::string_view text);

/// What an expression sees of an evaluation, held by itself: fields outlive the evaluation they were
/// made in. Immutable, safe from any thread.
///
/// `map("name")` finds, in this order: a map of the catalogue, a layer on `guides`, a guide layer of
/// the groom that the strands carry as a channel.
class ExpressionScope {
public:
    /// `guides` serve guide layers by position; may be null. With `maps` false there are no maps, and
    /// none of the work of finding what may be read.
    ExpressionScope(const EvaluationData& data, GuidesPtr guides, bool maps = true);

    /// For expressions whose strands come later: a guide layer that is not on `guides` is taken on
    /// trust, and reads 0 away from strands that carry it.
    ExpressionEnvironment environment() const;
    /// For strands at hand (null: none): a layer that is neither on them nor on `guides` throws
    /// ExpressionError from findMap.
    ExpressionEnvironment environmentFor(const StrandSet* strands) const;
    /// Of all that maps can give.
    std::uint64_t mapsHash() const { return mapsHash_; }

private:
    struct Sources;
    NamedMapPtr find(const std::string& name, const std::vector<std::string>* carried) const;
    ExpressionEnvironment make(bool strict, std::vector<std::string> carried) const;

    std::shared_ptr<const Sources> sources_;  ///< null: no maps
    ScalpPtr scalp_;
    double frame_ = 0.0;
    double seconds_ = 0.0;
    std::uint64_t mapsHash_ = 0;
};

/// The guides of a groom as Field nodes, which have no guides input, see them: a flat list that is
/// not empty, else the hierarchy's leaf groups; null for none.
GuidesPtr groomGuides(const EvaluationData& data);

}  // namespace corvelle

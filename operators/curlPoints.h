#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "model/strandSet.h"

namespace corvelle {

/// The segments that a turn takes so that none strays from the round curl by more than `tolerance`
/// of its radius: a chord over an angle of 2 pi / n sags by 1 - cos(pi / n) of the radius. 3 or
/// more; 0 for a tolerance of 0, which asks for none.
int segmentsPerTurn(double tolerance);

/// Segments for so many turns, at most `most`.
std::size_t segmentsForTurns(float turns, int perTurn, std::size_t most);

/// The params of points (index and fraction) that a zigzag needs: those of the line's own points
/// and of every peak of its wave between them, ascending. `turns` [m] are those at the shares k /
/// (m - 1) of the length, from 0 up; `start` is where the wave begins, -1 to 1; shares [n] are the
/// points'.
void zigzagPlaces(std::span<const float> shares, std::span<const float> turns, float start,
                  std::vector<float>& params);

/// The same strands with more points: counts [strands] of them. `place` may give a strand's points
/// as params, and then true; else they lie evenly on its spline. Values at points go along by
/// interpolation; a strand that keeps its count keeps its bits.
using PlacePoints = std::function<bool(std::uint32_t strand, std::vector<float>& params)>;
StrandSet refinedStrands(const StrandSet& in, std::span<const std::uint64_t> counts,
                         const std::function<PlacePoints()>& makePlacer);

}  // namespace corvelle

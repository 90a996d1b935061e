#include "operators/clumpParams.h"

namespace corvelle {

namespace {

const ParamCondition kPicks{.param = "centersFrom", .values = {"pick"}};

const std::vector<ParamSpec> kParams = {
    {.name = "strength",
     .defaultValue = 0.7,
     .description =
         "Overall pull toward the clump center, -1 to 1 (mappable, per point). Negative pushes "
         "strands away from the centers (part fur around whiskers, horns, eyes): those within "
         "repelRadius, out toward it",
     .softMin = -1.0,
     .softMax = 1.0,
     .min = -1.0,
     .max = 1.0},
    {.name = "profile",
     .defaultValue = Ramp({{0.0f, 0.0f}, {1.0f, 1.0f}}),
     .description = "Pull along the length, root to tip"},
    {.name = "centersFrom",
     .defaultValue = std::string("pick"),
     .description =
         "Where the clumps' centers come from: pick: it picks them among the strands (clumpBy), "
         "each axis the picked strand, and a centers input is ignored; inputPoints: the centers "
         "input (guides or strands: a Scatter, guides, single points) only says where the clumps "
         "are (their roots), each axis the strand it gathers nearest its center's root (the hair "
         "as grown there); inputCurves: each axis is the center curve itself (groomed clump "
         "curves, a Noise on the centers waving each clump as one). Connecting centers in the "
         "Graph Editor sets inputPoints",
     .choices = {"pick", "inputPoints", "inputCurves"},
     .animatable = false},
    {.name = "clumpBy",
     .defaultValue = std::string("count"),
     .description =
         "The clumps it picks among the strands: count: about `count` of them, whatever the "
         "scalp's size (re-fitted to the scalp's area: an edit that changes it by more than 1% "
         "moves every clump); size: clumps about `size` apart, as many as the scalp holds (a whole "
         "body gets more than a head, of the same size; an edit of the scalp changes the clumps "
         "only near it)",
     .choices = {"count", "size"},
     .animatable = false,
     .showWhen = {kPicks}},
    {.name = "count",
     .defaultValue = 300.0,
     .description = "About how many clumps (clumpBy count); 0: none (the strands as they came)",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 1000.0,
     .showWhen = {kPicks, {.param = "clumpBy", .values = {"count"}}},
     .whole = true,
     .min = 0.0,
     .max = 1e6},
    {.name = "size",
     .defaultValue = 1.0,
     .description = "Clump size (clumpBy size): about how far apart the centers are, so the count "
                    "follows the scalp's area; 0: none",
     .unit = "length",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 5.0,
     .showWhen = {kPicks, {.param = "clumpBy", .values = {"size"}}},
     .min = 0.0},
    {.name = "randomness",
     .defaultValue = 0.3,
     .description =
         "How random the centers it picks are: 0 evenly spread (blue noise, every one about the "
         "average spacing from its neighbors), 1 at random (some side by side); in between each "
         "center moves smoothly from its even spot toward its random one (the same clumps, their "
         "borders shifting), past 1 on beyond it, up to 2. As Scatter's",
     .unit = "fraction",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 2.0,
     .showWhen = {kPicks},
     .min = 0.0,
     .max = 2.0},
    {.name = "centerWeight",
     .defaultValue = 1.0,
     .description = "Chance each strand can be a center it picks, 0-1 (mappable: e.g. an "
                    "Expression favoring long strands, or guideInfluence)",
     .unit = "fraction",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 1.0,
     .showWhen = {kPicks},
     .min = 0.0,
     .max = 1.0},
    {.name = "pastTip",
     .defaultValue = std::string("gather"),
     .description =
         "A strand longer than its clump's axis: gather: its points past the axis's tip gather at "
         "the tip; extend: they go on past it, along the axis's last direction, so long hair keeps "
         "its length",
     .choices = {"gather", "extend"}},
    {.name = "clumpChannel",
     .defaultValue = std::string("clumpId"),
     .description =
         "Per-strand channel receiving the clump's number, from its center's ID (the same while "
         "that center is; empty: none). Chained Clumps each want their own (lockId, then clumpId), "
         "for a Twist, Cards or HairColor's clumpShare to follow the one it names"},
    {.name = "seed",
     .defaultValue = 0.0,
     .description = "Random seed for the centers it picks and the per-clump variation",
     .animatable = false,
     .whole = true},
    {.name = "respectParts",
     .defaultValue = true,
     .description = "Never clump toward a center on the other side of a part"},
    {.name = "regionChannel",
     .defaultValue = std::string("region"),
     .description =
         "Channel numbering each strand's region (an Interpolate's regionMap writes region): "
         "strands clump only toward centers of their own region (a center's region is its "
         "strand's, its own value of the channel, or else the nearest strand's), and a region "
         "without a center stays unclumped; empty, or a channel the strands lack: across regions"},
    {.name = "lockRadius",
     .defaultValue = 0.0,
     .description =
         "Lock radius: strands gather into a round lock this thick around the center (dreads, wet "
         "strings; a Twist node after it turns them into ropes); 0: onto the center",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0},
    {.name = "repelRadius",
     .defaultValue = 0.5,
     .description =
         "With a negative strength: how far from its center a strand is pushed out to (the part's "
         "half width; strands farther away stay as they are)",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 5.0,
     .min = 0.0},
    {.name = "flatness",
     .defaultValue = 0.0,
     .description =
         "Squashes each clump across into a ribbon, 0-1, as much as it clumps there (wet hair)",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "flatten",
     .defaultValue = std::string("surface"),
     .description = "Which way a flat clump lies: surface: flat along the scalp; random: turned at "
                    "random per clump; direction: its width along flattenDirection",
     .choices = {"surface", "random", "direction"}},
    {.name = "flattenDirection",
     .defaultValue = Vec3f{1.0f, 0.0f, 0.0f},
     .description = "Flatten direction: the way a ribbon's width runs (world space)",
     .worldDirection = true,
     .showWhen = {{.param = "flatten", .values = {"direction"}}}},
    {.name = "volumize",
     .defaultValue = 0.0,
     .description =
         "Pushes each clump's strands out from its axis by this share of how far they are from it, "
         "most near the root, filling the clump's volume (mappable)",
     .group = "Shape",
     .softMin = 0.0,
     .softMax = 1.0},
    {.name = "volumizeProfile",
     .defaultValue = Ramp({{0.0f, 1.0f}, {1.0f, 0.0f}}),
     .description = "Volumize along the length, root to tip",
     .group = "Shape"},
    {.name = "strengthRandom",
     .defaultValue = 0.0,
     .description = "Each clump's strength scaled down by up to this share, at random per clump",
     .unit = "fraction",
     .group = "Random",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "lockRadiusRandom",
     .defaultValue = 0.0,
     .description =
         "Each clump's lock radius up to this share bigger or smaller, at random per clump",
     .unit = "fraction",
     .group = "Random",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "copyAmount",
     .defaultValue = 0.0,
     .description = "Each clump takes on this share of its neighbouring clumps' shape (their "
                    "center curves, from their roots), so clumps share one flow",
     .unit = "fraction",
     .group = "Shape",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "copyNeighbors",
     .defaultValue = 1.0,
     .description = "How many of the nearest clumps a clump copies (their mean)",
     .group = "Shape",
     .whole = true,
     .min = 1.0,
     .max = 16.0},
};

}  // namespace

const std::vector<ParamSpec>& clumpParams() { return kParams; }

}  // namespace corvelle

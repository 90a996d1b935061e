#include "operators/curlParams.h"

namespace corvelle {

namespace {

const std::vector<ParamSpec> kParams = {
    {.name = "radius",
     .defaultValue = 0.5,
     .description = "Curl radius, scene units (mappable, per point); a coil's is coilWidths",
     .unit = "length",
     .softMin = 0.0,
     .softMax = 2.0,
     .showWhen = {{.param = "shape", .values = {"helix", "wave", "zigzag"}}},
     .min = 0.0},
    {.name = "frequency",
     .defaultValue = 0.4,
     .description = "Turns per unit of length",
     .unit = "perLength",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 2.0,
     .min = 0.0},
    {.name = "randomness",
     .defaultValue = 0.3,
     .description = "Per-strand variation of radius and frequency, 0-1",
     .unit = "fraction",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "spacingRandom",
     .defaultValue = 0.0,
     .description =
         "Smooth random variation of the spacing along each strand (each clump's with coherence "
         "clump), 0-1: the frequency varies by up to this share every turn or two",
     .unit = "fraction",
     .group = "Random",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "profile",
     .defaultValue = Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}),
     .description = "Radius along the length, root to tip (eased in from 0 at the root over the "
                    "first quarter turn)"},
    {.name = "shape",
     .defaultValue = std::string("helix"),
     .description =
         "helix: around the strand; wave: a planar sine; zigzag: sharp planar kinks "
         "(kinky hair); coil: a tight helix coilWidths strand widths across (coily hair)",
     .choices = {"helix", "wave", "zigzag", "coil"}},
    {.name = "coilWidths",
     .defaultValue = 3.0,
     .description =
         "Coil: its radius in strand widths at each point (the widths the strands carry: "
         "put a Width node before it)",
     .softMin = 0.5,
     .softMax = 10.0,
     .showWhen = {{.param = "shape", .values = {"coil"}}},
     .min = 0.0},
    {.name = "phase",
     .defaultValue = 0.0,
     .description = "Where along a turn every curl starts, in turns (0-1)",
     .unit = "turns",
     .softMin = 0.0,
     .softMax = 1.0},
    {.name = "phaseRandom",
     .defaultValue = 1.0,
     .description = "How much of a turn each strand's (or clump's) start varies at random, 0-1",
     .unit = "fraction",
     .group = "Random",
     .softMin = 0.0,
     .softMax = 1.0,
     .min = 0.0,
     .max = 1.0},
    {.name = "coherence",
     .defaultValue = std::string("strand"),
     .description = "strand: each strand curls on its own; clump: the strands of a clump curl "
                    "together around its middle, with one phase, frequency and plane (ringlets; "
                    "after a Clump)",
     .choices = {"strand", "clump"}},
    {.name = "clumpChannel",
     .defaultValue = std::string("clumpId"),
     .description =
         "Coherence clump: the channel naming each strand's clump (Clump writes clumpId)",
     .showWhen = {{.param = "coherence", .values = {"clump"}}}},
    {.name = "tolerance",
     .defaultValue = 0.5,
     .description =
         "How far a straight segment may stray from the round curl, a share of its radius: where "
         "the points coming in are too few a turn for it, Curl adds points (0.5: 3 a turn, so no "
         "curl aliases into another; 0.3: 4; 0.1: 7; 0.03: 13; a zigzag gets its kinks). 0: only "
         "the points coming in. Points added take the GPU preview off this node: more Resample "
         "segments keep it",
     .unit = "fraction",
     .animatable = false,
     .softMin = 0.0,
     .softMax = 0.99,
     .min = 0.0,
     .max = 0.99},
    {.name = "maxSegments",
     .defaultValue = 256.0,
     .description = "The most segments a strand may have with the points Curl adds",
     .animatable = false,
     .softMin = 8.0,
     .softMax = 256.0,
     .whole = true,
     .min = 1.0,
     .max = 1024.0},
    {.name = "seed", .defaultValue = 0.0, .description = "Random seed", .whole = true},
    {.name = "frequencyProfile",
     .defaultValue = Ramp({{0.0f, 1.0f}, {1.0f, 1.0f}}),
     .description = "Frequency along the length, root to tip, a share of frequency (the tightest): "
                    "curls loosening or tightening toward the tip"},
};

}  // namespace

const std::vector<ParamSpec>& curlParams() { return kParams; }

}  // namespace corvelle

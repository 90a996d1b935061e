"""Runs the benchmark programs and prints their ratios, one row a path, with what each is to reach.

A row names the measured benchmark, its yardstick and how to read the two:
  "time"   measured time over the yardstick's, at most the target
  "rate"   yardstick's time over the measured one, at least the target
  "bare"   measured time over the target's number of streams and the bare loop, at most 1
  "adds"   measured time less the yardstick's, microseconds, at most the target
  "count"  a counter of the measured benchmark, at most the target
"""

from __future__ import annotations

import argparse
import json
import os
import platform
import subprocess
import sys
from pathlib import Path
from typing import Any, Dict, List, NamedTuple, Optional


class Row(NamedTuple):
    path: str
    program: str
    measured: str
    yardstick: str
    read: str
    target: float
    bare: str = ""  # "bare" alone: the loop over the neighbours


FORMULAS = (("RootArithmetic", 6.0), ("ChannelArithmetic", 6.0), ("FitLength", 6.0), ("RootNoise", 2.0),
            ("PointArithmetic", 6.0), ("PointChannels", 6.0), ("Taper", 6.0), ("PointFbm", 2.0))

ROWS: List[Row] = [
    *(Row(f"closest point, {percent} % of the radius away, cold, rate over Embree", "model",
          f"closestPoint/cold/{arg}", f"closestPoint/embree/{arg}", "rate", 1.0)
      for arg, percent in ((1, "0.1"), (50, "5"), (300, "30"))),
    *(Row(f"closest point, {percent} % away, warm, rate over Embree", "model",
          f"closestPoint/warm/{arg}", f"closestPoint/embree/{arg}", "rate", 3.0)
      for arg, percent in ((1, "0.1"), (50, "5"), (300, "30"))),
    *(Row(f"{name} of a float, over the C library's", "model", f"elementary/{name}/ours",
          f"elementary/{name}/library", "time", limit)
      for name, limit in (("sin", 1.1), ("exp", 1.1), ("log", 1.1), ("atan2", 1.1), ("pow", 2.0))),
    Row("moved mesh: refit over a full build", "model", "bvh/refit", "bvh/build", "time", 0.25),
    *(Row(f"nearest {k}, rate over nanoflann", "model", f"nearest/pointIndex/{k}", f"nearest/nanoflann/{k}", "rate", 1.5)
      for k in (13, 14)),
    Row("blue noise, 100,000 roots, rate over the plain relaxation", "operators",
        "blueNoise/relax", "blueNoise/baseline", "rate", 2.5),
    Row("Scatter again, cached, over the first time", "operators", "scatter/cached", "scatter/first", "time", 0.01),
    Row("Interpolate, weights cached, over the bare blend", "operators",
        "interpolate/node", "interpolate/bareBlend", "time", 1.5),
    Row("Interpolate keeping clearance, weights cached, over the bare blend", "operators",
        "interpolate/nodeKeepingClearance/combed:1", "interpolate/bareBlend", "time", 1.5),
    *(Row(f"{node}, one thread, over the stream", "operators", f"nodes/{node}/1", "nodes/baseline stream/1", "time", 5.0)
      for node in ("Length", "Width", "Resample")),
    *(Row(f"{node}, one thread, over the stream", "operators", f"nodes/{node}/1", "nodes/baseline stream/1", "time", 5.0)
      for node in ("Comb", "Displace", "Gravity", "Smooth", "Straighten", "Bend", "Direction",
                   "Transform", "Flow", "Part", "Flyaway")),
    Row("Part, all hair within its width, one thread, over 5 streams and the bare search", "operators",
        "nodes/PartAll/1", "nodes/baseline stream/1", "bare", 5.0, "nodes/bare PartAll/1"),
    Row("MeshCut, one thread, over 5 streams and the bare rays", "operators",
        "nodes/MeshCut/1", "nodes/baseline stream/1", "bare", 5.0, "nodes/bare MeshCut/1"),
    Row("Clump, centers cached, one thread, over the stream", "operators",
        "clump/pull, centers cached/1", "clump/baseline stream/1", "time", 6.0),
    *(Row(f"{count} clump centers picked over blue noise", "operators",
          f"clump/pick centers/{count}", f"clump/baseline blue noise/{count}", "time", 1.0)
      for count in (300, 1000, 5000)),
    *(Row(f"Curl, {what}, one thread, over the bare helix", "operators", f"curl/{name}/1", "curl/bare helix/1", "time", 2.0)
      for what, name in (("by strand", "helix"), ("by clump", "helix by clump"))),
    *(Row(f"table of {k} neighbours, rate over nanoflann", "operators", f"neighbors/table/{k}/1", f"neighbors/nanoflann/{k}/1", "rate", 1.5)
      for k in (4, 8)),
    *(Row(f"{node}, one thread, over 5 streams and the bare loop", "operators", measured, "nodes/baseline stream/1",
          "bare", 5.0, bare)
      for node, measured, bare in (
          ("BlendNeighbors", "neighbors/BlendNeighbors/1", "neighbors/bare BlendNeighbors/1"),
          ("Tangle", "neighbors/Tangle/1", "neighbors/bare Tangle/1"),
          ("Twist", "neighbors/Twist/1", "neighbors/bare Twist/1"))),
    *(Row(f"{node}, one thread, over the stream", "operators", f"nodes/{node}/1", "nodes/baseline stream/1", "time", 5.0)
      for node in ("RestoreLength", "Cull")),
    Row("HairColor, one thread, over the stream", "operators", "nodes/HairColor/1", "nodes/baseline stream/1", "time", 5.0),
    Row("Collide by field, none touching, over the stream", "operators",
        "collide/field/touching%:0", "collide/stream", "time", 5.0),
    Row("Collide by field, a tenth touching, over the stream", "operators",
        "collide/field/touching%:10", "collide/stream", "time", 5.0),
    Row("Alembic, strands against the bare library", "io", "alembicWrite/strands", "alembicWrite/baseline", "rate", 0.85),
    Row("USD, a frame against a bare number-to-text loop", "io", "usdWrite/frame", "usdWrite/baseline", "rate", 0.8),
    Row("Noise over the bare noise loop", "operators", "nodes/Noise/1", "nodes/baseline noise/1", "time", 1.2),
    *(Row(f"expression {name} over C++", "expr", f"expression/{name}/batch", f"expression/{name}/plain", "time", target)
      for name, target in FORMULAS),
    *(Row(f"{what}, arrays and all, over a full evaluation", "helper", f"stroke/{what}", "stroke/full evaluation",
          "time", target) for what, target in (("drag and evaluate", 0.04), ("undo and evaluate", 0.04), ("hover", 0.01))),
    Row("answer arrays, groom space, over memcpy", "helper",
        "answer/groom space/1600000", "answer/baseline memcpy/1600000", "time", 2.0),
    Row("answer arrays, host space in metres, over memcpy", "helper",
        "answer/host space, metres/1600000", "answer/baseline memcpy/1600000", "time", 2.0),
    Row("answer arrays, host space in centimetres, over memcpy", "helper",
        "answer/host space, centimetres/1600000", "answer/baseline memcpy/1600000", "time", 2.0),
    Row("a request over a pipe echo, microseconds", "helper", "ping/line loop", "ping/baseline echo", "adds", 20.0),
    Row("two threads, whole evaluation", "session", "groom/full/2", "groom/full/1", "rate", 1.6),
    Row("two threads, Resample", "operators", "nodes/Resample/2", "nodes/Resample/1", "rate", 1.85),
    Row("two threads, Noise", "operators", "nodes/Noise/2", "nodes/Noise/1", "rate", 1.85),
    Row("two threads, Length", "operators", "nodes/Length/2", "nodes/Length/1", "rate", 1.6),
    Row("two threads, Width", "operators", "nodes/Width/2", "nodes/Width/1", "rate", 1.6),
    Row("one guide of 2,000 moved over the whole evaluation", "session",
        "groom/one guide moved", "groom/full/2", "time", 0.03),
    Row("nothing changed over the whole evaluation", "session", "groom/nothing changed", "groom/full/2", "time", 0.001),
    Row("peak memory over the arrays of all caches", "memory", "memory/peak", "", "count", 3.0),
]

UNITS = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}  # to microseconds


def run(program: Path, seconds: float, only: str) -> Dict[str, Dict[str, Any]]:
    """All benchmarks of a program by name, without the suffixes of how they were timed."""
    command = [str(program), "--benchmark_format=json", f"--benchmark_min_time={seconds}", f"--benchmark_filter={only}"]
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True)
    results = {}
    for row in json.loads(done.stdout)["benchmarks"]:
        name = row["name"].replace("/real_time", "").split("/iterations:")[0]
        results[name] = row
    return results


def ratio(row: Row, results: Dict[str, Dict[str, Any]]) -> Optional[float]:
    measured, yardstick = results.get(row.measured), results.get(row.yardstick)
    if measured is None or "error_message" in measured:
        return None
    if row.read == "count":
        return float(measured["peakOverCaches"])
    if yardstick is None or "error_message" in yardstick:
        return None
    a, b = (r["real_time"] * UNITS[r["time_unit"]] for r in (measured, yardstick))
    if row.read == "bare":
        bare = results.get(row.bare)
        if bare is None or "error_message" in bare:
            return None
        return a / (row.target * b + bare["real_time"] * UNITS[bare["time_unit"]])
    return b / a if row.read == "rate" else a - b if row.read == "adds" else a / b


def main() -> int:
    parser = argparse.ArgumentParser(description="The table of benchmark ratios.")
    parser.add_argument("programs", type=Path)
    parser.add_argument("--time", type=float, default=0.5, help="seconds a benchmark, at the least")
    parser.add_argument("--markdown", action="store_true")
    options = parser.parse_args()

    results: Dict[str, Dict[str, Any]] = {}
    for program in sorted({row.program for row in ROWS} - {"memory"}):
        wanted = sorted({name for row in ROWS if row.program == program for name in (row.measured, row.yardstick, row.bare)} - {""})
        families = sorted({name.split("/")[0] for name in wanted})
        print(f"running {program} ...", file=sys.stderr)
        results.update(run(options.programs / f"{program}Benchmarks", options.time, f"^({'|'.join(families)})/"))
    results.update(run(options.programs / "sessionBenchmarks", options.time, "^memory/"))

    print(f"{platform.machine()}, {os.cpu_count()} processors, {platform.system()}\n")
    if options.markdown:
        print("| Path | Ratio | To reach | |\n|---|---|---|---|")
    for row in ROWS:
        value = ratio(row, results)
        least = row.read == "rate"
        limit = 1.0 if row.read == "bare" else row.target
        target = f"{'at least' if least else 'at most'} {limit:g}"
        if value is None:
            text, verdict = "not measured", ""
        else:
            text = f"{value:.3g}"
            verdict = "" if (value >= limit if least else value <= limit) else "missed"
        print(f"| {row.path} | {text} | {target} | {verdict} |" if options.markdown
              else f"{row.path:<72}{text:>14}   {target:<16}{verdict}")
    return 0


if __name__ == "__main__":
    sys.exit(main())

#pragma once

namespace corvelle {

// Frame rates, and the way between frames and seconds. NTSC rates (23.976, 29.97, 59.94) are held
// exactly, as n * 1000 / 1001, so that long shots do not drift.

/// Above 0 and finite, else 24; within 1e-9 of a whole number as it is; near an NTSC rate that rate.
double effectiveRate(double rate);
double framesFromSeconds(double seconds, double rate);
double secondsFromFrames(double frame, double rate);

}  // namespace corvelle

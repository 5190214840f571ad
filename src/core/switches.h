// switches.h: the module's test switches and counters. The library sets
// none of the switches itself and reads no configuration: tests, fuzzers and
// benchmarks set them to pick a path or spare work.
#pragma once

namespace lumora {

// The hot loops exist twice: the plain per-pixel code, which reads like the
// algorithm and is the reference, and a SIMD fast path that gives the same
// bytes. The SIMD path runs by default; tests and benchmarks set this to
// run the plain one. It is not a configuration: the library reads nothing but
// its arguments.
inline bool usePlainPath = false;
// Set by tests and fuzzers that fuse hundreds of times: a CIELab table that is
// filled already is not filled again (every refill writes the same values).
// The library itself never sets it.
inline bool keepFilledLabTable = false;

namespace simd {
// Output rows per band of colour planes in the SIMD level pass; 0 chooses
// by size (tests force tiny bands).
extern int levelPassBandRows;
// The per-lane reads of the SIMD level pass (range table, packed bytes): 0
// the measured choice, 1 gathers, 2 scalar loads (where the instruction set
// has them).
extern int laneReads;
}  // namespace simd
namespace device {
// The OpenCL level pass: rows per launch (0 chooses by size), a value added
// to every byte the device writes (its check must then refuse it), the
// launch, counted down from when it is set, that fails as an OpenCL error
// would (0: none), the rand() calls each launch makes as a driver might, the
// input's layout on the device (0 by device, 1 band by band, 2 whole), and
// the division through double that a device without correctly rounded
// division gets, on a device that has doubles (applied when a device is
// next checked).
extern int bandRows;
extern int perturbBytes;
extern int failAtLaunch;
extern int driverDraws;
extern int inputLayout;
extern bool divideInDouble;
}  // namespace device
// Calls of getProposedLevelFactorImpl since process start.
extern int proposedLevelFactorImplCalls;
// Entries of the last vectorised CIELab fill that took the exact conversion.
extern int labSimdFallbacks;

}  // namespace lumora

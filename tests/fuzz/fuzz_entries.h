// fuzz_entries.h: one input of each fuzz target, as a function. The libFuzzer
// programs and the ordinary test suite (which replays the committed corpora)
// both call these, so that a fixed crash stays fixed in every build.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace lumora_fuzz {

// Each returns an empty string when the input was handled as the tool must
// handle it, or a description of what went wrong (the fuzzers abort on it).
// Crashes, hangs and bad memory accesses are the sanitizers' to catch.

// The bytes as an image file, read the way lumora-fuse reads its inputs.
std::string fuzzReadImage(const uint8_t *data, size_t size);

// The bytes as a command line (arguments split at NUL or newline).
std::string fuzzOptions(const uint8_t *data, size_t size);

// The bytes choose a picture size (1 to kFusionMaxSide a side, or ten times
// that around a loupe region of at most kFusionMaxSide), two or three
// exposures and their pixels, and every setting within what the tool
// accepts; the exposures are then fused exactly as the tool fuses them.
constexpr int kFusionMaxSide = 40;
std::string fuzzFusion(const uint8_t *data, size_t size);

}  // namespace lumora_fuzz

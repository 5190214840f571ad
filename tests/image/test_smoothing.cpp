// 3x3 smoothing: truncating per-channel mean, copied edges, the byte-offset
// last-row copy of 16-bit images, and the SIMD rows against the plain ones on
// every instruction set and team size.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "core/switches.h"
#include "image/image.h"
#include "test_support.h"

namespace {

using testsupport::Bytes;

// Smooths with a team of `threads`, on the plain path when asked.
template <typename T>
std::vector<T> smooth(const std::vector<T> &in, int iMax, int jMax, int spp, int threads,
                      bool plain = false) {
    std::vector<T> out(in.size(), T(0xABCD));
    lumora::usePlainPath = plain;
    auto *src = reinterpret_cast<unsigned char *>(const_cast<T *>(in.data()));
    auto *dst = reinterpret_cast<unsigned char *>(out.data());
#pragma omp parallel num_threads(threads)
    smoothImage3x3(src, iMax, jMax, spp, 8 * sizeof(T), dst);
    lumora::usePlainPath = false;
    return out;
}

TEST(Smoothing, PerChannelMeanTruncatesEdgesAreCopiedAndFlatOrThinPicturesStay) {
    // Channel 0: eight 8s and a 7 (71 / 9 = 7); channel 1: all 200; channel 2: 0..8.
    Bytes in(27);
    for (int p = 0; p < 9; p++) {
        in[p * 3] = p == 8 ? 7 : 8;
        in[p * 3 + 1] = 200;
        in[p * 3 + 2] = (unsigned char)p;
    }
    const Bytes out = smooth(in, 3, 3, 3, 1);
    EXPECT_EQ(out[12], 7);
    EXPECT_EQ(out[13], 200);
    EXPECT_EQ(out[14], 4);
    for (int k : {0, 3, 9, 15, 21, 24}) EXPECT_EQ(out[k], in[k]) << k;
    // Uniform areas keep their value; pictures one or two pixels thin are all edge.
    const Bytes flat(10 * 6 * 3, 201);
    EXPECT_EQ(smooth(flat, 10, 6, 3, 2), flat);
    for (auto [iMax, jMax] : {std::pair{7, 1}, {7, 2}, {1, 7}, {2, 7}, {1, 1}}) {
        const Bytes in = testsupport::randomImage(iMax, jMax, 3, 5);
        EXPECT_EQ(smooth(in, iMax, jMax, 3, 2), in) << iMax << "x" << jMax;
    }
}

// 16-bit: the last-row copy lands (jMax-1)*rowStride BYTES in, i.e. at sample
// 8 (the start of row 2) of a 4x5 image, and the true last row is not written.
TEST(Smoothing, SixteenBitLastRowCopyUsesByteOffset) {
    std::vector<uint16_t> in(4 * 5);
    for (size_t k = 0; k < in.size(); k++) in[k] = (uint16_t)(1000 + 37 * k * k % 5003);
    for (int threads : {1, 3}) {
        const std::vector<uint16_t> out = smooth(in, 4, 5, 1, threads);
        int sum = 0;
        for (int k : {0, 1, 2, 4, 5, 6, 8, 9, 10}) sum += in[k];
        EXPECT_EQ(out[5], sum / 9);  // row 1 is smoothed
        for (int k = 0; k < 4; k++) EXPECT_EQ(out[k], in[k]);
        for (int k = 8; k < 12; k++) EXPECT_EQ(out[k], in[k]);  // row 2: input copy
        for (int k = 16; k < 20; k++) EXPECT_EQ(out[k], 0xABCD);
    }
}

// Near white, so that nine-sample sums reach 9 * 255; up to 7 threads for 5 rows.
TEST(SmoothingSimd, RowsMatchPlainRowsUpToFullWhiteSums) {
    for (int iMax = 1; iMax <= 41; iMax += 4)
        for (int spp : {1, 3}) {
            Bytes in = testsupport::randomImage(iMax, 5, spp, iMax * 7 + spp);
            for (size_t k = 0; k < in.size(); k++)
                if (k % 5 != 0) in[k] = (unsigned char)(255 - in[k] % 3);
            const Bytes want = smooth(in, iMax, 5, spp, 1, true);
            testsupport::forEachTarget([&](int t) {
                const int threads = 1 + (t + iMax) % 4 * 2;
                EXPECT_EQ(testsupport::firstDifference(want, smooth(in, iMax, 5, spp, threads),
                                                       iMax, spp), "")
                    << iMax << "x5 spp " << spp << ", " << threads << " threads";
            });
        }
}

}  // namespace

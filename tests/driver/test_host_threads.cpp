// A host's threads: calls made at the same time run one after the other and
// give the bytes and the commentary of the same calls made in sequence; a team
// size below 1 runs one thread.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "BilateralFilter.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int W = 40, H = 32;
constexpr size_t IMAGE_BYTES = size_t(W) * H * 3;

// The shipped bracket's three exposures (darkest first), cut to W x H at (x0, y0).
Bytes bracketAt(int x0, int y0) {
    Bytes images;
    for (int k = 0; k < 3; k++) {
        const Bytes s = testsupport::sample(k, x0, y0, W, H);
        images.insert(images.end(), s.begin(), s.end());
    }
    return images;
}

// A first pass over three exposures, or, given its result, the
// highlight-preserving pass over that result and the darkest exposure.
struct Call {
    Bytes images;
    Bytes fused;  // empty for a first pass
};

Bytes run(const Call &call, int nbProc) {
    optim_param_struct opt{};
    opt.nbProc = nbProc;
    float p[LUMORA_FUSION_PARAM_COUNT];
    init_realistic_param(p);
    Bytes out(IMAGE_BYTES, 0x5A);
    Bytes images = call.images, fused = call.fused;
    if (fused.empty()) {
        p[7] = 0.0f;
        hx_fusion2(opt, p, 3, W, H, W, H, W * 3, 0, 3, 8, 8, 8, nullptr, images.data(), nullptr,
                   out.data(), nullptr);
    } else {
        hx_combi_realistic(opt, p, W, H, W * 3, 0, 3, 8, 8, 8, fused.data(), images.data(),
                           out.data(), nullptr);
    }
    return out;
}

}  // namespace

TEST(HostThreads, ConcurrentCallsGiveSequentialBytesAndTeamsBelowOneRunOneThread) {
    std::vector<Call> calls;
    for (auto [x0, y0] : {std::pair{200, 120}, std::pair{20, 300}}) {
        Call first{bracketAt(x0, y0), {}};
        Call second{first.images, run(first, 1)};
        calls.push_back(first);
        calls.push_back(second);
    }
    std::vector<Bytes> want;
    std::string commentary[2];  // of a first and of a second pass
    for (size_t c = 0; c < calls.size(); c++) {
        testing::internal::CaptureStderr();
        want.push_back(run(calls[c], 1));
        commentary[c % 2] = testing::internal::GetCapturedStderr();
    }
    ASSERT_NE(want[0], want[2]);
    ASSERT_NE(want[0], want[1]);

    // Four host threads, ten calls each, with teams of 1, 2, 0 and -2 threads.
    const int teams[4] = {1, 2, 0, -2};
    std::vector<std::vector<Bytes>> got(4);
    testing::internal::CaptureStderr();
    std::vector<std::thread> hosts;
    for (int t = 0; t < 4; t++)
        hosts.emplace_back([&, t] {
            for (int i = 0; i < 10; i++) got[t].push_back(run(calls[(t + i) % 4], teams[t]));
        });
    for (std::thread &host : hosts) host.join();
    std::string err = testing::internal::GetCapturedStderr();

    for (int t = 0; t < 4; t++)
        for (int i = 0; i < 10; i++)
            EXPECT_EQ(got[t][i], want[(t + i) % 4]) << "team " << teams[t] << ", call " << i;
    // Each call's commentary comes whole: 20 of each kind, never interleaved.
    int count[2] = {0, 0};
    while (!err.empty()) {
        const int kind = err.rfind(commentary[0], 0) == 0 ? 0 : err.rfind(commentary[1], 0) == 0 ? 1 : -1;
        ASSERT_NE(kind, -1) << "mixed commentary: " << err.substr(0, 200);
        err.erase(0, commentary[kind].size());
        count[kind]++;
    }
    EXPECT_EQ(count[0], 20);
    EXPECT_EQ(count[1], 20);
}

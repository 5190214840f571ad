#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/switches.h"
#include "filter/level_pass_device.h"

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    // The module runs OpenMP teams; death tests must re-execute the binary
    // rather than fork a process that holds idle worker threads.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The test suite's own switch (the library reads no environment): with
    // it, every fusion runs the plain per-pixel reference, so that the
    // whole-fusion golden checks hold the reference too, not only the fast
    // path that the other tests compare with it.
    const char *plain = std::getenv("LUMORA_TEST_PLAIN_PATH");
    if (plain != nullptr && std::strcmp(plain, "1") == 0) lumora::usePlainPath = true;
    // Likewise: with LUMORA_TEST_DEVICE=N every level that the OpenCL pass
    // covers runs on device N, so that the goldens hold the device too.
    const char *device = std::getenv("LUMORA_TEST_DEVICE");
    if (device != nullptr && !lumora::device::selectDevice(std::atoi(device))) {
        std::fprintf(stderr, "LUMORA_TEST_DEVICE=%s: no such OpenCL device\n", device);
        return 1;
    }
    return RUN_ALL_TESTS();
}

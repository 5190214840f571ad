#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "core/switches.h"

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
    return RUN_ALL_TESTS();
}

// SHA-256 of a byte buffer, as 64 lower-case hex digits (for golden outputs).
#pragma once

#include <cstddef>
#include <string>

namespace testsupport {

std::string sha256Hex(const void *data, size_t size);

}  // namespace testsupport

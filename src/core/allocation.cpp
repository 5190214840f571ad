// allocation.cpp: the fault-injecting allocator of the test build.
//
// Built only with LUMORA_ALLOCATION_FAULTS; the product build maps allocate,
// allocateZeroed and release straight onto malloc, calloc and free.
#ifdef LUMORA_ALLOCATION_FAULTS

#include <atomic>

#include "core/core.h"


namespace lumora {
namespace {

std::atomic<long> failAt{0};
std::atomic<long> count{0};
std::atomic<long> live{0};
std::atomic<size_t> failedSize{0};

// The allocations of a parallel pass are counted in whatever order the
// threads reach them; exactly one of them fails all the same.
bool shouldFail(size_t bytes) {
    const long n = count.fetch_add(1) + 1;
    if (n != failAt.load()) return false;
    failedSize.store(bytes);
    return true;
}

void *counted(void *block) {
    if (block != nullptr) live.fetch_add(1);
    return block;
}

}  // namespace

void *allocate(size_t bytes) {
    return shouldFail(bytes) ? nullptr : counted(std::malloc(bytes));
}

void *allocateZeroed(size_t n, size_t size) {
    return shouldFail(n * size) ? nullptr : counted(std::calloc(n, size));
}

void release(void *block) {
    if (block != nullptr) live.fetch_sub(1);
    std::free(block);
}

void resetAllocationFaults(long n) {
    count.store(0);
    live.store(0);
    failedSize.store(0);
    failAt.store(n);
}

AllocationFaults allocationFaults() {
    return {failAt.load(), count.load(), live.load(), failedSize.load()};
}

}  // namespace lumora

#endif  // LUMORA_ALLOCATION_FAULTS

// entry_lock.h: one fusion at a time in the process.
//
// A fusion call refills the process-wide CIELab table, sets the debug
// counters and reseeds the C library's rand(), from which the kernels draw
// their jitter; two calls overlapping would mix these up. Each public fusion
// entry point therefore holds one process-wide lock from its first statement
// until it returns, clean-up included: calls from several host threads run
// one after the other, each with its whole thread team. An entry point
// reached from another one on the same thread (the highlight-preserving
// entries call hx_fusion2) already holds the lock and does not take it again.
#pragma once

#include <mutex>

namespace lumora {

class EntryLock {
public:
    EntryLock() : outer_(!heldHere()) {
        if (!outer_) return;
        mutex().lock();
        heldHere() = true;
    }
    ~EntryLock() {
        if (!outer_) return;
        heldHere() = false;
        mutex().unlock();
    }
    EntryLock(const EntryLock &) = delete;
    EntryLock &operator=(const EntryLock &) = delete;

private:
    static std::mutex &mutex() {
        static std::mutex m;
        return m;
    }
    // Whether the calling thread holds the lock.
    static bool &heldHere() {
        static thread_local bool held = false;
        return held;
    }
    const bool outer_;  // this guard took the lock and gives it back
};

}  // namespace lumora

// Test and benchmark hook: forces the dispatch level. Linked only into the
// static library that tests and benchmarks use, never into libnpucpu.so.
#include <atomic>

#include "utils/dispatch.h"

namespace npucpu {

namespace {
// -1: nothing forced. Atomic so that threaded tests may read it.
std::atomic<int> g_forced{-1};
}  // namespace

bool forced_isa_level(Isa *level) {
    const int v = g_forced.load(std::memory_order_relaxed);
    if (v < 0) return false;
    *level = static_cast<Isa>(v);
    return true;
}

namespace testing {
void force_isa(Isa level) { g_forced.store(static_cast<int>(level), std::memory_order_relaxed); }
void clear_forced_isa() { g_forced.store(-1, std::memory_order_relaxed); }
}  // namespace testing

}  // namespace npucpu

// CPU-feature dispatch. The features are detected once, during static
// initialisation (CPUID plus the OS's XSAVE state), into a read-only record;
// operators with fast kernels pick the variant for active_isa().
//
// Levels are ordered: a kernel for level L may run whenever active_isa() >= L.
// Literal disables every fast path (the literal algorithms run); Portable
// allows fast paths written in plain C++.
//
// Tests and benchmarks can force a lower level (or the literal path) through
// npucpu::testing::force_isa(), which exists only in the static library they
// link (impl/testing/), never in libnpucpu.so.
#ifndef NPUCPU_IMPL_UTILS_DISPATCH_H
#define NPUCPU_IMPL_UTILS_DISPATCH_H

#include <cstdint>

namespace npucpu {

enum class Isa : uint32_t { Literal = 0, Portable = 1, Avx2 = 2, Avx512 = 3 };

struct CpuFeatures {
    bool avx2_fma;   // AVX2 and FMA, with the OS saving YMM state
    bool avx512;     // AVX-512 F, BW, DQ, VL, with the OS saving ZMM state
    Isa best;        // the highest level this machine runs
};

// The record filled at static initialisation.
const CpuFeatures &cpu_features();

// The level fast paths may use: the detected one, unless a test or benchmark
// forced a lower one.
Isa active_isa();

// Whether fast paths are allowed at all (active_isa() above Literal).
inline bool fast_paths_enabled() { return active_isa() != Isa::Literal; }

namespace testing {
// Test and benchmark build only (defined in impl/testing/dispatch_override.cpp).
// Levels above the detected one are clamped to it.
void force_isa(Isa level);
void clear_forced_isa();
}  // namespace testing

}  // namespace npucpu

#endif

#include "dispatch.h"

#include <cpuid.h>

namespace npucpu {

// Defined only in the test/benchmark build; in libnpucpu.so this weak
// reference stays unresolved (null) and the detected level always applies.
__attribute__((weak, visibility("hidden"))) bool forced_isa_level(Isa *level);

namespace {

uint64_t xcr0() {
    uint32_t eax = 0, edx = 0;
    __asm__ volatile("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0));
    return (static_cast<uint64_t>(edx) << 32) | eax;
}

CpuFeatures detect() {
    CpuFeatures f{false, false, Isa::Portable};
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return f;
    const bool osxsave = (c & bit_OSXSAVE) != 0;
    const bool avx = (c & bit_AVX) != 0;
    const bool fma = (c & bit_FMA) != 0;
    if (!osxsave || !avx) return f;
    const uint64_t xcr = xcr0();
    const bool ymm_state = (xcr & 0x6) == 0x6;            // SSE and AVX state
    const bool zmm_state = (xcr & 0xE6) == 0xE6;          // plus opmask and ZMM state
    if (!__get_cpuid_count(7, 0, &a, &b, &c, &d)) return f;
    const bool avx2 = (b & bit_AVX2) != 0;
    const bool avx512 = (b & bit_AVX512F) && (b & bit_AVX512BW) && (b & bit_AVX512DQ) &&
                        (b & bit_AVX512VL);
    f.avx2_fma = ymm_state && avx2 && fma;
    f.avx512 = f.avx2_fma && zmm_state && avx512;
    f.best = f.avx512 ? Isa::Avx512 : f.avx2_fma ? Isa::Avx2 : Isa::Portable;
    return f;
}

const CpuFeatures kFeatures = detect();

}  // namespace

const CpuFeatures &cpu_features() { return kFeatures; }

Isa active_isa() {
    Isa forced = Isa::Literal;
    if (forced_isa_level != nullptr && forced_isa_level(&forced)) {
        return static_cast<uint32_t>(forced) < static_cast<uint32_t>(kFeatures.best) ? forced
                                                                                     : kFeatures.best;
    }
    return kFeatures.best;
}

}  // namespace npucpu

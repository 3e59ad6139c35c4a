// The dispatch level: detected once, and forced only through the test hook.
#include <gtest/gtest.h>

#include "utils/dispatch.h"

namespace {

using npucpu::Isa;

TEST(Dispatch, ForcingClampsToTheDetectedLevelAndClears) {
    const Isa best = npucpu::cpu_features().best;
    EXPECT_EQ(npucpu::active_isa(), best);
    for (Isa level : {Isa::Literal, Isa::Portable, Isa::Avx2, Isa::Avx512}) {
        npucpu::testing::force_isa(level);
        const Isa want = static_cast<uint32_t>(level) < static_cast<uint32_t>(best) ? level : best;
        EXPECT_EQ(npucpu::active_isa(), want);
        EXPECT_EQ(npucpu::fast_paths_enabled(), want != Isa::Literal);
    }
    npucpu::testing::clear_forced_isa();
    EXPECT_EQ(npucpu::active_isa(), best);
    if (npucpu::cpu_features().avx512) {
        EXPECT_TRUE(npucpu::cpu_features().avx2_fma);
    }
}

}  // namespace

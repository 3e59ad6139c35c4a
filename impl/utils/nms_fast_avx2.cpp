#include <immintrin.h>

#include "nms_fast.h"

namespace npucpu {

bool nms_any_suppresses_avx2(const NmsEdges &c, const NmsSelected &s, float iou_threshold) {
    const __m256 ilo1 = _mm256_set1_ps(c.lo1), ihi1 = _mm256_set1_ps(c.hi1);
    const __m256 ilo2 = _mm256_set1_ps(c.lo2), ihi2 = _mm256_set1_ps(c.hi2);
    const __m256 iarea = _mm256_set1_ps(c.area), thr = _mm256_set1_ps(iou_threshold);
    const __m256 zero = _mm256_setzero_ps();
    uint32_t j = 0;
    for (; j + 8 <= s.count; j += 8) {
        // i > j ? i : j and i < j ? i : j, as the scalar test picks them.
        const __m256 olo1 = _mm256_max_ps(ilo1, _mm256_loadu_ps(s.lo1 + j));
        const __m256 ohi1 = _mm256_min_ps(ihi1, _mm256_loadu_ps(s.hi1 + j));
        const __m256 olo2 = _mm256_max_ps(ilo2, _mm256_loadu_ps(s.lo2 + j));
        const __m256 ohi2 = _mm256_min_ps(ihi2, _mm256_loadu_ps(s.hi2 + j));
        const __m256 jarea = _mm256_loadu_ps(s.area + j);
        const __m256 inter = _mm256_mul_ps(_mm256_sub_ps(ohi1, olo1), _mm256_sub_ps(ohi2, olo2));
        const __m256 uni = _mm256_sub_ps(_mm256_add_ps(iarea, jarea), inter);
        // Each refusal of the scalar test, as an ordered comparison.
        __m256 refused = _mm256_or_ps(_mm256_cmp_ps(olo1, ohi1, _CMP_GE_OQ),
                                      _mm256_cmp_ps(olo2, ohi2, _CMP_GE_OQ));
        refused = _mm256_or_ps(refused, _mm256_cmp_ps(inter, zero, _CMP_LE_OQ));
        refused = _mm256_or_ps(refused, _mm256_cmp_ps(iarea, zero, _CMP_LE_OQ));
        refused = _mm256_or_ps(refused, _mm256_cmp_ps(jarea, zero, _CMP_LE_OQ));
        refused = _mm256_or_ps(refused, _mm256_cmp_ps(uni, zero, _CMP_LE_OQ));
        const __m256 over = _mm256_cmp_ps(_mm256_div_ps(inter, uni), thr, _CMP_GT_OQ);
        if (_mm256_movemask_ps(_mm256_andnot_ps(refused, over)) != 0) return true;
    }
    for (; j < s.count; ++j) {
        if (nms_suppresses(c, s, j, iou_threshold)) return true;
    }
    return false;
}

}  // namespace npucpu

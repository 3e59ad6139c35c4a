// Fast suppression test of non-maximum suppression: one candidate against
// every selected box, eight at a time, with suppress_by_iou's arithmetic per
// pair (edges and areas computed once per box by the same expressions).
#ifndef NPUCPU_IMPL_UTILS_NMS_FAST_H
#define NPUCPU_IMPL_UTILS_NMS_FAST_H

#include <cstdint>

namespace npucpu {

// Low and high edges on the test's first and second axis, and the area.
struct NmsEdges {
    float lo1, hi1, lo2, hi2, area;
};

// The selected boxes, one array per field.
struct NmsSelected {
    float *lo1, *hi1, *lo2, *hi2, *area;
    uint32_t count;
};

// Whether any selected box suppresses the candidate (suppress_by_iou true).
bool nms_any_suppresses_avx2(const NmsEdges &c, const NmsSelected &s, float iou_threshold);
bool nms_suppresses(const NmsEdges &c, const NmsSelected &s, uint32_t j, float iou_threshold);

}  // namespace npucpu

#endif

// Non-maximum suppression: for every batch and class, the highest-scoring
// boxes that no already selected box overlaps by more than an IoU threshold,
// listed as (batch, class, box) index triples.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <vector>

#include "npucpu.h"
#include "utils/dispatch.h"
#include "utils/nms_fast.h"
#include "utils/op_context.h"
#include "utils/op_log.h"
#include "utils/stable_sort.h"

namespace {

constexpr uint32_t kBoxCoords = 4;      // elements of one box
constexpr uint32_t kTripleValues = 3;   // (batch, class, box) per output row
constexpr uint64_t kRowBytes = kTripleValues * sizeof(int64_t);

// Reads the leading scalar of an optional input: `fallback` when the input is
// not there, its buffer is null, or the buffer is too short to hold one
// element (a short buffer is read as far as it goes, which is not at all).
template <typename T>
T optional_scalar(OperatorContext *handle, uint32_t count, uint32_t index, T fallback) {
    if (count <= index) return fallback;
    const npucpu::TensorInfo in = npucpu::input_info(handle, index);
    if (in.buf == nullptr || in.buf_len < sizeof(T)) return fallback;
    T v;
    std::memcpy(&v, in.buf, sizeof(T));
    return v;
}

// max_output_boxes_per_class; a negative count selects nothing, like 0.
int64_t max_boxes_per_class(OperatorContext *handle, uint32_t count) {
    const int64_t v = optional_scalar<int64_t>(handle, count, 2, 0);
    return v < 0 ? 0 : v;
}

// Boxes selected at most per (batch, class): the count, capped by the boxes
// there are (compared as signed 64-bit; the result fits 32 bits).
uint32_t per_class_limit(int64_t max_boxes, uint32_t spatial) {
    return static_cast<uint32_t>(max_boxes < static_cast<int64_t>(spatial) ? max_boxes : spatial);
}

// Product that sticks at the largest value instead of wrapping, for size
// checks that must not be fooled by overflow.
uint64_t saturating_mul(uint64_t a, uint64_t b) {
    if (a != 0 && b > std::numeric_limits<uint64_t>::max() / a) {
        return std::numeric_limits<uint64_t>::max();
    }
    return a * b;
}

uint64_t declared_elements(const TensorShape &s) {
    uint64_t n = 1;
    for (uint32_t k = 0; k < s.dim_num; ++k) n = saturating_mul(n, s.dims[k]);
    return n;
}

// Low and high edge of one axis of a box. Centre form: `a` is the centre and
// `b` the extent; corner form: the two coordinates in either order.
void box_edges(float a, float b, bool centre, float *lo, float *hi) {
    if (centre) {
        *lo = a - b * 0.5f;
        *hi = a + b * 0.5f;
    } else if (a >= b) {
        *lo = b;
        *hi = a;
    } else {
        *lo = a;
        *hi = b;
    }
}

// The edges suppress_by_iou takes from one box, and its area, by the same
// expressions.
npucpu::NmsEdges edges_of(const float *box, bool centre) {
    const int first_a = centre ? 0 : 1, first_b = centre ? 2 : 3;
    const int second_a = centre ? 1 : 0, second_b = centre ? 3 : 2;
    npucpu::NmsEdges e;
    box_edges(box[first_a], box[first_b], centre, &e.lo1, &e.hi1);
    box_edges(box[second_a], box[second_b], centre, &e.lo2, &e.hi2);
    e.area = (e.hi1 - e.lo1) * (e.hi2 - e.lo2);
    return e;
}

// Sort key of a candidate: ascending keys give descending scores, equal
// scores (-0.0 and +0.0 included) in ascending box order, the order the
// stable sort with cmp_bbox_info gives a slice without NaN.
uint64_t candidate_key(float score, uint64_t index) {
    if (score == 0.0f) score = 0.0f;  // -0.0 ties with +0.0
    uint32_t bits;
    std::memcpy(&bits, &score, sizeof bits);
    // Ascending order of floats as unsigned keys, then reversed.
    const uint32_t ascending = (bits & 0x80000000u) ? ~bits : bits | 0x80000000u;
    return (static_cast<uint64_t>(~ascending) << 32) | index;
}

struct Selected {
    int64_t batch;
    int64_t cls;
    int64_t box;
};

bool any_suppresses(const npucpu::NmsEdges &c, const npucpu::NmsSelected &s, float threshold) {
    for (uint32_t j = 0; j < s.count; ++j) {
        if (npucpu::nms_suppresses(c, s, j, threshold)) return true;
    }
    return false;
}

}  // namespace

namespace npucpu {

// suppress_by_iou's test on precomputed edges (candidate i, selected j).
bool nms_suppresses(const NmsEdges &c, const NmsSelected &s, uint32_t j, float iou_threshold) {
    const float o_lo1 = c.lo1 > s.lo1[j] ? c.lo1 : s.lo1[j];
    const float o_hi1 = c.hi1 < s.hi1[j] ? c.hi1 : s.hi1[j];
    if (o_lo1 >= o_hi1) return false;
    const float o_lo2 = c.lo2 > s.lo2[j] ? c.lo2 : s.lo2[j];
    const float o_hi2 = c.hi2 < s.hi2[j] ? c.hi2 : s.hi2[j];
    if (o_lo2 >= o_hi2) return false;
    const float inter = (o_hi1 - o_lo1) * (o_hi2 - o_lo2);
    if (inter <= 0.0f || c.area <= 0.0f || s.area[j] <= 0.0f) return false;
    const float uni = c.area + s.area[j] - inter;
    if (uni <= 0.0f) return false;
    return inter / uni > iou_threshold;
}

}  // namespace npucpu

extern "C" {

NPU_API int cmp_bbox_info(const void *a, const void *b) {
    const float sa = static_cast<const BboxInfo *>(a)->score;
    const float sb = static_cast<const BboxInfo *>(b)->score;
    if (sa == sb) return 0;
    return sa < sb ? 1 : -1;
}

NPU_API bool suppress_by_iou(const float *boxes, int64_t i, int64_t j, int64_t center_point_box,
                             float iou_threshold) {
    if (boxes == nullptr) return false;  // guard: no boxes, no overlap
    const float *bi = boxes + i * kBoxCoords;
    const float *bj = boxes + j * kBoxCoords;
    const bool centre = center_point_box != 0;
    // Centre form pairs ([0], [2]) then ([1], [3]); corner form tests the
    // ([1], [3]) axis first. A product of the two lengths is the same in
    // either order, so only which axis can end the test early differs.
    const int first_a = centre ? 0 : 1, first_b = centre ? 2 : 3;
    const int second_a = centre ? 1 : 0, second_b = centre ? 3 : 2;

    float i_lo1, i_hi1, j_lo1, j_hi1, i_lo2, i_hi2, j_lo2, j_hi2;
    box_edges(bi[first_a], bi[first_b], centre, &i_lo1, &i_hi1);
    box_edges(bj[first_a], bj[first_b], centre, &j_lo1, &j_hi1);
    const float o_lo1 = i_lo1 > j_lo1 ? i_lo1 : j_lo1;
    const float o_hi1 = i_hi1 < j_hi1 ? i_hi1 : j_hi1;
    if (o_lo1 >= o_hi1) return false;

    box_edges(bi[second_a], bi[second_b], centre, &i_lo2, &i_hi2);
    box_edges(bj[second_a], bj[second_b], centre, &j_lo2, &j_hi2);
    const float o_lo2 = i_lo2 > j_lo2 ? i_lo2 : j_lo2;
    const float o_hi2 = i_hi2 < j_hi2 ? i_hi2 : j_hi2;
    if (o_lo2 >= o_hi2) return false;

    const float inter = (o_hi1 - o_lo1) * (o_hi2 - o_lo2);
    const float area_i = (i_hi1 - i_lo1) * (i_hi2 - i_lo2);
    const float area_j = (j_hi1 - j_lo1) * (j_hi2 - j_lo2);
    if (inter <= 0.0f || area_i <= 0.0f || area_j <= 0.0f) return false;
    const float uni = area_i + area_j - inter;
    if (uni <= 0.0f) return false;
    return inter / uni > iou_threshold;
}

NPU_API uint32_t nms_infershape(OperatorContext *handle) {
    const uint32_t count = npucpu::input_count(handle);
    TensorShape boxes{}, scores{};
    qv_kel_custom_get_input_shape_by_index(handle, 0, &boxes);
    qv_kel_custom_get_input_shape_by_index(handle, 1, &scores);

    // Shape mismatches are reported but do not stop the inference.
    if (boxes.dim_num != 3 || scores.dim_num != 3) {
        NPU_ERROR("boxes and score must be a 3D tensor. \n");
    }
    if (boxes.dims[0] != scores.dims[0]) {
        NPU_ERROR("boxes and scores should have same num_batches. \n");
    }
    if (boxes.dims[1] != scores.dims[2]) {
        NPU_ERROR("boxes and scores should have same spatial_dimension. \n");
    }
    if (boxes.dims[2] != kBoxCoords) {
        NPU_ERROR("the most inner dimension in boxes must have 4 data. \n");
    }
    if (boxes.dim_num == 0 || scores.dim_num == 0) return NPU_ERR_INPUT;

    const int64_t max_boxes = max_boxes_per_class(handle, count);
    const uint32_t per_class = per_class_limit(max_boxes, boxes.dims[1]);
    TensorShape out{};
    out.dim_num = 2;
    out.dims[0] = boxes.dims[0] * scores.dims[1] * per_class;  // 32-bit product, wraps
    out.dims[1] = kTripleValues;
    npucpu::set_output_desc(handle, 0, out, NPU_DTYPE_INT64, NPU_FORMAT_MATRIX);
    return NPU_OK;
}

NPU_API uint32_t nms_check_supported(OperatorContext *handle) {
    uint32_t dtype = 0;
    if (qv_kel_custom_get_input_dtype_by_index(handle, 0, &dtype) != NPU_OK) return 0;
    return dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

NPU_API uint32_t nms_compute(OperatorContext *handle) {
    const uint32_t count = npucpu::input_count(handle);
    const int64_t max_boxes = max_boxes_per_class(handle, count);
    if (max_boxes == 0) {
        // Nothing to select: an empty [0, 3] result, data left untouched.
        TensorShape empty{};
        empty.dim_num = 2;
        empty.dims[0] = 0;
        empty.dims[1] = kTripleValues;
        qv_kel_custom_set_output_shape_by_index(handle, 0, &empty);
        qv_kel_custom_set_output_format_by_index(handle, 0, NPU_FORMAT_MATRIX);
        return NPU_OK;
    }

    const float iou_threshold = optional_scalar<float>(handle, count, 3, 0.0f);
    const float score_threshold = optional_scalar<float>(handle, count, 4, 0.0f);
    // Read only when present, so an absent attribute logs nothing.
    int64_t center_point_box = 0;
    if (npucpu::has_attr(handle, "center_point_box")) {
        center_point_box = npucpu::attr_int(handle, "center_point_box", 0);
    }

    const npucpu::TensorInfo boxes_in = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo scores_in = npucpu::input_info(handle, 1);
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    const uint64_t num_batches = boxes_in.shape.dims[0];
    const uint64_t spatial = boxes_in.shape.dims[1];
    const uint64_t num_classes = scores_in.shape.dims[1];
    const uint32_t max_out = per_class_limit(max_boxes, boxes_in.shape.dims[1]);

    // Guard: null buffers, or declared shapes (or buffers, for data types
    // narrower than float) too small for the boxes and scores the loops below
    // index, are refused before anything is written.
    if (boxes_in.buf == nullptr || scores_in.buf == nullptr || out.buf == nullptr) {
        return NPU_ERR_INVALID_ARG;
    }
    const uint64_t boxes_held =
        std::min<uint64_t>(declared_elements(boxes_in.shape), boxes_in.buf_len / sizeof(float));
    const uint64_t scores_held =
        std::min<uint64_t>(declared_elements(scores_in.shape), scores_in.buf_len / sizeof(float));
    if (boxes_held < saturating_mul(saturating_mul(num_batches, spatial), kBoxCoords) ||
        scores_held <
            saturating_mul(saturating_mul(num_batches, num_classes), spatial)) {
        return NPU_ERR_INVALID_ARG;
    }

    const float *boxes = static_cast<const float *>(boxes_in.buf);
    const float *scores = static_cast<const float *>(scores_in.buf);
    std::memset(out.buf, 0, out.buf_len);
    // At least one record each, so that an empty array is not mistaken for a
    // failed allocation.
    const uint64_t cand_records = spatial ? spatial : 1;
    const uint64_t sel_records = max_out ? max_out : 1;
    BboxInfo *cands = static_cast<BboxInfo *>(std::malloc(cand_records * sizeof(BboxInfo)));
    Selected *sel = static_cast<Selected *>(std::malloc(sel_records * sizeof(Selected)));
    if (cands == nullptr || sel == nullptr) {
        std::free(cands);
        std::free(sel);
        return NPU_ERR_INVALID_ARG;
    }

    // Fast path state: heap keys and the selected boxes' edges.
    const bool fast = npucpu::fast_paths_enabled();
    const bool avx2 = npucpu::active_isa() >= npucpu::Isa::Avx2;
    const bool centre = center_point_box != 0;
    std::vector<uint64_t> keys;
    std::vector<float> sel_lo1(fast ? sel_records : 0), sel_hi1(fast ? sel_records : 0),
        sel_lo2(fast ? sel_records : 0), sel_hi2(fast ? sel_records : 0),
        sel_area(fast ? sel_records : 0);

    int64_t *rows = static_cast<int64_t *>(out.buf);
    // Guard: rows past the output buffer (an inferred row count that wrapped
    // in 32 bits) are dropped instead of written.
    const uint64_t row_capacity = out.buf_len / kRowBytes;
    uint64_t row = 0;
    for (uint64_t b = 0; b < num_batches; ++b) {
        const float *batch_boxes = boxes + b * spatial * kBoxCoords;
        for (uint64_t c = 0; c < num_classes; ++c) {
            const float *class_scores = scores + b * spatial * num_classes + c * spatial;
            // A score threshold of exactly 0.0 keeps every box, negative
            // scores included.
            uint64_t n = 0;
            for (uint64_t k = 0; k < spatial; ++k) {
                if (score_threshold == 0.0f || class_scores[k] > score_threshold) {
                    cands[n].score = class_scores[k];
                    cands[n].index = static_cast<int64_t>(k);
                    ++n;
                }
            }
            if (n == 0) continue;

            uint32_t selected = 0;
            if (fast && spatial < (uint64_t{1} << 32)) {
                // Candidates in sort order from a heap, taken only as far
                // as the selection goes, where no score is NaN (the
                // comparator orders the others consistently).
                bool nan = false;
                for (uint64_t k = 0; k < n; ++k) nan |= cands[k].score != cands[k].score;
                if (!nan) {
                    keys.resize(n);
                    for (uint64_t k = 0; k < n; ++k) {
                        keys[k] = candidate_key(cands[k].score, static_cast<uint64_t>(cands[k].index));
                    }
                    std::make_heap(keys.begin(), keys.end(), std::greater<uint64_t>());
                    npucpu::NmsSelected chosen{sel_lo1.data(), sel_hi1.data(), sel_lo2.data(),
                                               sel_hi2.data(), sel_area.data(), 0};
                    for (uint64_t left = n; left > 0 && selected < max_out; --left) {
                        std::pop_heap(keys.begin(), keys.begin() + left, std::greater<uint64_t>());
                        const int64_t box = static_cast<int64_t>(keys[left - 1] & 0xffffffffu);
                        const npucpu::NmsEdges e = edges_of(batch_boxes + box * kBoxCoords, centre);
                        const bool suppressed =
                            avx2 ? npucpu::nms_any_suppresses_avx2(e, chosen, iou_threshold)
                                 : any_suppresses(e, chosen, iou_threshold);
                        if (suppressed) continue;
                        chosen.lo1[selected] = e.lo1;
                        chosen.hi1[selected] = e.hi1;
                        chosen.lo2[selected] = e.lo2;
                        chosen.hi2[selected] = e.hi2;
                        chosen.area[selected] = e.area;
                        chosen.count = selected + 1;
                        sel[selected++] = Selected{static_cast<int64_t>(b), static_cast<int64_t>(c), box};
                    }
                    for (uint32_t s = 0; s < selected; ++s, ++row) {
                        if (row >= row_capacity) continue;
                        rows[row * kTripleValues + 0] = sel[s].batch;
                        rows[row * kTripleValues + 1] = sel[s].cls;
                        rows[row * kTripleValues + 2] = sel[s].box;
                    }
                    continue;
                }
            }
            // Stable: equal scores keep ascending box order.
            npucpu::stable_sort(cands, n, sizeof(BboxInfo), cmp_bbox_info);

            for (uint64_t k = 0; k < n; ++k) {
                bool suppressed = false;
                for (uint32_t s = 0; s < selected && !suppressed; ++s) {
                    suppressed = suppress_by_iou(batch_boxes, cands[k].index, sel[s].box,
                                                 center_point_box, iou_threshold);
                }
                if (!suppressed) {
                    sel[selected++] = Selected{static_cast<int64_t>(b), static_cast<int64_t>(c),
                                               cands[k].index};
                }
                if (selected >= max_out) break;
            }
            for (uint32_t s = 0; s < selected; ++s, ++row) {
                if (row >= row_capacity) continue;
                rows[row * kTripleValues + 0] = sel[s].batch;
                rows[row * kTripleValues + 1] = sel[s].cls;
                rows[row * kTripleValues + 2] = sel[s].box;
            }
        }
    }
    std::free(cands);
    std::free(sel);
    return NPU_OK;
}

}  // extern "C"

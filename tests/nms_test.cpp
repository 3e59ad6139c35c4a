// Non-maximum suppression: shape and warnings, selection and packing, refusals.
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "npucpu.h"
#include "test_util.h"

namespace {

using namespace npucpu_test;
using Row = std::array<int64_t, 3>;
constexpr int64_t kSentinel = 0x5a5a5a5a5a5a5a5a;

struct NmsCall {
    std::vector<float> boxes;
    std::vector<uint32_t> box_dims;
    std::vector<float> scores;
    std::vector<uint32_t> score_dims;
    int64_t max_out = 0;
    float iou = 0.0f, score_thr = 0.0f;
    int64_t center_point_box = -1;  // -1: attribute absent
};

// Runs infershape and compute on a host-built context with all five inputs,
// the output allocated from the inferred shape and filled with a sentinel;
// both must succeed silently.
std::pair<std::vector<uint32_t>, std::vector<Row>> run_nms(NmsCall call) {
    Ctx ctx(5, 1, call.center_point_box >= 0 ? 1 : 0);
    ctx.input(0, shape_of(call.box_dims), call.boxes.data(), call.boxes.size() * sizeof(float));
    ctx.input(1, shape_of(call.score_dims), call.scores.data(), call.scores.size() * sizeof(float));
    ctx.input(2, shape_of({1}), &call.max_out, sizeof(int64_t), NPU_DTYPE_INT64);
    ctx.input(3, shape_of({1}), &call.iou, sizeof(float));
    ctx.input(4, shape_of({1}), &call.score_thr, sizeof(float));
    if (call.center_point_box >= 0) ctx.attr_int(0, "center_point_box", call.center_point_box);
    std::vector<Row> out;
    EXPECT_EQ(capture_stderr([&] {
                  EXPECT_EQ(nms_infershape(ctx.h), NPU_OK);
                  const TensorShape s = ctx.output_shape(0);
                  out.assign(GetElemSize(&s) / 3, Row{kSentinel, kSentinel, kSentinel});
                  qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), out.size() * sizeof(Row));
                  EXPECT_EQ(nms_compute(ctx.h), NPU_OK);
              }), "");
    return {dims_of(ctx.output_shape(0)), out};
}

constexpr int64_t kNoCount = INT64_MIN;  // max_output_boxes_per_class input absent

// Two unit squares far apart, plus a copy of the first.
const std::vector<float> kSquareSquareCopy = {0, 0, 1, 1, 5, 5, 6, 6, 0, 0, 1, 1};

TEST(Nms, Selection) {
    const std::vector<float> two_far = {0, 0, 1, 1, 5, 5, 6, 6}, two_same = {0, 0, 1, 1, 0, 0, 1, 1};
    const std::vector<float> nested = {0, 0, 4, 4, 1, 1, 4, 4};
    const std::vector<uint32_t> b2 = {1, 2, 4}, s2 = {1, 1, 2};
    const struct {
        const char *name;
        NmsCall call;
        std::vector<uint32_t> out_dims;
        std::vector<Row> rows;  // the whole output, zero rows included
    } cases[] = {
        {"identical boxes, IoU 1.0 above threshold 0.5", {two_same, b2, {0.9f, 0.8f}, s2, 2, 0.5f}, {2, 3},
         {{0, 0, 0}, {0, 0, 0}}},
        {"identical boxes, IoU 1.0 not above threshold 1.0", {two_same, b2, {0.9f, 0.8f}, s2, 2, 1.0f}, {2, 3},
         {{0, 0, 0}, {0, 0, 1}}},
        {"score threshold 0.0 keeps negative scores, best first", {two_far, b2, {-0.5f, -0.1f}, s2, 2, 0.5f, 0.0f},
         {2, 3}, {{0, 0, 1}, {0, 0, 0}}},
        {"score threshold 0.1 drops a score of exactly 0.1", {two_far, b2, {0.1f, 0.2f}, s2, 2, 0.5f, 0.1f}, {2, 3},
         {{0, 0, 1}, {0, 0, 0}}},
        {"touching boxes never suppress, even at threshold 0",
         {{0, 0, 1, 1, 0, 1, 1, 2, 1, 0, 2, 1}, {1, 3, 4}, {0.9f, 0.8f, 0.7f}, {1, 1, 3}, 3, 0.0f}, {3, 3},
         {{0, 0, 0}, {0, 0, 1}, {0, 0, 2}}},
        {"corners given high first describe the same box", {{0, 0, 2, 2, 2, 2, 0, 0}, b2, {0.9f, 0.8f}, s2, 2, 0.99f},
         {2, 3}, {{0, 0, 0}, {0, 0, 0}}},
        {"corner form: IoU 9/16 suppresses at 0.45", {nested, b2, {0.9f, 0.8f}, s2, 2, 0.45f, 0.0f, 0}, {2, 3},
         {{0, 0, 0}, {0, 0, 0}}},
        {"centre form: the same numbers overlap 9/23 and survive 0.45",
         {nested, b2, {0.9f, 0.8f}, s2, 2, 0.45f, 0.0f, 1}, {2, 3}, {{0, 0, 0}, {0, 0, 1}}},
        {"equal scores keep ascending box order",
         {npucpu_test::iota(16, 0.0f), {1, 4, 4}, {0.5f, 0.9f, 0.5f, 0.9f}, {1, 1, 4}, 4, 0.5f}, {4, 3},
         {{0, 0, 1}, {0, 0, 3}, {0, 0, 0}, {0, 0, 2}}},
        {"classes packed in order without gaps, remainder zero",
         {kSquareSquareCopy, {1, 3, 4}, {0.9f, 0.8f, 0.7f, 0.2f, 0.05f, 0.6f}, {1, 2, 3}, 2, 0.5f, 0.1f}, {4, 3},
         {{0, 0, 0}, {0, 0, 1}, {0, 1, 2}, {0, 0, 0}}},
        {"a suppressed candidate does not use up the count",
         {kSquareSquareCopy, {1, 3, 4}, {0.9f, 0.1f, 0.8f}, {1, 1, 3}, 2, 0.5f}, {2, 3}, {{0, 0, 0}, {0, 0, 1}}},
        {"batch-major: each batch's boxes are its own",
         {{0, 0, 1, 1, 5, 5, 6, 6, 0, 0, 1, 1, 0, 0, 1, 1}, {2, 2, 4}, {0.9f, 0.8f, 0.7f, 0.6f}, {2, 1, 2}, 2, 0.5f},
         {4, 3}, {{0, 0, 0}, {0, 0, 1}, {1, 0, 0}, {0, 0, 0}}},
        {"the count is capped by the number of boxes", {two_far, b2, {0.9f, 0.8f}, s2, 100, 0.5f}, {2, 3},
         {{0, 0, 0}, {0, 0, 1}}},
        {"a negative count selects nothing", {{0, 0, 1, 1}, {1, 1, 4}, {0.9f}, {1, 1, 1}, -3, 0.5f}, {0, 3}, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(run_nms(c.call), std::make_pair(c.out_dims, c.rows));
    }
}

TEST(Nms, InfershapeWarningsAndShape) {
    const std::string pre = "[E] [custom] [nms_ops_impl:L] ";
    const std::string inner = pre + "the most inner dimension in boxes must have 4 data. \n";
    const std::string three = pre + "boxes and score must be a 3D tensor. \n" + pre +
                              "boxes and scores should have same num_batches. \n" + pre +
                              "boxes and scores should have same spatial_dimension. \n";
    const struct {
        const char *name;
        std::vector<uint32_t> box_dims, score_dims;
        int64_t max_out;
        uint32_t status;
        std::string err;
        std::vector<uint32_t> out_dims;
    } cases[] = {
        {"consistent shapes", {2, 5, 4}, {2, 3, 5}, 4, NPU_OK, "", {24, 3}},
        {"last dim not 4 only warns", {1, 2, 5}, {1, 1, 2}, 2, NPU_OK, inner, {2, 3}},
        {"every warning, in order, then the shape", {2, 4}, {1, 1, 2}, 1, NPU_OK, three + inner, {2, 3}},
        {"rank-0 scores are refused after the warnings", {1, 1, 4}, {}, 1, NPU_ERR_INPUT, three, {}},
        {"zero count gives no rows", {1, 4, 4}, {1, 2, 4}, 0, NPU_OK, "", {0, 3}},
        {"negative count gives no rows", {1, 4, 4}, {1, 2, 4}, -1, NPU_OK, "", {0, 3}},
        {"no count input gives no rows", {1, 4, 4}, {1, 2, 4}, kNoCount, NPU_OK, "", {0, 3}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<float> boxes(64), scores(64);
        int64_t max_out = c.max_out;
        Ctx ctx(c.max_out == kNoCount ? 2 : 3, 1);
        ctx.input(0, shape_of(c.box_dims), boxes);
        ctx.input(1, shape_of(c.score_dims), scores);
        if (c.max_out != kNoCount) ctx.input(2, shape_of({1}), &max_out, sizeof(max_out), NPU_DTYPE_INT64);
        uint32_t status = 0;
        EXPECT_EQ(mask_error_lines(capture_stderr([&] { status = nms_infershape(ctx.h); })), c.err);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(dims_of(ctx.output_shape(0)), c.out_dims);
        if (c.status == NPU_OK) {
            uint32_t dtype = 0, format = 0;
            qv_kel_custom_get_output_dtype_by_index(ctx.h, 0, &dtype);
            qv_kel_custom_get_output_format_by_index(ctx.h, 0, &format);
            EXPECT_EQ(dtype, NPU_DTYPE_INT64);
            EXPECT_EQ(format, NPU_FORMAT_MATRIX);
            EXPECT_EQ(nms_check_supported(ctx.h), 1u);
        }
    }
}

// Malformed compute calls: refused with 0xa0808003 and nothing written, or
// (for a too-short output) written only as far as the buffer goes.
TEST(Nms, ComputeGuards) {
    const Row s{kSentinel, kSentinel, kSentinel};
    const std::vector<uint32_t> b = {1, 2, 4}, sc = {1, 1, 2};
    const uint32_t ARG = NPU_ERR_INVALID_ARG;
    const struct {
        const char *name;
        std::vector<uint32_t> box_dims, score_dims;
        bool null_boxes, null_scores, null_out;
        int64_t max_out;
        size_t out_rows;  // rows the output buffer holds
        uint32_t status;
        std::vector<Row> rows;
    } cases[] = {
        {"null boxes", b, sc, true, false, false, 2, 2, ARG, {s, s}},
        {"null scores", b, sc, false, true, false, 2, 2, ARG, {s, s}},
        {"null output", b, sc, false, false, true, 2, 2, ARG, {s, s}},
        {"boxes shape below batches x boxes x 4", {1, 2, 3}, sc, false, false, false, 2, 2, ARG, {s, s}},
        {"scores shape below batches x classes x boxes", b, {1, 1}, false, false, false, 2, 2, ARG, {s, s}},
        {"zero count returns before the buffer checks", b, sc, true, false, false, 0, 2, NPU_OK, {s, s}},
        {"no count input: nothing written", b, sc, false, false, false, kNoCount, 2, NPU_OK, {s, s}},
        {"rows past a short output are dropped", b, sc, false, false, false, 2, 1, NPU_OK, {{0, 0, 0}, s}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<float> boxes = {0, 0, 1, 1, 5, 5, 6, 6}, scores = {0.9f, 0.8f};
        int64_t max_out = c.max_out;
        std::vector<Row> out(2, s);
        Ctx ctx(c.max_out == kNoCount ? 2 : 3, 1);
        ctx.input(0, shape_of(c.box_dims), c.null_boxes ? nullptr : boxes.data(), 32);
        ctx.input(1, shape_of(c.score_dims), c.null_scores ? nullptr : scores.data(), 8);
        if (c.max_out != kNoCount) ctx.input(2, shape_of({1}), &max_out, 8, NPU_DTYPE_INT64);
        capture_stderr([&] { ASSERT_EQ(nms_infershape(ctx.h), NPU_OK); });
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, c.null_out ? nullptr : out.data(), c.out_rows * sizeof(Row));
        uint32_t status = 0;
        EXPECT_EQ(capture_stderr([&] { status = nms_compute(ctx.h); }), "");
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(out, c.rows);
    }
}

TEST(Nms, IouTestComparatorAndDataType) {
    const struct {
        const char *name;
        std::vector<float> boxes;  // two boxes
        int64_t center_point_box;
        float threshold;
        bool suppressed;
    } cases[] = {
        {"half overlap: IoU 1/3 above 0.3", {0, 0, 2, 2, 0, 1, 2, 3}, 0, 0.3f, true},
        {"half overlap: IoU 1/3 not above 0.34", {0, 0, 2, 2, 0, 1, 2, 3}, 0, 0.34f, false},
        {"shared edge is no overlap", {0, 0, 1, 1, 1, 0, 2, 1}, 0, -1.0f, false},
        {"swapped corners on both boxes", {2, 2, 0, 0, 3, 2, 0, 1}, 0, 0.3f, true},
        {"degenerate box has no area", {0, 0, 0, 2, 0, 0, 2, 2}, 0, -1.0f, false},
        {"centre form", {1, 1, 2, 2, 1, 2, 2, 2}, 1, 0.3f, true},
        {"centre form with shared edge", {1, 1, 2, 2, 3, 1, 2, 2}, 1, -1.0f, false},
        {"NaN coordinate never suppresses", {0, 0, 2, 2, 0, 0, 2, NAN}, 0, -1.0f, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(suppress_by_iou(c.boxes.data(), 0, 1, c.center_point_box, c.threshold), c.suppressed);
        EXPECT_EQ(suppress_by_iou(c.boxes.data(), 1, 0, c.center_point_box, c.threshold), c.suppressed);
    }
    std::vector<float> data(4);  // check_supported refuses integer boxes
    Ctx ints(2, 1);
    ints.input(0, shape_of({1, 1, 4}), data.data(), 16, NPU_DTYPE_INT32);
    EXPECT_EQ(nms_check_supported(ints.h), 0u);
    const BboxInfo low{0.25f, 7}, high{0.75f, 1}, low2{0.25f, 3};
    EXPECT_EQ(cmp_bbox_info(&low, &high), 1);
    EXPECT_EQ(cmp_bbox_info(&high, &low), -1);
    EXPECT_EQ(cmp_bbox_info(&low, &low2), 0);
}

}  // namespace

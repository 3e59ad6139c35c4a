// Context lifecycle, counts, whole-record setters and attribute storage.
#include <gtest/gtest.h>

#include <cstring>

#include "test_util.h"

using namespace npucpu_test;

namespace {

TEST(Context, CreateAndDestroy) {
    OperatorContext *h = nullptr;
    ASSERT_EQ(qv_kel_custom_create_handle(&h), NPU_OK);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(qv_kel_custom_destory_handle(&h), NPU_OK);
    EXPECT_EQ(h, nullptr);  // the caller's handle is cleared
    // Destroying a null handle succeeds silently.
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(qv_kel_custom_destory_handle(&h), NPU_OK); }), "");
}

TEST(Context, NullHandleMessagesAndStatuses) {
    TensorShape s = shape_of({2});
    float buf[2];
    const uint32_t ARG = NPU_ERR_INVALID_ARG;
    struct Case { const char *func; std::function<uint32_t()> call; uint32_t status; };
#define SET(fn, args, status) Case{"qv_kel_custom_" #fn, [&] { return qv_kel_custom_##fn args; }, status}
    const Case cases[] = {
        SET(set_inputs_num, (nullptr, 1), ARG), SET(set_outputs_num, (nullptr, 1), ARG),
        SET(set_attrs_num, (nullptr, 1), NPU_FAIL), SET(set_attr_by_index, (nullptr, 0, "a", 0, 0, nullptr, 0), NPU_FAIL),
        SET(set_input_by_index, (nullptr, 0, 0, 0, &s, buf, 8, 0), ARG),
        SET(set_output_by_index, (nullptr, 0, 0, 0, &s, buf, 8), ARG),
    };
#undef SET
    for (const Case &c : cases) {
        SCOPED_TRACE(c.func);
        uint32_t status = 0;
        std::string out = capture_stdout([&] { status = c.call(); });
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(mask_log_lines(out), std::string("T Err   ") + c.func + ":L handle is null\n");
    }
}

// Setting the same count keeps the descriptions, another count discards them
// (releasing output names; the sanitizer build sees any leak). Changing the
// attribute count keeps the rest of the context.
TEST(Context, Counts) {
    Ctx c(1, 2, 1);
    float buf[4] = {};
    c.input(0, shape_of({4}), buf, sizeof buf);
    ASSERT_EQ(qv_kel_custom_set_inputs_num(c.h, 1), NPU_OK);
    EXPECT_EQ(c.h->inputs[0].buf, buf);
    ASSERT_EQ(qv_kel_custom_set_inputs_num(c.h, 2), NPU_OK);
    EXPECT_EQ(c.h->inputs[0].buf, nullptr);
    ASSERT_EQ(qv_kel_custom_set_inputs_num(c.h, 0), NPU_OK);
    std::string out = capture_stdout([&] { EXPECT_EQ(qv_kel_custom_get_input_buf_by_index(c.h, 0), nullptr); });
    EXPECT_EQ(mask_log_lines(out), "T Err   qv_kel_custom_get_input_buf_by_index:L idx [0] is out of range, total tensor num [0]\n");
    ASSERT_EQ(qv_kel_custom_set_output_name_by_index(c.h, 1, "scores"), NPU_OK);
    ASSERT_EQ(qv_kel_custom_set_outputs_num(c.h, 1), NPU_OK);
    EXPECT_EQ(c.h->outputs[0].name.data, nullptr);
    ASSERT_EQ(qv_kel_custom_set_attrs_num(c.h, 3), NPU_OK);
    EXPECT_EQ(c.h->attr_num, 3u);
    EXPECT_EQ(c.h->output_num, 1u);
}

TEST(Context, WholeRecordSetters) {
    Ctx c(1, 1);
    float buf[24] = {};
    // A lower rank keeps the dims past it.
    c.input(0, shape_of({2, 3, 4, 1}), buf, sizeof buf);
    c.input(0, shape_of({6, 4}), buf, sizeof buf);
    const TensorShape &d = c.h->inputs[0].shape;
    EXPECT_EQ(d.dim_num, 2);
    EXPECT_EQ(std::vector<uint32_t>(d.dims, d.dims + 4), (std::vector<uint32_t>{6, 4, 4, 1}));
    // The output setter does not recompute the width stride.
    TensorShape s = shape_of({2, 3});
    ASSERT_EQ(qv_kel_custom_set_output_by_index(c.h, 0, 0, 0, &s, buf, sizeof buf), NPU_OK);
    EXPECT_EQ(c.h->outputs[0].wstride, 0u);
    EXPECT_EQ(c.h->outputs[0].buf, buf);
    // Shapes the context cannot hold are refused and nothing is stored.
    Ctx e(1, 1);
    TensorShape big = shape_of({1});
    big.dim_num = 17;
    EXPECT_EQ(qv_kel_custom_set_input_by_index(e.h, 0, 0, 0, &big, buf, 16, 0), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(qv_kel_custom_set_input_by_index(e.h, 0, 0, 0, nullptr, buf, 16, 0), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(qv_kel_custom_set_output_shape_by_index(e.h, 0, &big), NPU_ERR_INVALID_ARG);
    EXPECT_EQ(e.h->inputs[0].shape.dim_num, 0);
    EXPECT_EQ(e.h->inputs[0].buf, nullptr);
    EXPECT_EQ(e.h->outputs[0].shape.dim_num, 0);
}

TEST(Context, AttributeIndexChecksAndNameStorage) {
    Ctx c(0, 0, 2);
    int64_t v = 3;
    std::string out = capture_stdout([&] {
        EXPECT_EQ(qv_kel_custom_set_attr_by_index(c.h, 2, "axis", 0, NPU_ATTR_INT, &v, 8), NPU_ERR_INVALID_ARG);
    });
    EXPECT_EQ(mask_log_lines(out), "T Err   qv_kel_custom_set_attr_by_index:L idx [2] is out of range, total attr num [2]\n");
    ASSERT_EQ(qv_kel_custom_set_attr_by_index(c.h, 1, "axis", 99, NPU_ATTR_INT, &v, 8), NPU_OK);
    EXPECT_STREQ(c.h->attrs[1].name, "axis");
    EXPECT_EQ(c.h->attrs[1].data, &v);
    EXPECT_EQ(c.h->attrs[1].data_len, 8u);
    std::string longname(100, 'x');  // cut to 63 bytes plus the terminator
    ASSERT_EQ(qv_kel_custom_set_attr_by_index(c.h, 0, longname.c_str(), 0, NPU_ATTR_INT, &v, 8), NPU_OK);
    EXPECT_EQ(std::strlen(c.h->attrs[0].name), 63u);
}

}  // namespace

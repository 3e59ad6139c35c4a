// Attribute lookup by name and the typed getters.
#include <gtest/gtest.h>

#include <cstring>

#include "npucpu.h"
#include "test_util.h"

using namespace npucpu_test;

namespace {

TEST(Attributes, LookupIsExactAndTakesTheFirstMatch) {
    Ctx c(0, 0, 3);
    c.attr_int(0, "Axis", 1);
    c.attr_int(1, "axis", 2);
    c.attr_int(2, "axis", 3);
    const AttrRecord *a = qv_kel_custom_get_attr_by_name(c.h, "axis");
    ASSERT_EQ(a, &c.h->attrs[1]);
    EXPECT_EQ(qv_kel_custom_get_attr_by_name(c.h, "AXIS"), nullptr);
    EXPECT_EQ(qv_kel_custom_get_attr_by_name(c.h, "axi"), nullptr);
    Ctx none(0, 0);
    EXPECT_EQ(qv_kel_custom_get_attr_by_name(none.h, "axis"), nullptr);
    std::string out = capture_stdout([] { EXPECT_EQ(qv_kel_custom_get_attr_by_name(nullptr, "x"), nullptr); });
    EXPECT_EQ(mask_log_lines(out), "T Err   qv_kel_custom_get_attr_by_name:L handle is null\n");
}

TEST(Attributes, TypedGettersReadTheirTypeOnly) {
    Ctx c(0, 0, 5);
    c.attr_int(0, "i", -7);
    c.attr_ints(1, "is", {4, -5, 6});
    c.attr_float(2, "f", 1.5f);
    c.attr_floats(3, "fs", {0.25f, -2.0f});
    c.attr_string(4, "s", "SAME_UPPER");
    auto A = [&](const char *n) { return qv_kel_custom_get_attr_by_name(c.h, n); };

    int64_t i = 0;
    float f = 0;
    uint64_t n = 0;
    uint32_t t = 99;
    EXPECT_EQ(qv_kel_custom_get_attr_int(A("i"), &i), NPU_OK);
    EXPECT_EQ(i, -7);
    EXPECT_EQ(qv_kel_custom_get_attr_ints_size(A("is"), &n), NPU_OK);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(qv_kel_custom_get_attr_ints_by_index(A("is"), 1, &i), NPU_OK);
    EXPECT_EQ(i, -5);
    EXPECT_EQ(qv_kel_custom_get_attr_float(A("f"), &f), NPU_OK);
    EXPECT_EQ(f, 1.5f);
    EXPECT_EQ(qv_kel_custom_get_attr_floats_size(A("fs"), &n), NPU_OK);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(qv_kel_custom_get_attr_floats_by_index(A("fs"), 1, &f), NPU_OK);
    EXPECT_EQ(f, -2.0f);
    EXPECT_EQ(qv_kel_custom_get_attr_dtype(A("s"), &t), NPU_OK);
    EXPECT_EQ(t, NPU_ATTR_STRING);
    char buf[32];
    EXPECT_EQ(qv_kel_custom_get_attr_string(A("s"), buf, 31), NPU_OK);
    EXPECT_STREQ(buf, "SAME_UPPER");
}

// A getter of another type (or an absent attribute) logs, returns 0xa0808003
// and leaves the destination as it was.
TEST(Attributes, MismatchedAndAbsentAttributesKeepTheDefault) {
    Ctx c(0, 0, 5);
    c.attr_int(0, "i", 1);
    c.attr_ints(1, "is", {1});
    c.attr_float(2, "f", 1);
    c.attr_floats(3, "fs", {1});
    c.attr_string(4, "s", "x");
    auto A = [&](const char *n) { return qv_kel_custom_get_attr_by_name(c.h, n); };
    int64_t i = 42;
    float f = 4.2f;
    uint64_t n = 42;
    char s[4] = "abc";
    struct Case {
        const char *func;
        std::function<uint32_t()> call;
        const char *message;
    } cases[] = {
        {"qv_kel_custom_get_attr_int", [&] { return qv_kel_custom_get_attr_int(A("f"), &i); }, "attr dtype [2] is not int"},
        {"qv_kel_custom_get_attr_ints_size", [&] { return qv_kel_custom_get_attr_ints_size(A("i"), &n); }, "attr dtype [0] is not ints"},
        {"qv_kel_custom_get_attr_ints_by_index", [&] { return qv_kel_custom_get_attr_ints_by_index(A("fs"), 0, &i); }, "attr dtype [3] is not ints"},
        {"qv_kel_custom_get_attr_ints_by_index", [&] { return qv_kel_custom_get_attr_ints_by_index(A("is"), 1, &i); }, "index [1] is out of range, total num: [1]"},
        {"qv_kel_custom_get_attr_float", [&] { return qv_kel_custom_get_attr_float(A("i"), &f); }, "attr dtype [0] is not float"},
        {"qv_kel_custom_get_attr_floats_size", [&] { return qv_kel_custom_get_attr_floats_size(A("s"), &n); }, "attr dtype [4] is not floats"},
        {"qv_kel_custom_get_attr_floats_by_index", [&] { return qv_kel_custom_get_attr_floats_by_index(A("fs"), 5, &f); }, "index [5] is out of range, total num: [1]"},
        {"qv_kel_custom_get_attr_string", [&] { return qv_kel_custom_get_attr_string(A("is"), s, 3); }, "attr dtype [1] is not string"},
        {"qv_kel_custom_get_attr_int", [&] { return qv_kel_custom_get_attr_int(A("missing"), &i); }, "get attr error, attr is null"},
        {"qv_kel_custom_get_attr_ints_size", [&] { return qv_kel_custom_get_attr_ints_size(nullptr, &n); }, "get attr error, attr is null"},
        {"qv_kel_custom_get_attr_ints_by_index", [&] { return qv_kel_custom_get_attr_ints_by_index(nullptr, 0, &i); }, "get attr error, attr is null"},
        {"qv_kel_custom_get_attr_float", [&] { return qv_kel_custom_get_attr_float(nullptr, &f); }, "get attr error, attr is null"},
        {"qv_kel_custom_get_attr_floats_size", [&] { return qv_kel_custom_get_attr_floats_size(nullptr, &n); }, "get attr error, attr is null"},
        {"qv_kel_custom_get_attr_floats_by_index", [&] { return qv_kel_custom_get_attr_floats_by_index(nullptr, 0, &f); }, "get attr error, attr is null"},
        {"qv_kel_custom_get_attr_string", [&] { return qv_kel_custom_get_attr_string(nullptr, s, 3); }, "get attr error, attr is null"},
        {"qv_kel_custom_get_attr_dtype", [&] { uint32_t t = 0; return qv_kel_custom_get_attr_dtype(nullptr, &t); }, "get attr error, attr is null"},
    };
    for (const Case &k : cases) {
        uint32_t r = 0;
        std::string out = capture_stdout([&] { r = k.call(); });
        EXPECT_EQ(r, NPU_ERR_INVALID_ARG) << k.message;
        EXPECT_EQ(mask_log_lines(out), std::string("T Err   ") + k.func + ":L " + k.message + "\n");
    }
    EXPECT_EQ(i, 42);
    EXPECT_EQ(f, 4.2f);
    EXPECT_EQ(n, 42u);
    EXPECT_STREQ(s, "abc");
}

TEST(Attributes, ArrayCountsUseIntegerDivision) {
    Ctx c(0, 0, 1);
    float raw[3] = {1, 2, 3};
    qv_kel_custom_set_attr_by_index(c.h, 0, "fs", 0, NPU_ATTR_FLOATS, raw, 10);
    uint64_t n = 0;
    qv_kel_custom_get_attr_floats_size(&c.h->attrs[0], &n);
    EXPECT_EQ(n, 2u);
}

// The string getter copies min(data_len, dst_len) bytes and terminates after
// them, so the destination needs dst_len + 1 bytes.
TEST(Attributes, StringCopyAndTerminator) {
    Ctx c(0, 0, 1);
    const char text[] = "hello world";
    qv_kel_custom_set_attr_by_index(c.h, 0, "s", 0, NPU_ATTR_STRING, (void *)text, 5);
    struct Case {
        uint64_t dst_len;
        const char *expect;
    } cases[] = {{5, "hello"}, {3, "hel"}, {0, ""}, {10, "hello"}};
    for (const Case &k : cases) {
        char dst[16];
        std::memset(dst, 'Z', sizeof dst);
        ASSERT_EQ(qv_kel_custom_get_attr_string(&c.h->attrs[0], dst, k.dst_len), NPU_OK);
        EXPECT_STREQ(dst, k.expect);
    }
}

}  // namespace

// Attribute lookup by name and the typed getters.
#include <gtest/gtest.h>

#include <cstring>

#include "test_util.h"

using namespace npucpu_test;

namespace {

// Runs a getter writing into `v` (of type T); expects success, yields v.
#define READ(T, call) ([&] { T v{}; EXPECT_EQ(call, NPU_OK); return v; }())

TEST(Attributes, LookupIsExactAndTakesTheFirstMatch) {
    Ctx c(0, 0, 3), none(0, 0);
    c.attr_int(0, "Axis", 1);
    c.attr_int(1, "axis", 2);
    c.attr_int(2, "axis", 3);
    EXPECT_EQ(qv_kel_custom_get_attr_by_name(c.h, "axis"), &c.h->attrs[1]);
    EXPECT_EQ(qv_kel_custom_get_attr_by_name(c.h, "AXIS"), nullptr);
    EXPECT_EQ(qv_kel_custom_get_attr_by_name(c.h, "axi"), nullptr);
    EXPECT_EQ(qv_kel_custom_get_attr_by_name(none.h, "axis"), nullptr);
    std::string out = capture_stdout([] { EXPECT_EQ(qv_kel_custom_get_attr_by_name(nullptr, "x"), nullptr); });
    EXPECT_EQ(mask_log_lines(out), "T Err   qv_kel_custom_get_attr_by_name:L handle is null\n");
}

// Each getter reads its own type; one of another type (or an absent
// attribute) logs, returns 0xa0808003 and leaves the destination as it was.
TEST(Attributes, TypedGetters) {
    Ctx c(0, 0, 5);
    c.attr_int(0, "i", -7);
    c.attr_ints(1, "is", {4, -5, 6});
    c.attr_float(2, "f", 1.5f);
    c.attr_floats(3, "fs", {0.25f, -2.0f});
    c.attr_string(4, "s", "SAME_UPPER");
    auto A = [&](const char *n) { return qv_kel_custom_get_attr_by_name(c.h, n); };
    EXPECT_EQ(READ(int64_t, qv_kel_custom_get_attr_int(A("i"), &v)), -7);
    EXPECT_EQ(READ(uint64_t, qv_kel_custom_get_attr_ints_size(A("is"), &v)), 3u);
    EXPECT_EQ(READ(int64_t, qv_kel_custom_get_attr_ints_by_index(A("is"), 1, &v)), -5);
    EXPECT_EQ(READ(float, qv_kel_custom_get_attr_float(A("f"), &v)), 1.5f);
    EXPECT_EQ(READ(uint64_t, qv_kel_custom_get_attr_floats_size(A("fs"), &v)), 2u);
    EXPECT_EQ(READ(float, qv_kel_custom_get_attr_floats_by_index(A("fs"), 1, &v)), -2.0f);
    EXPECT_EQ(READ(uint32_t, qv_kel_custom_get_attr_dtype(A("s"), &v)), NPU_ATTR_STRING);
    char buf[32];
    EXPECT_EQ(qv_kel_custom_get_attr_string(A("s"), buf, 31), NPU_OK);
    EXPECT_STREQ(buf, "SAME_UPPER");

    int64_t i = 42;
    float f = 4.2f;
    uint64_t n = 42;
    uint32_t t = 42;
    char s[4] = "abc";
    // Each getter is run on the attribute named `wrong` and on a null record.
    struct Case { const char *func; std::function<uint32_t(const AttrRecord *)> call; const char *wrong, *message; };
#define GET(fn, args, wrong, message) Case{"qv_kel_custom_" #fn, [&](const AttrRecord *a) { return qv_kel_custom_##fn args; }, wrong, message}
    const Case cases[] = {
        GET(get_attr_int, (a, &i), "f", "attr dtype [2] is not int"),
        GET(get_attr_ints_size, (a, &n), "i", "attr dtype [0] is not ints"),
        GET(get_attr_ints_by_index, (a, 0, &i), "fs", "attr dtype [3] is not ints"),
        GET(get_attr_ints_by_index, (a, 3, &i), "is", "index [3] is out of range, total num: [3]"),
        GET(get_attr_float, (a, &f), "i", "attr dtype [0] is not float"),
        GET(get_attr_floats_size, (a, &n), "s", "attr dtype [4] is not floats"),
        GET(get_attr_floats_by_index, (a, 5, &f), "fs", "index [5] is out of range, total num: [2]"),
        GET(get_attr_string, (a, s, 3), "is", "attr dtype [1] is not string"),
        GET(get_attr_dtype, (a, &t), "missing", ""),
    };
#undef GET
    for (const Case &k : cases) {
        SCOPED_TRACE(k.func);
        for (AttrRecord *a : {A(k.wrong), static_cast<AttrRecord *>(nullptr)}) {
            const std::string message = a ? k.message : "get attr error, attr is null";
            uint32_t r = 0;
            std::string out = capture_stdout([&] { r = k.call(a); });
            EXPECT_EQ(r, NPU_ERR_INVALID_ARG);
            EXPECT_EQ(mask_log_lines(out), std::string("T Err   ") + k.func + ":L " + message + "\n");
        }
    }
    EXPECT_EQ(i, 42);
    EXPECT_EQ(f, 4.2f);
    EXPECT_EQ(n, 42u);
    EXPECT_EQ(t, 42u);
    EXPECT_STREQ(s, "abc");
}

// Array counts use integer division of the byte length; the string getter
// copies min(data_len, dst_len) bytes and terminates after them, so the
// destination needs dst_len + 1 bytes.
TEST(Attributes, RecordLengths) {
    Ctx c(0, 0, 2);
    float raw[3] = {1, 2, 3};
    const char text[] = "hello world";
    qv_kel_custom_set_attr_by_index(c.h, 0, "fs", 0, NPU_ATTR_FLOATS, raw, 10);
    EXPECT_EQ(READ(uint64_t, qv_kel_custom_get_attr_floats_size(&c.h->attrs[0], &v)), 2u);
    qv_kel_custom_set_attr_by_index(c.h, 1, "s", 0, NPU_ATTR_STRING, (void *)text, 5);
    const struct { uint64_t dst_len; const char *expect; } cases[] = {{5, "hello"}, {3, "hel"}, {0, ""}, {10, "hello"}};
    for (const auto &k : cases) {
        char dst[16];
        std::memset(dst, 'Z', sizeof dst);
        ASSERT_EQ(qv_kel_custom_get_attr_string(&c.h->attrs[1], dst, k.dst_len), NPU_OK);
        EXPECT_STREQ(dst, k.expect);
    }
}

}  // namespace

// The levelled logger and the bounded strings.
#include <gtest/gtest.h>

#include <regex>

#include "test_util.h"

using namespace npucpu_test;

namespace {

class Logging : public testing::Test {
protected:
    void TearDown() override { set_log_level(1); }
};

TEST_F(Logging, LevelsAndLineFormat) {
    EXPECT_EQ(get_log_level(), 1u);  // fresh
    const char *names[] = {"Trace", "Debug", "Info", "WARN", "Err", "Fatal"};
    for (int i = 0; i < 6; ++i) EXPECT_STREQ(LEVEL_STR[i], names[i]);
    std::string out = capture_stdout([] { print_log(3, "fn", 77, "value %d and %s", 5, "x"); });
    EXPECT_TRUE(std::regex_match(out, std::regex("[0-9]{2}:[0-9]{2}:[0-9]{2} WARN  fn:77 value 5 and x\n"))) << out;
}

// A line is printed when threshold <= level <= 5; level 5 silences the
// handle API's errors (logged at level 4).
TEST_F(Logging, ThresholdFiltersByLevel) {
    const struct { uint32_t threshold, level; bool printed; } cases[] = {
        {1, 0, false}, {1, 1, true}, {1, 4, true}, {5, 4, false}, {5, 5, true},
        {0, 0, true},  {0, 5, true}, {0, 6, false}, {0, 1000, false},
    };
    for (const auto &k : cases) {
        set_log_level(k.threshold);
        std::string out = capture_stdout([&] { print_log(k.level, "f", 1, "m"); });
        EXPECT_EQ(!out.empty(), k.printed) << k.threshold << " " << k.level;
    }
    set_log_level(5);
    EXPECT_EQ(capture_stdout([] { qv_kel_custom_set_inputs_num(nullptr, 1); }), "");
}

TEST(Strings, CopyCatAndReplace) {
    NpuString s{}, z{};
    ASSERT_EQ(qv_npu_str_copy(&s, "abc"), 0);
    EXPECT_EQ(s.length, 4u);
    ASSERT_EQ(qv_npu_str_cat(&s, "de"), 0);
    EXPECT_STREQ(s.data, "abcde");
    EXPECT_EQ(s.length, 6u);
    ASSERT_EQ(qv_npu_str_copy(&s, "a/b/c"), 0);
    ASSERT_EQ(qv_npu_str_rpc(&s, '/', '_'), 0);
    EXPECT_STREQ(s.data, "a_b_c");
    ASSERT_EQ(qv_npu_str_destory(&s), 0);
    EXPECT_EQ(s.data, nullptr);
    EXPECT_EQ(s.length, 6u);  // length is left as it was
    EXPECT_EQ(qv_npu_str_destory(&s), 0);
    ASSERT_EQ(qv_npu_str_cat(&z, "x"), 0);  // onto an empty string
    EXPECT_STREQ(z.data, "x");
    EXPECT_EQ(z.length, 2u);
    qv_npu_str_destory(&z);
}

TEST(Strings, ExternalBufferIsNeverReplacedOrGrown) {
    char buf[16] = "zzzzzzzzzzzzzzz";
    NpuString s{};
    qv_npu_str_create(&s, 1);
    s.data = buf;
    ASSERT_EQ(qv_npu_str_copy(&s, "abc"), 0);
    ASSERT_EQ(qv_npu_str_cat(&s, "de"), 0);  // nothing appended to an external string
    EXPECT_EQ(s.data, buf);
    EXPECT_STREQ(buf, "abc");
    ASSERT_EQ(qv_npu_str_destory(&s), 0);
    EXPECT_EQ(s.data, buf);
}

TEST(Strings, Failures) {
    NpuString s{}, ext{};
    EXPECT_EQ(qv_npu_str_create(nullptr, 0), -1);
    EXPECT_EQ(qv_npu_str_copy(nullptr, "a"), -1);
    EXPECT_EQ(qv_npu_str_copy(&s, nullptr), -1);
    EXPECT_EQ(qv_npu_str_cat(&s, nullptr), -1);
    EXPECT_EQ(qv_npu_str_rpc(&s, 'a', 'b'), -1);  // no data
    EXPECT_EQ(qv_npu_str_destory(nullptr), -1);
    qv_npu_str_create(&ext, 1);
    EXPECT_EQ(qv_npu_str_copy(&ext, "a"), -1);  // external without a buffer
    char one[1] = {'q'};
    NpuString weird{one, 0, 1};
    EXPECT_EQ(qv_npu_str_rpc(&weird, 'q', 'r'), 0);  // length 0: nothing scanned
    EXPECT_EQ(one[0], 'q');
}

}  // namespace

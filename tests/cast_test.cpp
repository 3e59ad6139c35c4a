// cast: the "to" mapping, the conversions of each source family, buffer lengths.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "test_util.h"

using namespace npucpu_test;

namespace {

using Bytes = std::vector<uint8_t>;
template <typename T>
Bytes bytes_of(std::initializer_list<T> values) {
    Bytes b(values.size() * sizeof(T));
    std::memcpy(b.data(), values.begin(), b.size());
    return b;
}
const char kNotSupported[] = "[E] [custom] [cast_ops_impl:L] cpu cast not supported this to \n";
const uint8_t kFill = 0xA5;
const float kInf = std::numeric_limits<float>::infinity(), kNaN = std::numeric_limits<float>::quiet_NaN();

// "to" -> data type code, or -1: refused with a message. Without a "to"
// attribute (to = 18 here) the getter's log joins the refusal.
TEST(CastInfershape, ToMapping) {
    const int64_t expected[] = {-1, 0, 6, 2, 7, 3, 4, 5, -1, 19, 10, 1, 8, 9, 12, 11, -1, -1, -1};
    for (int64_t to = -2; to <= 18; ++to) {
        SCOPED_TRACE("to " + std::to_string(to));
        const int64_t want = to < 0 ? -1 : expected[to];
        Ctx ctx(1, 1, 1);
        float x = 1;
        ctx.input(0, shape_of({1, 1}), &x, 4, NPU_DTYPE_FLOAT32, NPU_FORMAT_NHWC);
        ctx.attr_int(0, to == 18 ? "other" : "to", to);
        uint32_t status = 0, dtype = 77, format = 77;
        std::string err;
        const std::string log = capture_stdout([&] { err = capture_stderr([&] { status = cast_infershape(ctx.h); }); });
        qv_kel_custom_get_output_dtype_by_index(ctx.h, 0, &dtype);
        qv_kel_custom_get_output_format_by_index(ctx.h, 0, &format);
        EXPECT_EQ(mask_log_lines(log), to == 18 ? "T Err   qv_kel_custom_get_attr_int:L get attr error, attr is null\n" : "");
        EXPECT_EQ(status, want < 0 ? NPU_ERR_INVALID_ARG : NPU_OK);
        EXPECT_EQ(mask_error_lines(err), want < 0 ? kNotSupported : "");
        EXPECT_EQ(dims_of(ctx.output_shape(0)), (want < 0 ? std::vector<uint32_t>{} : std::vector<uint32_t>{1, 1}));
        if (want < 0) continue;
        EXPECT_EQ(dtype, static_cast<uint32_t>(want));
        EXPECT_EQ(format, NPU_FORMAT_NHWC);
    }
}

// Converts `in` (of type `src`, `in_len` bytes when not 0) into an output of
// want.size() bytes preset to kFill; the element count comes from whole
// source elements, capped by what the output holds at the target's size.
TEST(CastCompute, Conversions) {
    const int32_t i32max = std::numeric_limits<int32_t>::max(), i32min = std::numeric_limits<int32_t>::min();
    const int64_t i64max = std::numeric_limits<int64_t>::max(), i64min = std::numeric_limits<int64_t>::min();
    const uint8_t F = kFill;
    const struct { const char *what; uint32_t src; Bytes in; int64_t to; Bytes want; uint64_t in_len = 0;
                   uint32_t status = NPU_OK; const char *err = ""; } cases[] = {
        // float source: truncation toward zero, saturation, NaN -> 0
        {"f32->i64", 0, bytes_of<float>({2.7f, -2.7f, 1e19f, -kInf, kNaN}), 7, bytes_of<int64_t>({2, -2, i64max, i64min, 0})},
        {"f32->i32", 0, bytes_of<float>({3e9f, -3e9f, kNaN, -0.9f}), 6, bytes_of<int32_t>({i32max, i32min, 0, 0})},
        {"f32->u8 keeps the low byte", 0, bytes_of<float>({300.0f, -1.0f, 255.9f, kNaN}), 2, Bytes{44, 0, 255, 0}},
        // int32 saturation first, then the low byte: 3e9 -> 0x7fffffff -> 0xff
        {"f32->i8", 0, bytes_of<float>({300.0f, 200.0f, -129.0f, 3e9f}), 3, Bytes{44, 0xC8, 0x7F, 0xFF}},
        {"f32->u16", 0, bytes_of<float>({70000.0f, -5.0f, 5e9f}), 4, bytes_of<uint16_t>({4464, 0, 0xFFFF})},
        {"f32->i16", 0, bytes_of<float>({70000.0f, -32769.0f}), 5, bytes_of<uint16_t>({4464, 0x7FFF})},
        {"f32->u32", 0, bytes_of<float>({3e9f, 5e9f, -5.0f, kInf}), 12,
         bytes_of<uint32_t>({3000000000u, 0xFFFFFFFFu, 0, 0xFFFFFFFFu})},
        {"f32->u64", 0, bytes_of<float>({1e19f, 1e20f, -1.0f, kNaN}), 13,
         bytes_of<uint64_t>({10000000000000000000ull - 19493552128ull, UINT64_MAX, 0, 0})},
        {"f32->f64", 0, bytes_of<float>({0.1f, -kInf}), 11, bytes_of<double>({static_cast<double>(0.1f), -static_cast<double>(kInf)})},
        // a signalling NaN is copied bit for bit to the same type
        {"f32->f32", 0, Bytes{0x01, 0x00, 0x80, 0x7F}, 1, Bytes{0x01, 0x00, 0x80, 0x7F}},
        // signed 32-bit source: sign extension, low bits, nearest float
        {"i32->u64", 4, bytes_of<int32_t>({-1, 5}), 13, bytes_of<uint64_t>({UINT64_MAX, 5})},
        {"i32->i64", 4, bytes_of<int32_t>({i32min}), 7, bytes_of<int64_t>({i32min})},
        {"i32->u32", 4, bytes_of<int32_t>({-1}), 12, bytes_of<uint32_t>({0xFFFFFFFFu})},
        {"i32->u8", 4, bytes_of<int32_t>({0x12345678, -1}), 2, Bytes{0x78, 0xFF}},
        {"i32->f32", 4, bytes_of<int32_t>({16777217, -3}), 1, bytes_of<float>({16777216.0f, -3.0f})},
        {"i32->f64", 4, bytes_of<int32_t>({i32min}), 11, bytes_of<double>({-2147483648.0})},
        // unsigned 32-bit source: zero extension
        {"u32->i64", 8, bytes_of<uint32_t>({0xFFFFFFFFu}), 7, bytes_of<int64_t>({4294967295})},
        {"u32->u64", 8, bytes_of<uint32_t>({0x80000000u}), 13, bytes_of<uint64_t>({0x80000000u})},
        {"u32->f32", 8, bytes_of<uint32_t>({0xFFFFFFFFu}), 1, bytes_of<float>({4294967296.0f})},
        {"u32->f64", 8, bytes_of<uint32_t>({0xFFFFFFFFu}), 11, bytes_of<double>({4294967295.0})},
        {"u32->i16", 8, bytes_of<uint32_t>({0x0001FFFEu}), 5, bytes_of<uint16_t>({0xFFFE})},
        // signed 64-bit source: low bits, nearest float
        {"i64->u32", 5, bytes_of<int64_t>({-2, 0x100000005}), 12, bytes_of<uint32_t>({0xFFFFFFFEu, 5})},
        {"i64->i8", 5, bytes_of<int64_t>({-129}), 3, Bytes{0x7F}},
        {"i64->f64", 5, bytes_of<int64_t>({(1LL << 53) + 1, i64max}), 11, bytes_of<double>({9007199254740992.0, 9223372036854775808.0})},
        {"i64->f32", 5, bytes_of<int64_t>({i64min, 16777217}), 1, bytes_of<float>({-9223372036854775808.0f, 16777216.0f})},
        {"i64->u64", 5, bytes_of<int64_t>({-1}), 13, bytes_of<uint64_t>({UINT64_MAX})},
        {"12-byte int64 buffer converts one element", 5, bytes_of<int64_t>({7, 9}), 6, Bytes{7, 0, 0, 0, F, F, F, F}, 12},
        {"under one element converts nothing", 0, bytes_of<float>({1.0f}), 7, Bytes(8, F), 3},
        {"output holds one int64", 0, bytes_of<float>({1.0f, 2.0f}), 7, Bytes{1, 0, 0, 0, 0, 0, 0, 0, F, F, F, F}},
        {"same type copies what fits", 4, bytes_of<int32_t>({1, 2}), 6, Bytes{1, 0, 0, 0, F, F}},
        // float16, complex and bool pass infershape but are not converted
        // into; an int16 source is refused. Both print the message.
        {"to float16", 0, Bytes(4, 1), 10, Bytes(16, F), 0, NPU_OK, kNotSupported},
        {"to complex64", 0, Bytes(4, 1), 14, Bytes(16, F), 0, NPU_OK, kNotSupported},
        {"to complex128", 0, Bytes(4, 1), 15, Bytes(16, F), 0, NPU_OK, kNotSupported},
        {"to bool", 0, Bytes(4, 1), 9, Bytes(16, F), 0, NPU_OK, kNotSupported},
        {"from int16", NPU_DTYPE_INT16, Bytes(4, 1), 6, Bytes(16, F), 0, NPU_ERR_INVALID_ARG, kNotSupported},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Bytes in = c.in, out(c.want.size(), kFill);
        Ctx ctx(1, 1, 1);
        ctx.input(0, shape_of({static_cast<uint32_t>(in.size() / get_dtype_size(c.src))}), in.data(),
                  c.in_len ? c.in_len : in.size(), c.src);
        ctx.attr_int(0, "to", c.to);
        ASSERT_EQ(cast_infershape(ctx.h), NPU_OK);
        qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), out.size());
        uint32_t status = 1;
        EXPECT_EQ(mask_error_lines(capture_stderr([&] { status = cast_compute(ctx.h); })), c.err);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(out, c.want);
    }
}

}  // namespace

// Resize sampling routines and the resize operator.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "npucpu.h"
#include "test_util.h"

namespace {

using namespace npucpu_test;
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const char kNotice[] = "Use default coordinate convert mode: half_pixel.";
const char *const kCtm = "coordinate_transformation_mode";

// Row table over a row-major plane.
std::vector<float *> rows_of(std::vector<float> &plane, uint32_t w) {
    std::vector<float *> rows(plane.size() / w);
    for (size_t r = 0; r < rows.size(); ++r) rows[r] = plane.data() + r * w;
    return rows;
}

// Deterministic values in [-4, 4) with a few exact integers mixed in.
std::vector<float> pattern(size_t n, uint32_t seed) {
    std::vector<float> v(n);
    for (size_t i = 0; i < n; ++i) {
        seed = seed * 1664525u + 1013904223u;
        v[i] = (i % 7 == 3) ? static_cast<float>(i % 5) : static_cast<float>(seed >> 8) / 2097152.0f - 4.0f;
    }
    return v;
}

TEST(CoordinateMapping, EveryMode) {
    const float s32 = 2.0f / 3.0f;  // scale of a 3 -> 2 resize
    // Half-pixel runs in double: in float the same formula gives exactly 0.25.
    const float half32 = static_cast<float>(0.5 / static_cast<double>(s32) - 0.5);
    const struct {
        const char *name;
        uint32_t mode, out_index, in_size, out_size;
        float scale, roi_start, roi_end, expected;
        bool notice;  // prints the half_pixel notice
    } cases[] = {
        {"half_pixel in double", 0, 0, 3, 2, s32, 0, 0, half32, false},
        {"half_pixel out_size 1", 0, 0, 4, 1, 0.25f, 0, 0, 1.5f, false},
        {"half_pixel negative", 0, 0, 2, 4, 2.0f, 0, 0, -0.25f, false},
        {"pytorch_half_pixel out_size 1", 1, 0, 4, 1, 0.25f, 0, 0, 0.0f, false},
        {"pytorch_half_pixel as half_pixel", 1, 0, 3, 2, s32, 0, 0, half32, false},
        // Multiplication first: 3 * (3 / 5) would give 1.80000007.
        {"align_corners multiplies first", 2, 3, 4, 6, 0, 0, 0, 3.0f * 3.0f / 5.0f, false},
        {"align_corners out_size 1", 2, 0, 4, 1, 0, 0, 0, kNaN, false},
        {"asymmetric", 3, 5, 4, 8, 2.0f, 0, 0, 2.5f, false},
        {"tf_half_pixel_for_nn", 4, 2, 4, 8, 2.0f, 0, 0, 1.25f, false},
        // Fused: (7-1)*0.1 + 0.6*2*6/4 rounded once is 2.39999986, unfused 2.4000001.
        {"tf_crop_and_resize fused", 5, 2, 7, 5, 0, 0.1f, 0.7f,
         std::fma(6.0f, 0.1f, (0.7f - 0.1f) * 2.0f * 6.0f / 4.0f), false},
        // Out_size 1 takes the box centre, in double (a float sum gives 0.329999983).
        {"tf_crop_and_resize out_size 1", 5, 0, 7, 1, 0, 0.01f, 0.1f,
         static_cast<float>((static_cast<double>(0.01f) + static_cast<double>(0.1f)) * 0.5 * 6.0), false},
        {"unknown code maps as half_pixel", 6, 0, 3, 2, s32, 0, 0, half32, true},
        {"unknown large code", 0xFFFFFFFFu, 1, 2, 4, 2.0f, 0, 0, 0.25f, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        float got = 0;
        const std::string out = capture_stdout([&] {
            got = CoordinateMapping(c.mode, c.out_index, c.in_size, c.out_size, c.scale, c.roi_start, c.roi_end);
        });
        EXPECT_TRUE(same_float(got, c.expected)) << got << " vs " << c.expected;
        EXPECT_EQ(out, c.notice ? kNotice : "");
    }
}

TEST(GetNearestPixelCoordinate, RoundingModes) {
    // tf_half_pixel_for_nn with scale 1 maps index i to i + 0.5 (exact halves);
    // with scale 2 to (i + 0.5) / 2.
    const struct { const char *name; uint32_t mode, nearest_mode, out_index; float scale, expected; } cases[] = {
        {"prefer_floor 2.5", 4, 0, 2, 1.0f, 2},   {"prefer_floor 3.5", 4, 0, 3, 1.0f, 3},
        {"prefer_ceil 2.5", 4, 1, 2, 1.0f, 3},    {"prefer_ceil 3.5", 4, 1, 3, 1.0f, 4},
        {"floor 3.5", 4, 2, 3, 1.0f, 3},          {"ceil 3.5", 4, 3, 3, 1.0f, 4},
        {"unknown rounding 2.5", 4, 9, 2, 1.0f, 2},
        {"prefer_floor 2.25", 4, 0, 4, 2.0f, 2},  {"prefer_floor 2.75", 4, 0, 5, 2.0f, 3},
        {"prefer_ceil 2.25", 4, 1, 4, 2.0f, 2},   {"floor 2.75", 4, 2, 5, 2.0f, 2},
        {"ceil 2.25", 4, 3, 4, 2.0f, 3},
        // Negative coordinates become 0 whatever the rounding: -2.5 and -0.5.
        {"negative half prefer_floor", 0, 0, 0, -0.25f, 0},  {"negative half ceil", 0, 3, 0, -0.25f, 0},
        {"small negative", 0, 0, 0, std::numeric_limits<float>::infinity(), 0},
        // Past the end: the last index; beyond the u32 range: saturated, then clamped.
        {"past the end", 3, 0, 9, 0.5f, 9},  {"beyond u32", 3, 2, 9, 1e-30f, 9},  {"NaN", 2, 0, 0, 0.0f, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        uint32_t iy = 77, ix = 77;
        // Rows and columns use the same mapping: the row axis sees the same coordinate through out_y.
        const uint32_t out = c.mode == 2 ? 1 : 12;
        GetNearestPixelCoordinate(c.mode, c.nearest_mode, c.out_index, c.out_index, &iy, &ix, 10, 10, out, out,
                                  c.scale, c.scale, 0, 1, 0, 1);
        EXPECT_EQ(ix, c.expected);
        EXPECT_EQ(iy, c.expected);
    }
}

TEST(GetAxisScale, OnlyScaledModesGetAScale) {
    const struct { uint32_t mode; uint8_t flag; float expected; } cases[] = {
        {0, 1, 2.5f}, {1, 1, 2.5f}, {2, 1, 0.0f}, {3, 1, 2.5f}, {4, 1, 2.5f},
        {5, 1, 0.0f}, {6, 1, 0.0f}, {2, 0, 2.5f}, {5, 0, 2.5f}, {9, 0, 2.5f},
    };
    for (const auto &c : cases) EXPECT_EQ(bits(GetAxisScale(c.mode, 4, 10, c.flag)), bits(c.expected)) << c.mode;
    EXPECT_EQ(GetAxisScale(0, 3, 1, 1), 1.0f / 3.0f);
}

TEST(ParseRoiData, PicksThePlaneAxes) {
    const float roi[8] = {10, 11, 12, 13, 20, 21, 22, 23};
    const struct { const char *name; const float *list; uint32_t count; float expected[4]; } cases[] = {
        {"rank 4", roi, 8, {12, 22, 13, 23}},  // start_h, end_h, start_w, end_w
        {"rank 3", roi, 6, {11, 20, 12, 21}},
        {"rank 2", roi, 4, {10, 12, 11, 13}},
        // Guard: too short to hold a box, or no list at all: nothing written.
        {"three values", roi, 3, {-1, -2, -3, -4}},
        {"no list", nullptr, 8, {-1, -2, -3, -4}},
    };
    for (const auto &c : cases) {
        float box[4] = {-1, -2, -3, -4};
        ParseRoiData(c.list, c.count, &box[0], &box[1], &box[2], &box[3]);
        EXPECT_EQ(std::vector<float>(box, box + 4), std::vector<float>(c.expected, c.expected + 4)) << c.name;
    }
}

// The sampler's sum as written: first term plain, later terms fused.
float bilinear_sum(float p00, float p01, float p10, float p11, float dx, float dy) {
    const float t = std::fma((1 - dx) * p00, 1 - dy, dx * p01 * (1 - dy));
    return std::fma(dx * p11, dy, std::fma((1 - dx) * p10, dy, t));
}

TEST(BiLinearInterpolation, Sampling) {
    std::vector<float> plane = {1, 2, 4, 8, 16, 32};  // 2 rows x 3 columns; x is the column, y the row
    std::vector<float *> rows = rows_of(plane, 3);
    const struct { const char *name; float x, y, expected; } cases[] = {
        {"pixel", 1, 1, 16},
        {"column before row", 2, 0, 4},
        {"midpoint", 0.5f, 0.5f, (1 + 2 + 8 + 16) / 4.0f},
        // At the last column x1 is clamped onto x0 and weighted by 0.
        {"last column", 2, 0.25f, bilinear_sum(4, 4, 32, 32, 0, 0.25f)},
        {"last row and column", 2, 1, 32},
        {"negative coordinates", -0.7f, -3, 1},
        {"fused sum", 0.01f, 0.44f, bilinear_sum(1, 2, 8, 16, 0.01f, 0.44f)},
        // Guard: past the image (a crop box beyond 1.0) the lower neighbours
        // are clamped too, so nothing outside the plane is read.
        {"past the image", 5.25f, 3.5f, bilinear_sum(32, 32, 32, 32, 0.25f, 0.5f)},
    };
    for (const auto &c : cases)
        EXPECT_EQ(bits(BiLinearInterpolation(rows.data(), 2, 3, c.x, c.y)), bits(c.expected)) << c.name;
    EXPECT_EQ(BiLinearInterpolation(rows.data(), 0, 3, 0.5f, 0.5f), 0.0f);  // guard: empty plane
}

// Weight of each tap, read back by sampling a plane that is 1 at one tap and 0
// elsewhere, at an integer row (whose row weights are 0, 1, 0, 0).
std::vector<float> cubic_weights(float t, float a) {
    std::vector<float> w;
    for (int j = 0; j < 4; ++j) {
        std::vector<float> plane(3 * 6, 0.0f);
        plane[1 * 6 + j] = 1.0f;  // row 1, taps are columns 0..3 around x = 1 + t
        w.push_back(CubicInterpolation(rows_of(plane, 6).data(), 3, 6, a, 1.0f, 1.0f + t));
    }
    return w;
}

TEST(CubicInterpolation, Coefficients) {
    // t is taken as the sampler sees it: (1 + t) - 1.
    const float t = (1.0f + 0.073f) - 1.0f, a = -0.75f, s1 = t + 1, s2 = 2 - t, s3 = 1 - t;
    // Horner with fused steps; plain evaluation differs in the last bits.
    const float outer0 = std::fma(std::fma(std::fma(a, s1, -5 * a), s1, 8 * a), s1, -4 * a);
    const float inner1 = std::fma(std::fma(a + 2, t, -(a + 3)) * t, t, 1.0f);
    const float inner2 = std::fma(std::fma(a + 2, s3, -(a + 3)) * s3, s3, 1.0f);
    const float outer3 = std::fma(std::fma(std::fma(a, s2, -5 * a), s2, 8 * a), s2, -4 * a);
    const struct { const char *name; float t, a; std::vector<float> expected; } cases[] = {
        {"a=-0.75 half", 0.5f, -0.75f, {-0.09375f, 0.59375f, 0.59375f, -0.09375f}},
        {"a=0 half: outer taps vanish", 0.5f, 0.0f, {0.0f, 0.5f, 0.5f, 0.0f}},
        {"integer position", 0.0f, -0.75f, {0.0f, 1.0f, 0.0f, 0.0f}},
        {"fused Horner", t, a, {outer0, inner1, inner2, outer3}},
    };
    for (const auto &c : cases) expect_bits(c.expected, cubic_weights(c.t, c.a), c.name);

    // The weights are the products of the row and column coefficients; the
    // sum runs over rows, then columns, each step fused.
    std::vector<float> plane = pattern(5 * 6, 12);
    const float ty = (2.0f + 0.37f) - 2.0f, tx = (1.0f + 0.61f) - 1.0f;
    const std::vector<float> cy = cubic_weights(ty, a), cx = cubic_weights(tx, a);
    float fused = 0.0f;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) fused = std::fma(plane[(1 + i) * 6 + j], cx[j] * cy[i], fused);  // rows 1..4
    EXPECT_EQ(bits(CubicInterpolation(rows_of(plane, 6).data(), 5, 6, a, 2.0f + ty, 1.0f + tx)), bits(fused));
}

TEST(CubicInterpolation, EdgesRepeat) {
    // A 3x3 plane, and the same plane with its first (or last) row and column
    // doubled: sampling near the edge of the first must equal sampling the
    // padded copy where every tap exists.
    std::vector<float> plane = {1, 2, 3, 5, 7, 11, 13, 17, 19}, tl(16), br(16);
    const uint32_t top_left[4] = {0, 0, 1, 2}, bottom_right[4] = {0, 1, 2, 2};
    for (int i = 0; i < 16; ++i) {
        tl[i] = plane[top_left[i / 4] * 3 + top_left[i % 4]];
        br[i] = plane[bottom_right[i / 4] * 3 + bottom_right[i % 4]];
    }
    std::vector<float *> rows = rows_of(plane, 3), tl_rows = rows_of(tl, 4), br_rows = rows_of(br, 4);
    const struct { float y, x; const std::vector<float *> *padded; float py, px; } cases[] = {
        {0, 0, &tl_rows, 1, 1}, {0.25f, 0.5f, &tl_rows, 1.25f, 1.5f}, {1.75f, 1.5f, &br_rows, 1.75f, 1.5f}};
    for (const auto &c : cases)
        EXPECT_EQ(bits(CubicInterpolation(rows.data(), 3, 3, -0.75f, c.y, c.x)),
                  bits(CubicInterpolation(c.padded->data(), 4, 4, -0.75f, c.py, c.px))) << c.y << ", " << c.x;
    // Row before column: (y, x) = (2, 0) is the bottom-left pixel.
    EXPECT_EQ(CubicInterpolation(rows.data(), 3, 3, -0.75f, 2, 0), 13.0f);
    // Far outside the plane every tap is the corner pixel; nothing else is read.
    EXPECT_EQ(CubicInterpolation(rows.data(), 3, 3, 0.0f, 1e9f, -1e9f), 13.0f);
    EXPECT_EQ(CubicInterpolation(rows.data(), 3, 0, -0.75f, 0, 0), 0.0f);  // guard: empty plane
}

// Describes the resize inputs that are given (X, roi, scales, sizes: empty lists are left out).
void describe(Ctx &ctx, uint32_t inputs, const std::vector<uint32_t> &x_dims, std::vector<float> &x, uint32_t dtype,
              std::vector<float> &roi, std::vector<float> &scales, std::vector<int64_t> &sizes) {
    const auto len = [](size_t n) { return shape_of({static_cast<uint32_t>(n)}); };
    ctx.input(0, shape_of(x_dims), x.data(), x.size() * 4, dtype, NPU_FORMAT_NHWC);
    if (inputs > 1 && !roi.empty()) ctx.input(1, len(roi.size()), roi);
    if (inputs > 2 && !scales.empty()) ctx.input(2, len(scales.size()), scales);
    if (inputs > 3 && !sizes.empty()) ctx.input(3, len(sizes.size()), sizes.data(), sizes.size() * 8, NPU_DTYPE_INT64);
    if (inputs > 4) ctx.input(4, len(roi.size()), roi);
}

TEST(ResizeInfershape, Table) {
    const uint32_t F = NPU_DTYPE_FLOAT32;
    const std::string E = "[E] [custom] [resize_ops_impl:L] ", neither = E + "either scales or sizes is valid! \n";
    const struct {
        const char *name;
        uint32_t inputs;
        std::vector<uint32_t> x_dims;
        uint32_t x_dtype;
        std::vector<float> scales;   // empty: no buffer
        std::vector<int64_t> sizes;  // empty: no buffer
        std::string message;         // masked stderr
        std::vector<uint32_t> out;   // expected dims; empty with a message: unset
    } cases[] = {
        {"sizes only", 4, {1, 2, 3, 4}, F, {}, {1, 2, 6, 2}, "", {1, 2, 6, 2}},
        {"scales win over sizes", 4, {1, 2, 3, 4}, F, {1, 1, 2, 0.5f}, {1, 2, 9, 9}, "", {1, 2, 6, 2}},
        {"1.5 x 3 = 4", 3, {1, 1, 3, 3}, F, {1, 1, 1.5f, 1.5f}, {}, "", {1, 1, 4, 4}},
        {"floor of the float product", 3, {10}, F, {0.29f}, {}, "", {2}},
        {"rank 2", 4, {3, 5}, F, {2, 0.4f}, {}, "", {6, 2}},
        {"sizes keep the low 32 bits", 4, {2, 2}, F, {}, {0x100000005LL, 3}, "", {5, 3}},
        {"short scales count as absent", 4, {1, 1, 4, 4}, F, {2, 2}, {1, 1, 8, 2}, "", {1, 1, 8, 2}},
        {"no inputs", 0, {}, F, {}, {}, E + "invalid input_num:0 \n", {}},
        {"five inputs", 5, {1, 1, 2, 2}, F, {}, {}, E + "invalid input_num:5 \n", {}},
        {"rank 5", 4, {1, 1, 1, 2, 2}, F, {1, 1, 1, 1, 1}, {}, E + "invalid input dims:5, dtype:0 \n", {}},
        {"int32 data", 4, {1, 1, 2, 2}, NPU_DTYPE_INT32, {1, 1, 2, 2}, {}, E + "invalid input dims:4, dtype:4 \n", {}},
        {"X and roi only", 2, {1, 1, 2, 2}, F, {}, {}, neither, {}},
        {"short lists only", 4, {1, 1, 2, 2}, F, {1, 1, 2}, {1, 1, 2}, neither, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Ctx ctx(c.inputs, 1);
        std::vector<float> x(64, 1.0f), roi(8, 0.0f), scales = c.scales;
        std::vector<int64_t> sizes = c.sizes;
        if (c.inputs > 0) describe(ctx, c.inputs, c.x_dims, x, c.x_dtype, roi, scales, sizes);
        uint32_t status = 1;
        EXPECT_EQ(mask_error_lines(capture_stderr([&] { status = resize_infershape(ctx.h); })), c.message);
        EXPECT_EQ(status, NPU_OK);
        EXPECT_EQ(dims_of(ctx.output_shape(0)), c.out);  // left unset on failure
        if (!c.out.empty()) {
            EXPECT_EQ(ctx.h->outputs[0].dtype, c.x_dtype);
            EXPECT_EQ(ctx.h->outputs[0].format, NPU_FORMAT_NHWC);
        }
    }
    Ctx ctx(1, 1);
    EXPECT_EQ(resize_check_supported(ctx.h), 1u);
}

struct Attr { const char *name; std::string text; float value; bool is_float; };  // text unless is_float
Attr S(const char *name, const char *text) { return {name, text, 0.0f, false}; }
Attr F(const char *name, float v) { return {name, "", v, true}; }

struct Params { uint32_t coordinate, sampling, rounding; float a; };  // what the attributes should select
const uint32_t kNearest = 0, kLinear = 1, kCubic = 2;

// The operator's plane walk, one call per pixel, each plane copied into
// separate row buffers first.
std::vector<float> reference(const std::vector<uint32_t> &in, const std::vector<uint32_t> &out,
                             const std::vector<float> &x, const Params &p, const float box[4]) {
    struct { uint32_t in_h, in_w, out_h, out_w, planes; } g;
    switch (out.size()) {
        case 1: g = {1, in[0], 1, out[0], 1}; break;
        case 2: g = {in[0], in[1], out[0], out[1], 1}; break;
        case 3: g = {in[1], in[2], out[1], out[2], out[0]}; break;
        default: g = {in[2], in[3], out[2], out[3], out[0] * out[1]};
    }
    const float sh = GetAxisScale(p.coordinate, g.in_h, g.out_h, 1);
    const float sw = GetAxisScale(p.coordinate, g.in_w, g.out_w, 1);
    std::vector<float> y;
    for (uint32_t plane = 0; plane < g.planes; ++plane) {
        const float *src = x.data() + static_cast<size_t>(plane) * g.in_h * g.in_w;
        std::vector<std::vector<float>> copy(g.in_h);
        std::vector<float *> rows(g.in_h);
        for (uint32_t r = 0; r < g.in_h; ++r) rows[r] = (copy[r] = {src + r * g.in_w, src + (r + 1) * g.in_w}).data();
        for (uint32_t oy = 0; oy < g.out_h; ++oy) {
            for (uint32_t ox = 0; ox < g.out_w; ++ox) {
                if (p.sampling == kNearest) {
                    uint32_t iy = 0, ix = 0;
                    GetNearestPixelCoordinate(p.coordinate, p.rounding, oy, ox, &iy, &ix, g.in_h, g.in_w, g.out_h,
                                              g.out_w, sh, sw, box[0], box[1], box[2], box[3]);
                    y.push_back(src[iy * g.in_w + ix]);
                    continue;
                }
                const float fy = CoordinateMapping(p.coordinate, oy, g.in_h, g.out_h, sh, box[0], box[1]);
                const float fx = CoordinateMapping(p.coordinate, ox, g.in_w, g.out_w, sw, box[2], box[3]);
                y.push_back(p.sampling == kLinear ? BiLinearInterpolation(rows.data(), g.in_h, g.in_w, fx, fy)
                                                  : CubicInterpolation(rows.data(), g.in_h, g.in_w, p.a, fy, fx));
            }
        }
    }
    return y;
}

struct ComputeCase {
    const char *name;
    std::vector<uint32_t> in_dims, out_dims;
    std::vector<Attr> attrs;
    Params expect = {};
    std::vector<float> roi = {};            // input 1, for tf_crop_and_resize
    std::vector<float> box = {0, 1, 0, 1};  // the crop box the operator should take from roi
};

// Describes X, roi, sizes, runs the three entry points and returns the output.
std::vector<float> run_resize(const ComputeCase &c, std::vector<float> &x, std::string *log = nullptr) {
    Ctx ctx(4, 1, static_cast<uint32_t>(c.attrs.size()));
    std::vector<float> roi = c.roi, no_scales;
    std::vector<int64_t> sizes(c.out_dims.begin(), c.out_dims.end());
    describe(ctx, 4, c.in_dims, x, NPU_DTYPE_FLOAT32, roi, no_scales, sizes);
    for (uint32_t i = 0; i < c.attrs.size(); ++i) {
        if (c.attrs[i].is_float) ctx.attr_float(i, c.attrs[i].name, c.attrs[i].value);
        else ctx.attr_string(i, c.attrs[i].name, c.attrs[i].text);
    }
    EXPECT_EQ(resize_infershape(ctx.h), NPU_OK);
    EXPECT_EQ(dims_of(ctx.output_shape(0)), c.out_dims);
    ctx.alloc_output(0, -12345.0f);
    uint32_t status = 1;
    const std::string out = capture_stdout([&] { status = resize_compute(ctx.h); });
    if (log != nullptr) *log = mask_log_lines(out);
    EXPECT_EQ(status, NPU_OK);
    return ctx.output(0);
}
TEST(ResizeCompute, MatchesThePlaneWalk) {
    const std::vector<float> roi8 = {0, 0, 0.1f, 0.2f, 1, 1, 0.8f, 0.9f}, box8 = {0.1f, 0.8f, 0.2f, 0.9f};
    const Attr nearest = S("mode", "nearest"), linear = S("mode", "linear"), crop = S(kCtm, "tf_crop_and_resize");
    const std::vector<uint32_t> in44 = {1, 1, 4, 4}, out33 = {1, 1, 3, 3};
    const ComputeCase cases[] = {
        {"default: half_pixel nearest prefer_floor", {1, 2, 4, 4}, {1, 2, 3, 3}, {}, {0, kNearest, 0, 0}},
        {"nearest_mode without mode is ignored", in44, out33, {S("nearest_mode", "ceil")}, {0, kNearest, 0, 0}},
        {"nearest with ceil", in44, out33, {nearest, S("nearest_mode", "ceil")}, {0, kNearest, 3, 0}},
        {"nearest floor asymmetric upscale", {2, 3, 3, 2}, {2, 3, 7, 5},
         {S(kCtm, "asymmetric"), nearest, S("nearest_mode", "floor")}, {3, kNearest, 2, 0}},
        {"unknown mode samples nearest and reads the rounding", in44, out33,
         {S("mode", "area"), S("nearest_mode", "round_prefer_ceil")}, {0, kNearest, 1, 0}},
        // Without nearest_mode the text buffer still holds the mode's text.
        {"rounding matched against the previous text", in44, out33, {S("mode", "floorish")}, {0, kNearest, 2, 0}},
        {"tf_half_pixel_for_nn", {1, 1, 5, 3}, {1, 1, 3, 7}, {S(kCtm, "tf_half_pixel_for_nn")}, {4, kNearest, 0, 0}},
        {"linear ignores nearest_mode", in44, out33, {linear, S("nearest_mode", "ceil")}, {0, kLinear, 0, 0}},
        {"linear align_corners upscale", {1, 2, 3, 4}, {1, 2, 7, 9}, {S(kCtm, "align_corners"), linear},
         {2, kLinear, 0, 0}},
        {"linear half_pixel downscale", {2, 1, 8, 6}, {2, 1, 3, 4}, {linear}, {0, kLinear, 0, 0}},
        {"linear pytorch_half_pixel to one row", in44, {1, 1, 1, 5}, {S(kCtm, "pytorch_half_pixel"), linear},
         {1, kLinear, 0, 0}},
        {"align_corners to one row divides by zero", {1, 1, 3, 3}, {1, 1, 1, 4}, {S(kCtm, "align_corners"), linear},
         {2, kLinear, 0, 0}},
        {"cubic a=-0.75 half_pixel upscale", {1, 1, 4, 5}, {1, 1, 9, 7},
         {S("mode", "cubic"), F("cubic_coeff_a", -0.75f)}, {0, kCubic, 0, -0.75f}},
        {"cubic without a uses 0.0", {1, 1, 4, 5}, {1, 1, 9, 7}, {S("mode", "cubic")}, {0, kCubic, 0, 0.0f}},
        {"cubic align_corners downscale", {1, 2, 9, 8}, {1, 2, 4, 3},
         {S(kCtm, "align_corners"), S("mode", "cubic"), F("cubic_coeff_a", -0.5f)}, {2, kCubic, 0, -0.5f}},
        {"prefix match: cubicle", {1, 1, 3, 3}, {1, 1, 5, 5}, {S("mode", "cubicle")}, {0, kCubic, 0, 0.0f}},
        {"unknown coordinate mode is half_pixel", {1, 1, 3, 3}, {1, 1, 5, 5}, {S(kCtm, "half"), linear},
         {0, kLinear, 0, 0}},
        {"tf_crop_and_resize roi indices", {1, 1, 5, 6}, {1, 1, 4, 3}, {crop, linear}, {5, kLinear, 0, 0}, roi8, box8},
        // Guard: a crop box past the image reads no pixel outside the plane.
        {"tf_crop_and_resize beyond the image", {1, 1, 3, 3}, {1, 1, 4, 4}, {crop, linear}, {5, kLinear, 0, 0},
         {0.5f, 1.5f, 2.0f, 2.5f}, {0.5f, 2.0f, 1.5f, 2.5f}},
        {"tf_crop_and_resize nearest", {1, 1, 5, 6}, {1, 1, 4, 3}, {crop, nearest}, {5, kNearest, 0, 0}, roi8, box8},
        {"tf_crop_and_resize short roi keeps the unit box", {1, 1, 3, 3}, {1, 1, 4, 4}, {crop, linear},
         {5, kLinear, 0, 0}, {0.2f, 0.3f}},
        {"rank 3", {2, 3, 4}, {2, 5, 2}, {linear}, {0, kLinear, 0, 0}},
        {"rank 2", {3, 4}, {5, 2}, {linear}, {0, kLinear, 0, 0}},
        {"rank 1 is the width of one row", {5}, {8}, {S("mode", "cubic"), F("cubic_coeff_a", -0.75f)},
         {0, kCubic, 0, -0.75f}},
    };
    for (const ComputeCase &c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<float> x = pattern(count_of(c.in_dims), 7);
        expect_bits(reference(c.in_dims, c.out_dims, x, c.expect, c.box.data()), run_resize(c, x), "", true);
    }
}

TEST(ResizeCompute, AbsentAttributesReadByTheGetters) {
    // Which getters meet an absent attribute (and log it) depends on the mode.
    const std::string str = "T Err   qv_kel_custom_get_attr_string:L get attr error, attr is null\n";
    const std::string flt = "T Err   qv_kel_custom_get_attr_float:L get attr error, attr is null\n";
    const struct { const char *name; std::vector<Attr> attrs; std::string log; } cases[] = {
        {"nothing given: only the coordinate mode is read", {}, str},
        {"coordinate mode given", {S(kCtm, "asymmetric")}, ""},
        {"mode nearest reads nearest_mode", {S(kCtm, "asymmetric"), S("mode", "nearest")}, str},
        {"mode linear reads nothing more", {S(kCtm, "asymmetric"), S("mode", "linear")}, ""},
        {"mode cubic reads cubic_coeff_a", {S(kCtm, "asymmetric"), S("mode", "cubic")}, flt},
        {"all given", {S(kCtm, "asymmetric"), S("mode", "cubic"), F("cubic_coeff_a", -0.75f)}, ""},
    };
    for (const auto &c : cases) {
        std::vector<float> x = {1, 2, 3, 4};
        std::string log;
        run_resize({c.name, {1, 1, 2, 2}, {1, 1, 3, 3}, c.attrs}, x, &log);
        EXPECT_EQ(log, c.log) << c.name;
    }
}

// Inputs the operator cannot sample write nothing and still return 0;
// buffers shorter than their shapes are neither overread nor overrun.
TEST(ResizeCompute, GuardsAndShortBuffers) {
    const uint32_t F32 = NPU_DTYPE_FLOAT32;
    const struct {
        const char *name;
        std::vector<uint32_t> in_dims;
        uint32_t dtype;
        std::vector<uint32_t> out_dims;
        bool null_input;
        size_t in_floats, out_floats, written;  // buffer sizes; output elements written
    } cases[] = {
        {"rank 5", {1, 1, 1, 2, 2}, F32, {1, 1, 1, 3, 3}, false, 8, 9, 0},
        {"int32 data", {1, 1, 2, 2}, NPU_DTYPE_INT32, {1, 1, 3, 3}, false, 8, 9, 0},
        {"output rank differs", {1, 1, 2, 2}, F32, {1, 3, 3}, false, 8, 9, 0},
        {"empty input plane", {1, 1, 0, 2}, F32, {1, 1, 3, 3}, false, 8, 9, 0},
        {"rank 0", {}, F32, {}, false, 8, 9, 0},
        {"no input buffer", {1, 1, 2, 2}, F32, {1, 1, 3, 3}, true, 8, 9, 0},
        {"short output", {1, 2, 2, 2}, F32, {1, 2, 3, 3}, false, 8, 5, 5},
        {"input holds one plane of two", {1, 2, 2, 2}, F32, {1, 2, 3, 3}, false, 4, 18, 9},
        {"input holds less than a plane", {1, 2, 2, 2}, F32, {1, 2, 3, 3}, false, 3, 18, 0},
    };
    for (const auto &c : cases) {
        for (const char *mode : {"nearest", "linear", "cubic"}) {
            SCOPED_TRACE(std::string(c.name) + " " + mode);
            Ctx ctx(1, 1, 2);
            std::vector<float> x = pattern(c.in_floats, 3), y(c.out_floats, -7.0f);
            ctx.input(0, shape_of(c.in_dims), c.null_input ? nullptr : x.data(), x.size() * 4, c.dtype);
            ctx.attr_string(0, "mode", mode);
            ctx.attr_string(1, kCtm, "asymmetric");
            ctx.output(0, shape_of(c.out_dims), y);
            capture_stdout([&] { EXPECT_EQ(resize_compute(ctx.h), NPU_OK); });
            for (size_t i = 0; i < y.size(); ++i) EXPECT_EQ(y[i] != -7.0f, i < c.written) << i;
        }
    }
}

}  // namespace

// Average and max pooling: shape inference and the compute that ignores it.
#include <gtest/gtest.h>

#include <limits>

#include "npucpu.h"
#include "test_util.h"

namespace {

using namespace npucpu_test;
struct Op {
    const char *name;
    uint32_t (*infershape)(OperatorContext *), (*compute)(OperatorContext *);
};
const Op kAvg = {"averagepool", averagepool_infershape, averagepool_compute};
const Op kMax = {"maxpool", maxpool_infershape, maxpool_compute};

const float kMin = std::numeric_limits<float>::min();  // the max start value
const float kNaN = std::numeric_limits<float>::quiet_NaN();
volatile float zero = 0.0f;
const float kZeroByZero = zero / zero;  // the processor's default NaN

// One attribute as the host would set it.
struct Attr {
    const char *name;
    std::vector<int64_t> ints;  // an ints attribute unless `text` or `is_int`
    const char *text = nullptr;
    bool is_int = false;
};
Attr ints(const char *name, std::vector<int64_t> v) { return {name, std::move(v)}; }
Attr text(const char *name, const char *v) { return {name, {}, v}; }
Attr one(const char *name, int64_t v) { return {name, {v}, nullptr, true}; }

void set_attrs(Ctx &ctx, const std::vector<Attr> &attrs) {
    for (uint32_t i = 0; i < attrs.size(); ++i) {
        const Attr &a = attrs[i];
        if (a.text != nullptr) ctx.attr_string(i, a.name, a.text);
        else if (a.is_int) ctx.attr_int(i, a.name, a.ints[0]);
        else ctx.attr_ints(i, a.name, a.ints);
    }
}

std::string line(const std::string &unit, const std::string &text) { return "[E] [custom] [" + unit + ":L] " + text; }

// Runs an entry point and returns its status and masked stderr; stdout (where
// the getters log absent attributes) is dropped.
std::pair<uint32_t, std::string> run(uint32_t (*entry)(OperatorContext *), Ctx &ctx) {
    uint32_t status = 1;
    std::string err;
    capture_stdout([&] { err = mask_error_lines(capture_stderr([&] { status = entry(ctx.h); })); });
    return {status, err};
}

TEST(Pool, Infershape) {
    const Attr notset = text("auto_pad", "NOTSET"), k2 = ints("kernel_shape", {2, 2}), s2 = ints("strides", {2, 2});
    const Attr ceil = one("ceil_mode", 1);
    const std::string M = line("matrix_ops", ""), A = line("averagepool_ops_impl", "");
    const std::string X = line("maxpool_ops_impl", "");
    const std::string bad_mode = M + "INVALID auto_pad_ mode  \n", pad_fail = "Process auto_pad fail \n";
    const struct {
        const char *what;
        const Op *op;
        std::vector<uint32_t> dims;
        uint32_t format;
        std::vector<Attr> attrs;
        uint32_t outputs, status;
        std::string err;  // masked stderr
        std::vector<uint32_t> out_dims;
    } cases[] = {
        {"absent auto_pad", &kAvg, {1, 1, 4, 4}, 0, {k2}, 1, NPU_FAIL, bad_mode + A + pad_fail, {}},
        {"absent auto_pad", &kMax, {1, 1, 4, 4}, 0, {}, 1, NPU_FAIL, bad_mode + X + pad_fail, {}},
        {"VALID leaving data over", &kMax, {1, 1, 5, 5}, 0, {text("auto_pad", "VALID"), k2, s2}, 1, NPU_FAIL,
         M + "Not support drop right data when auto_pad is VALID \n" + X + pad_fail, {}},
        // Padded 7 x 6, kernel 3 x 2, strides 2 x 1, truncated: 3 x 5.
        {"NOTSET with pads", &kAvg, {2, 3, 5, 5}, 0,
         {notset, ints("kernel_shape", {3, 2}), ints("strides", {2, 1}), ints("pads", {1, 0, 1, 1})}, 1, NPU_OK, "",
         {2, 3, 3, 5}},
        // Five pads listed: only the first four are read.
        {"SAME_UPPER ignores the pads", &kMax, {1, 2, 5, 7}, 0,
         {text("auto_pad", "SAME_UPPER"), ints("kernel_shape", {3, 3}), s2, ints("pads", {9, 9, 9, 9, 9})}, 1, NPU_OK,
         "", {1, 2, 3, 4}},
        // The shape is written N, C, H, W whatever the format: N 1, H 4, W 5, C 3.
        {"channels-last input", &kAvg, {1, 4, 5, 3}, NPU_FORMAT_NHWC, {notset}, 1, NPU_OK, "", {1, 3, 4, 5}},
        // 5 x 5, kernel 2, stride 2: ceil gives 3, a full window fits 2 times.
        {"ceil mode overhang", &kAvg, {1, 1, 5, 5}, 0, {notset, k2, s2, ceil}, 1, NPU_OK,
         A + "outputW 3 is large than orig_w 2 , pad right. \n" + A +
             "outputH 3 is large than orig_h 2, pad bottom. \n", {1, 1, 3, 3}},
        {"ceil mode overhang", &kMax, {1, 1, 5, 5}, 0, {notset, k2, s2, ceil}, 2, NPU_OK,
         X + "outputW 3 is large than orig_w 2, pad right. \n" + X +
             "outputH 3 is large than orig_h 2, pad bottom. \n", {1, 1, 3, 3}},
        // Strides (2, 1): out 3 x 4. The width check divides by the height stride
        // (orig_w = 3 / 2 + 1 = 2), the height check by the width stride (orig_h 4, no message).
        {"crossed strides", &kMax, {1, 1, 5, 5}, 0, {notset, k2, ints("strides", {2, 1}), ceil}, 1, NPU_OK,
         X + "outputW 4 is large than orig_w 2, pad right. \n", {1, 1, 3, 4}},
        // Kernel 3 x 2, dilations (2, 1): out 4 x 5. The width extent takes the height
        // dilation ((2 - 1) * 2, orig_w 4), the height extent the width one ((3 - 1) * 1, orig_h 4).
        {"crossed dilations", &kAvg, {1, 1, 6, 6}, 0,
         {notset, ints("kernel_shape", {3, 2}), ints("dilations", {2, 1}), ceil}, 1, NPU_OK,
         A + "outputW 5 is large than orig_w 4 , pad right. \n", {1, 1, 4, 5}},
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(std::string(t.what) + " / " + t.op->name);
        Ctx ctx(1, t.outputs, static_cast<uint32_t>(t.attrs.size()));
        std::vector<float> in(4);
        ctx.input(0, shape_of(t.dims), in.data(), 16, NPU_DTYPE_FLOAT32, t.format);
        set_attrs(ctx, t.attrs);
        EXPECT_EQ(run(t.op->infershape, ctx), std::make_pair(t.status, t.err));
        if (t.status != NPU_OK) continue;
        for (uint32_t i = 0; i < t.outputs; ++i) {
            EXPECT_EQ(dims_of(ctx.output_shape(i)), t.out_dims);
            uint32_t dtype = 99, format = 99;
            qv_kel_custom_get_output_dtype_by_index(ctx.h, i, &dtype);
            qv_kel_custom_get_output_format_by_index(ctx.h, i, &format);
            EXPECT_EQ(dtype, i == 0 ? uint32_t{NPU_DTYPE_FLOAT32} : uint32_t{NPU_DTYPE_INT32});
            EXPECT_EQ(format, t.format);
        }
    }

    for (const Op *op : {&kAvg, &kMax}) {
        Ctx two(2, 1);
        const std::string name = op->name;
        const std::string err = line(name + "_ops_impl", name + " only support 1 inputs \n");
        EXPECT_EQ(run(op->infershape, two), std::make_pair(uint32_t{NPU_ERR_INPUT_NUM}, err));
    }
}

TEST(Pool, Compute) {
    const Attr notset = text("auto_pad", "NOTSET"), k2 = ints("kernel_shape", {2, 2}), s2 = ints("strides", {2, 2});
    const Attr pads1 = ints("pads", {1, 1, 1, 1}), counted = one("count_include_pad", 1);
    const Attr ceil = one("ceil_mode", 1), k0 = ints("kernel_shape", {0, 0});
    const uint32_t S = 0xdeadbeef;  // positions not written
    const std::vector<float> ramp16 = iota(16), in4 = {1, 2, 3, 4}, twos(25, 2.0f);
    const float N = kZeroByZero;
    const struct {
        const char *what;
        const Op *op;
        std::vector<uint32_t> dims;
        std::vector<float> in;
        std::vector<Attr> attrs;
        std::vector<float> want;
        std::vector<uint32_t> positions = {};  // when not empty output 1 is declared with this many elements
    } cases[] = {
        {"2 x 2 means", &kAvg, {1, 1, 4, 4}, ramp16, {notset, k2, s2}, {3.5f, 5.5f, 11.5f, 13.5f}},
        {"2 x 2 maxima", &kMax, {1, 1, 4, 4}, ramp16, {notset, k2, s2}, {6, 8, 14, 16}, {5, 7, 13, 15}},
        // Infershape's ceil mode gives 3 x 3; compute fits 2 x 2 windows and writes
        // them at the start, the tail keeping its zeros (output 1's tail unwritten).
        {"ceil mode, dense writes", &kAvg, {1, 1, 5, 5}, twos, {notset, k2, s2, ceil}, {2, 2, 2, 2, 0, 0, 0, 0, 0}},
        {"ceil mode, dense writes", &kMax, {1, 1, 5, 5}, twos, {notset, k2, s2, ceil}, {2, 2, 2, 2, 0, 0, 0, 0, 0},
         {0, 2, 10, 12, S, S, S, S, S}},
        // Dilations and SAME_UPPER change only the inferred shape: compute pools
        // 1 x 1 windows of the unpadded input (stride 3: 2 x 2).
        {"SAME_UPPER and dilations ignored", &kAvg, {1, 1, 4, 4}, ramp16,
         {text("auto_pad", "SAME_UPPER"), ints("strides", {3, 3}), ints("dilations", {2, 2})}, {1, 4, 13, 16}},
        // 2 x 2 input padded by 1 all round, kernel 1: the padding windows give
        // 0 / 0 without count_include_pad and +0.0 / 1 with it.
        {"padding-only windows", &kAvg, {1, 1, 2, 2}, in4, {notset, pads1},
         {N, N, N, N, N, 1, 2, N, N, 3, 4, N, N, N, N, N}},
        {"padding-only windows counted", &kAvg, {1, 1, 2, 2}, in4, {notset, pads1, counted},
         {0, 0, 0, 0, 0, 1, 2, 0, 0, 3, 4, 0, 0, 0, 0, 0}},
        // Kernel 2, stride 1 over the padded 4 x 4 plane: each corner window holds one element.
        {"windows partly in the padding", &kAvg, {1, 1, 2, 2}, in4, {notset, k2, pads1},
         {1, 1.5f, 2, 2, 2.5f, 3, 3, 3.5f, 4}},
        {"windows partly in the padding, counted", &kAvg, {1, 1, 2, 2}, in4, {notset, k2, pads1, counted},
         {0.25f, 0.75f, 0.5f, 1, 2.5f, 1.5f, 0.75f, 1.75f, 1}},
        // Asymmetric pads: top 0, left 1, bottom 2, right 0. Padded 4 x 3.
        {"asymmetric padding", &kAvg, {1, 1, 2, 2}, in4,
         {notset, ints("kernel_shape", {2, 1}), ints("pads", {0, 1, 2, 0})}, {N, 2, 3, N, 3, 4, N, N, N}},
        // An empty kernel: windows at 0 .. Hp and 0 .. Wp, none holding an element.
        {"empty kernel", &kAvg, {1, 1, 1, 1}, {5}, {notset, k0}, {N, N, N, N}},
        {"empty kernel", &kMax, {1, 1, 1, 1}, {5}, {notset, k0}, {kMin, kMin, kMin, kMin}, {0, 0, 0, 0}},
        // Values at or below the start value never replace it; neither does the
        // padding's +0.0, so windows touching the padding give it too.
        {"all-negative windows", &kMax, {1, 1, 2, 3}, {-1, -5, -3, -4, -0.0f, 1e-39f},
         {notset, k2, ints("strides", {1, 1}), ints("pads", {1, 0, 0, 0})}, {kMin, kMin, kMin, kMin}, {0, 0, 0, 0}},
        // Positions index the padded tensor (top 1, left 1: planes of 4 x 4, channel 1
        // from 16). Channel 1: the first of equal maxima wins and NaN never does.
        {"positions in the padded tensor", &kMax, {1, 2, 3, 3},
         {1, 2, 3, 4, 9, 6, 7, 8, 5, 5, 5, kNaN, 5, 1, 1, -1, -1, -1},
         {notset, k2, s2, ints("pads", {1, 1, 0, 0})}, {1, 3, 7, 9, 5, 5, 5, 1}, {5, 7, 13, 10, 21, 22, 25, 26}},
        // Batches: plane bases include the batch offset C x Hp x Wp.
        {"batches", &kMax, {2, 1, 2, 2}, {1, 4, 3, 2, 8, 5, 6, 7}, {notset, k2}, {4, 8}, {1, 4}},
        // Rows outer, columns inner: 1e8 - 1e8 + 1 + 1 = 2; columns first would
        // lose a 1 to rounding (1e8 + 1 == 1e8).
        {"summation order", &kAvg, {1, 1, 2, 2}, {1e8f, -1e8f, 1, 1}, {notset, k2}, {0.5f}},
    };
    for (const auto &t : cases) {
        SCOPED_TRACE(std::string(t.what) + " / " + t.op->name);
        const uint32_t outputs = t.positions.empty() ? 1 : 2;
        Ctx ctx(1, outputs, static_cast<uint32_t>(t.attrs.size()));
        std::vector<float> in = t.in;
        ctx.input(0, shape_of(t.dims), in);
        set_attrs(ctx, t.attrs);
        ASSERT_EQ(run(t.op->infershape, ctx).first, 0u);
        std::vector<float> &out = ctx.alloc_output(0, 42.0f);
        std::vector<uint32_t> pos(t.positions.size(), S);
        if (!pos.empty()) qv_kel_custom_set_output_buf_by_index(ctx.h, 1, pos.data(), 4 * pos.size());
        EXPECT_EQ(run(t.op->compute, ctx), std::make_pair(0u, std::string()));
        expect_bits(t.want, out);
        EXPECT_EQ(pos, t.positions);
    }
}

TEST(Pool, ComputeGuards) {
    const float N = kZeroByZero;
    const uint32_t ARG = NPU_ERR_INVALID_ARG;
    const std::vector<uint32_t> sevens(3, 7), d = {1, 1, 2, 2};
    const std::vector<float> none, zeros4(4, 0.0f), in4 = {1, 2, 3, 4};  // none: output not checked
    const Attr counted = one("count_include_pad", 1);
    const struct {
        const char *what;
        std::vector<uint32_t> dims;
        std::vector<float> in;        // empty: no input buffer
        std::vector<Attr> attrs;
        uint32_t outputs;             // 0: one for the average, two for the maximum
        size_t out_floats, out_room;  // buffer of out_floats (42.0), out_room of them attached
        size_t pos_room;              // positions attached (when output 1 is declared)
        uint32_t avg_status, max_status;
        std::vector<float> avg_out, max_out;
        std::vector<uint32_t> max_pos = {};  // empty: untouched
    } cases[] = {
        {"no input buffer", d, {}, {}, 1, 4, 4, 0, ARG, ARG, none, none},
        {"no output buffer", d, in4, {}, 1, 4, 0, 0, ARG, ARG, none, none},
        // Output 1 declared without a buffer: maxpool refuses (after zero-filling
        // output 0), the average never reads it.
        {"output 1 without a buffer", d, in4, {}, 2, 4, 4, 0, 0, ARG, in4, zeros4},
        {"batch 0: output zeroed, nothing else", {0, 1, 2, 2}, in4, {}, 1, 3, 3, 0, 0, 0, {0, 0, 0}, {0, 0, 0}},
        // A zero stride is refused after the zero fill.
        {"zero height stride", d, in4, {ints("strides", {0, 1})}, 1, 4, 4, 0, ARG, ARG, zeros4, zeros4},
        {"zero width stride", d, in4, {ints("strides", {1, 0})}, 1, 4, 4, 0, ARG, ARG, zeros4, zeros4},
        // The walk stops when output 0 (or output 1) is full: 4 windows, room for 3 values and 2 positions.
        {"full outputs end the walk", d, in4, {}, 0, 4, 3, 2, 0, 0, {1, 2, 3, 42}, {1, 2, 0, 42}, {0, 1, 7}},
        // A kernel larger than the padded 1 x 2 plane wraps the window bound; elements
        // past the end of the padded tensor take no part, and the output length (3)
        // ends the walk. Windows (0, 0), (0, 1), then (1, 0) holding nothing.
        {"oversized kernel rows", {1, 1, 1, 2}, {1, 2}, {ints("kernel_shape", {2, 1}), counted}, 0, 3, 3, 3, 0, 0,
         {1, 2, N}, {1, 2, kMin}, {0, 1, 0}},
        // Windows (0, 0) holding 1 and 2, (0, 1) holding 2, (0, 2) nothing.
        {"oversized kernel columns", {1, 1, 1, 2}, {1, 2}, {ints("kernel_shape", {1, 3}), counted}, 0, 3, 3, 3, 0, 0,
         {1.5f, 2, N}, {2, 2, kMin}, {1, 1, 0}},
    };
    for (const auto &t : cases) {
        for (const Op *op : {&kAvg, &kMax}) {
            SCOPED_TRACE(std::string(t.what) + " / " + op->name);
            const bool avg = op == &kAvg;
            const uint32_t outputs = t.outputs != 0 ? t.outputs : (avg ? 1 : 2);
            Ctx ctx(1, outputs, static_cast<uint32_t>(t.attrs.size()));
            std::vector<float> in = t.in, out(t.out_floats, 42.0f);
            std::vector<uint32_t> pos = sevens;
            ctx.input(0, shape_of(t.dims), in.empty() ? nullptr : in.data(), in.empty() ? 16 : 4 * in.size());
            set_attrs(ctx, t.attrs);
            if (t.out_room) qv_kel_custom_set_output_buf_by_index(ctx.h, 0, out.data(), 4 * t.out_room);
            if (outputs == 2 && t.pos_room) qv_kel_custom_set_output_buf_by_index(ctx.h, 1, pos.data(), 4 * t.pos_room);
            EXPECT_EQ(run(op->compute, ctx).first, avg ? t.avg_status : t.max_status);
            const std::vector<float> &want = avg ? t.avg_out : t.max_out;
            if (!want.empty()) expect_bits(want, out);
            EXPECT_EQ(pos, avg || t.max_pos.empty() ? sevens : t.max_pos);
        }
    }
}

}  // namespace

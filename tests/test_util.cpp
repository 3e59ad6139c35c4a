#include "test_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <regex>

#include "npucpu.h"

namespace npucpu_test {

TensorShape shape_of(std::initializer_list<uint32_t> dims) {
    return shape_of(std::vector<uint32_t>(dims));
}

TensorShape shape_of(const std::vector<uint32_t> &dims) {
    TensorShape s{};
    s.dim_num = static_cast<uint8_t>(dims.size());
    for (size_t i = 0; i < dims.size(); ++i) s.dims[i] = dims[i];
    return s;
}

std::vector<uint32_t> dims_of(const TensorShape &s) {
    return std::vector<uint32_t>(s.dims, s.dims + s.dim_num);
}

Ctx::Ctx(uint32_t inputs, uint32_t outputs, uint32_t attrs) {
    qv_kel_custom_create_handle(&h);
    qv_kel_custom_set_inputs_num(h, inputs);
    qv_kel_custom_set_outputs_num(h, outputs);
    if (attrs > 0) qv_kel_custom_set_attrs_num(h, attrs);
    outputs_.resize(outputs);
}

Ctx::~Ctx() { qv_kel_custom_destory_handle(&h); }

void Ctx::input(uint32_t i, const TensorShape &shape, void *buf, uint64_t len, uint32_t dtype,
                uint32_t format) {
    ASSERT_EQ(qv_kel_custom_set_input_by_index(h, i, dtype, format, &shape, buf, len, 0), 0u);
}

void Ctx::input(uint32_t i, const TensorShape &shape, std::vector<float> &data) {
    input(i, shape, data.data(), data.size() * sizeof(float));
}

namespace {
template <typename T>
std::vector<char> bytes_of(const T *p, size_t n) {
    std::vector<char> v(n * sizeof(T) + 1);
    if (n) std::memcpy(v.data(), p, n * sizeof(T));
    return v;
}
}  // namespace

void Ctx::attr_int(uint32_t i, const char *name, int64_t v) {
    values_.push_back(bytes_of(&v, 1));
    qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_INT, values_.back().data(), 8);
}

void Ctx::attr_ints(uint32_t i, const char *name, std::vector<int64_t> v) {
    values_.push_back(bytes_of(v.data(), v.size()));
    qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_INTS, values_.back().data(), 8 * v.size());
}

void Ctx::attr_float(uint32_t i, const char *name, float v) {
    values_.push_back(bytes_of(&v, 1));
    qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_FLOAT, values_.back().data(), 4);
}

void Ctx::attr_floats(uint32_t i, const char *name, std::vector<float> v) {
    values_.push_back(bytes_of(v.data(), v.size()));
    qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_FLOATS, values_.back().data(), 4 * v.size());
}

void Ctx::attr_string(uint32_t i, const char *name, const std::string &v) {
    values_.push_back(bytes_of(v.data(), v.size()));
    qv_kel_custom_set_attr_by_index(h, i, name, 0, NPU_ATTR_STRING, values_.back().data(), v.size());
}

void Ctx::output(uint32_t i, const TensorShape &shape, void *buf, uint64_t len) {
    ASSERT_EQ(qv_kel_custom_set_output_by_index(h, i, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &shape, buf, len), 0u);
}

TensorShape Ctx::output_shape(uint32_t i) const {
    TensorShape s{};
    qv_kel_custom_get_output_shape_by_index(h, i, &s);
    return s;
}

std::vector<float> &Ctx::alloc_output(uint32_t i, float fill) {
    TensorShape s = output_shape(i);
    outputs_[i].assign(GetElemSize(&s), fill);
    qv_kel_custom_set_output_buf_by_index(h, i, outputs_[i].data(), outputs_[i].size() * sizeof(float));
    return outputs_[i];
}

uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

float from_bits(uint32_t u) {
    float f;
    std::memcpy(&f, &u, sizeof f);
    return f;
}

bool same_float(float a, float b) { return (std::isnan(a) && std::isnan(b)) || bits(a) == bits(b); }

void expect_bits(const std::vector<float> &want, const std::vector<float> &got, const std::string &what,
                 bool nan_equal) {
    ASSERT_EQ(want.size(), got.size()) << what;
    for (size_t i = 0; i < want.size(); ++i) {
        if (nan_equal ? same_float(want[i], got[i]) : bits(want[i]) == bits(got[i])) continue;
        ADD_FAILURE() << what << ": first difference at " << i << ": expected 0x" << std::hex
                      << bits(want[i]) << " (" << want[i] << ") got 0x" << bits(got[i]) << " ("
                      << got[i] << ")";
        return;
    }
}

std::vector<float> iota(size_t n, float start) {
    std::vector<float> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = start + static_cast<float>(i);
    return v;
}

size_t count_of(const std::vector<uint32_t> &dims) {
    size_t n = 1;
    for (uint32_t d : dims) n *= d;
    return n;
}

ConvResult run_conv(ConvEntry infershape, ConvEntry compute, const ConvSetup &s, bool do_compute) {
    const uint32_t attrs = static_cast<uint32_t>(s.ints.size()) + (s.has_group ? 1 : 0) +
                           (s.auto_pad == "-" ? 0 : 1);
    Ctx ctx(s.bias.empty() ? 2 : 3, 1, attrs);
    std::vector<float> xd = s.xd, wd = s.wd, bias = s.bias;
    ctx.input(0, shape_of(s.x), xd.data(), xd.size() * 4, s.x_dtype);
    ctx.input(1, shape_of(s.w), wd.data(), wd.size() * 4, s.w_dtype);
    if (!bias.empty()) ctx.input(2, shape_of({static_cast<uint32_t>(bias.size())}), bias);
    uint32_t a = 0;
    for (auto &kv : s.ints) ctx.attr_ints(a++, kv.first.c_str(), kv.second);
    if (s.has_group) ctx.attr_int(a++, "group", s.group);
    if (s.auto_pad != "-") ctx.attr_string(a++, "auto_pad", s.auto_pad);

    ConvResult r;
    if (!s.force_out.empty()) {
        const TensorShape y = shape_of(s.force_out);
        qv_kel_custom_set_output_by_index(ctx.h, 0, NPU_DTYPE_FLOAT32, NPU_FORMAT_NCHW, &y, nullptr, 0);
    } else {
        r.err = capture_stderr([&] { r.infer = infershape(ctx.h); });
    }
    r.out_dims = dims_of(ctx.output_shape(0));
    if (r.infer == NPU_OK && do_compute) {
        ctx.alloc_output(0, kConvSentinel);
        r.err += capture_stderr([&] { r.status = compute(ctx.h); });
        r.out = ctx.output(0);
    }
    r.err = mask_error_lines(r.err);
    return r;
}

std::vector<float> reference_conv(const ConvGeometry &g, const std::vector<float> &x,
                                  const std::vector<float> &w, const std::vector<float> &bias,
                                  uint32_t *out_h, uint32_t *out_w) {
    const int64_t kh_eff = (g.kh - 1) * g.dh + 1, kw_eff = (g.kw - 1) * g.dw + 1;
    const uint32_t oh = static_cast<uint32_t>((g.H + g.pads[0] + g.pads[2] - kh_eff) / g.sh + 1);
    const uint32_t ow = static_cast<uint32_t>((g.W + g.pads[1] + g.pads[3] - kw_eff) / g.sw + 1);
    const uint32_t cg = g.C / g.group, mg = g.M / g.group;
    std::vector<float> y(static_cast<size_t>(g.N) * g.M * oh * ow);
    size_t o = 0;
    for (uint32_t n = 0; n < g.N; ++n)
        for (uint32_t m = 0; m < g.M; ++m)
            for (uint32_t oy = 0; oy < oh; ++oy)
                for (uint32_t ox = 0; ox < ow; ++ox) {
                    float sum = 0.0f;
                    for (uint32_t c = 0; c < cg; ++c)
                        for (int64_t r = 0; r < kh_eff; ++r)
                            for (int64_t q = 0; q < kw_eff; ++q) {
                                const int64_t iy = int64_t{oy} * g.sh + r - g.pads[0];
                                const int64_t ix = int64_t{ox} * g.sw + q - g.pads[1];
                                const size_t xp = size_t{n} * g.C + (m / mg) * cg + c;
                                const size_t wp = size_t{m} * cg + c;
                                const bool in = iy >= 0 && iy < g.H && ix >= 0 && ix < g.W;
                                const float xv = in ? x[(xp * g.H + iy) * g.W + ix] : 0.0f;
                                const float wv = (r % g.dh == 0 && q % g.dw == 0)
                                                     ? w[(wp * g.kh + r / g.dh) * g.kw + q / g.dw]
                                                     : 0.0f;
                                sum = std::fma(xv, wv, sum);
                            }
                    float v = 0.0f + sum;
                    if (!bias.empty()) v = v + bias[m];
                    y[o++] = v;
                }
    *out_h = oh;
    *out_w = ow;
    return y;
}

std::vector<float> reference_conv_transpose(const ConvGeometry &g, const std::vector<float> &x,
                                            const std::vector<float> &w,
                                            const std::vector<float> &bias, uint32_t *out_h,
                                            uint32_t *out_w) {
    ConvGeometry c = g;
    c.H = (g.H - 1) * g.sh + 1;
    c.W = (g.W - 1) * g.sw + 1;
    c.sh = c.sw = 1;
    c.pads[0] = int64_t{g.kh - 1} * g.dh - g.pads[0];
    c.pads[1] = int64_t{g.kw - 1} * g.dw - g.pads[1];
    c.pads[2] = int64_t{g.kh - 1} * g.dh - g.pads[2] + g.op;
    c.pads[3] = int64_t{g.kw - 1} * g.dw - g.pads[3] + g.op;
    std::vector<float> spread(size_t{g.N} * g.C * c.H * c.W, 0.0f);
    for (size_t p = 0; p < size_t{g.N} * g.C; ++p)
        for (uint32_t i = 0; i < g.H; ++i)
            for (uint32_t j = 0; j < g.W; ++j)
                spread[(p * c.H + i * g.sh) * c.W + j * g.sw] = x[(p * g.H + i) * g.W + j];
    const uint32_t cg = g.C / g.group, mg = g.M / g.group;
    std::vector<float> rot(w.size());
    for (uint32_t m = 0; m < g.M; ++m)
        for (uint32_t ch = 0; ch < cg; ++ch)
            for (uint32_t a = 0; a < g.kh; ++a)
                for (uint32_t b = 0; b < g.kw; ++b)
                    rot[((size_t{m} * cg + ch) * g.kh + a) * g.kw + b] =
                        w[(((size_t{m} / mg) * cg + ch) * mg + m % mg) * g.kh * g.kw +
                          (g.kh - 1 - a) * g.kw + (g.kw - 1 - b)];
    return reference_conv(c, spread, rot, bias, out_h, out_w);
}

std::string capture_stdout(const std::function<void()> &fn) {
    fflush(stdout);
    testing::internal::CaptureStdout();
    fn();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

std::string capture_stderr(const std::function<void()> &fn) {
    testing::internal::CaptureStderr();
    fn();
    fflush(stderr);
    return testing::internal::GetCapturedStderr();
}

std::string mask_error_lines(const std::string &text) {
    static const std::regex line(R"(\[E\] \[custom\] \[([A-Za-z0-9_]+):[0-9]+\] )");
    return std::regex_replace(text, line, "[E] [custom] [$1:L] ");
}

std::string mask_log_lines(const std::string &text) {
    static const std::regex line(R"((^|\n)[0-9]{2}:[0-9]{2}:[0-9]{2} (.{5}) ([A-Za-z0-9_]+):[0-9]+ )");
    return std::regex_replace(text, line, "$1T $2 $3:L ");
}

}  // namespace npucpu_test

// Shared helpers of the C++ tests: a host-side context builder that keeps
// attribute values alive, and captured output with the volatile parts
// (time stamps, source lines) masked.
#ifndef NPUCPU_TESTS_TEST_UTIL_H
#define NPUCPU_TESTS_TEST_UTIL_H

#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "npucpu.h"

namespace npucpu_test {

TensorShape shape_of(std::initializer_list<uint32_t> dims);
TensorShape shape_of(const std::vector<uint32_t> &dims);
std::vector<uint32_t> dims_of(const TensorShape &s);

// Owns one OperatorContext and every attribute value given to it.
class Ctx {
public:
    Ctx(uint32_t inputs, uint32_t outputs, uint32_t attrs = 0);
    ~Ctx();
    Ctx(const Ctx &) = delete;
    Ctx &operator=(const Ctx &) = delete;

    OperatorContext *h = nullptr;

    // Describes input `i`; the buffer stays the caller's.
    void input(uint32_t i, const TensorShape &shape, void *buf, uint64_t len,
               uint32_t dtype = NPU_DTYPE_FLOAT32, uint32_t format = NPU_FORMAT_NCHW);
    void input(uint32_t i, const TensorShape &shape, std::vector<float> &data);

    void attr_int(uint32_t i, const char *name, int64_t v);
    void attr_ints(uint32_t i, const char *name, std::vector<int64_t> v);
    void attr_float(uint32_t i, const char *name, float v);
    void attr_floats(uint32_t i, const char *name, std::vector<float> v);
    void attr_string(uint32_t i, const char *name, const std::string &v);

    // Describes output `i` with a caller-owned buffer (float32, NCHW).
    void output(uint32_t i, const TensorShape &shape, void *buf, uint64_t len);
    void output(uint32_t i, const TensorShape &shape, std::vector<float> &data) {
        output(i, shape, data.data(), data.size() * sizeof(float));
    }

    TensorShape output_shape(uint32_t i) const;
    // Allocates output `i` from its inferred shape (float elements, filled
    // with `fill`) and attaches it.
    std::vector<float> &alloc_output(uint32_t i, float fill = 0.0f);
    std::vector<float> &output(uint32_t i) { return outputs_[i]; }

private:
    std::deque<std::vector<char>> values_;
    std::deque<std::vector<float>> outputs_;
};

// Runs fn and returns what it wrote to stdout / stderr.
std::string capture_stdout(const std::function<void()> &fn);
std::string capture_stderr(const std::function<void()> &fn);

// "[E] [custom] [unit:123] " -> "[E] [custom] [unit:L] ".
std::string mask_error_lines(const std::string &text);
// "12:34:56 Err   func:123 msg" -> "T Err   func:L msg".
std::string mask_log_lines(const std::string &text);


// ---- Bit-level comparisons and deterministic data --------------------------

uint32_t bits(float f);
float from_bits(uint32_t u);
// Equal bit patterns, except that any NaN equals any NaN.
bool same_float(float a, float b);
// Fails (once) at the first element whose bit pattern differs, naming the
// index and both patterns; with nan_equal any NaN matches any NaN.
void expect_bits(const std::vector<float> &want, const std::vector<float> &got,
                 const std::string &what = "", bool nan_equal = false);
// start, start + 1, ...
std::vector<float> iota(size_t n, float start = 1.0f);
// Product of the dims (1 for none).
size_t count_of(const std::vector<uint32_t> &dims);

// Fixed-seed generator for sweeps.
struct Lcg {
    uint64_t s;
    uint32_t next() {
        s = s * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<uint32_t>(s >> 33);
    }
    uint32_t pick(uint32_t lo, uint32_t hi) { return lo + next() % (hi - lo + 1); }
    // Multiples of 1/div in [-1000/div, 1000/div].
    float value(float div) { return static_cast<float>(static_cast<int32_t>(next() % 2001) - 1000) / div; }
};

// ---- Convolution harness shared by conv and conv_transpose -----------------

using ConvEntry = uint32_t (*)(OperatorContext *);

struct ConvSetup {
    std::vector<uint32_t> x;
    std::vector<float> xd;
    std::vector<uint32_t> w;
    std::vector<float> wd;
    std::vector<float> bias;  // empty: two inputs
    std::vector<std::pair<std::string, std::vector<int64_t>>> ints;
    bool has_group = false;
    int64_t group = 1;
    std::string auto_pad = "NOTSET";  // "-" leaves the attribute out
    uint32_t x_dtype = NPU_DTYPE_FLOAT32, w_dtype = NPU_DTYPE_FLOAT32;
    std::vector<uint32_t> force_out;  // when set: no infershape, an output of these dims
};

struct ConvResult {
    uint32_t infer = 0;
    std::vector<uint32_t> out_dims;
    uint32_t status = 0;
    std::vector<float> out;
    std::string err;  // stderr of both stages, line numbers masked
};

constexpr float kConvSentinel = -7.25f;

// Runs infershape, then (when it succeeded and do_compute) compute on an
// output allocated from the inferred shape and filled with kConvSentinel.
ConvResult run_conv(ConvEntry infershape, ConvEntry compute, const ConvSetup &s,
                    bool do_compute = true);

struct ConvGeometry {
    uint32_t N, C, H, W, M, kh, kw, group;
    uint32_t sh, sw, dh, dw;
    uint32_t op;       // output padding (transposed only)
    int64_t pads[4];   // top, left, bottom, right
};

// Per output value: fused multiply-adds over channel, dilated kernel row and
// column (dilation gaps and padding contribute zeros), from 0.0f; then
// 0.0f + sum, then + bias. Filters are [M, C / group, kh, kw].
std::vector<float> reference_conv(const ConvGeometry &g, const std::vector<float> &x,
                                  const std::vector<float> &w, const std::vector<float> &bias,
                                  uint32_t *out_h, uint32_t *out_w);
// The transposed convolution as that same convolution: the input spread
// stride apart, padded by (k - 1) * d - pad (+ output padding at the end),
// at unit stride, with each filter rotated by 180 degrees and its channel
// axes swapped. Filters are [C, M / group, kh, kw]; pads at most (k - 1) * d.
std::vector<float> reference_conv_transpose(const ConvGeometry &g, const std::vector<float> &x,
                                            const std::vector<float> &w,
                                            const std::vector<float> &bias, uint32_t *out_h,
                                            uint32_t *out_w);

}  // namespace npucpu_test

#endif

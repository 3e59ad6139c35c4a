#include "pool_ops.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include "dispatch.h"
#include "op_context.h"
#include "op_log.h"

namespace npucpu {

namespace {

// auto_pad is read into this many bytes (plus a terminator): "SAME_UPPER"
// fits exactly.
constexpr uint64_t kAutoPadLen = 10;

// Reads elements 0 .. count - 1 of an ints attribute by position, whatever
// the list's length; an element the getter refuses (absent attribute, short
// list, other type) keeps `def`. Values are used as u32.
void read_ints(OperatorContext *handle, const char *name, uint32_t *out, uint64_t count,
               int64_t def) {
    const AttrRecord *attr = qv_kel_custom_get_attr_by_name(handle, name);
    for (uint64_t i = 0; i < count; ++i) {
        int64_t v = def;
        qv_kel_custom_get_attr_ints_by_index(attr, i, &v);
        out[i] = static_cast<uint32_t>(v);
    }
}

uint32_t read_int(OperatorContext *handle, const char *name, int64_t def) {
    int64_t v = def;
    qv_kel_custom_get_attr_int(qv_kel_custom_get_attr_by_name(handle, name), &v);
    return static_cast<uint32_t>(v);
}

// The auto_pad text in kAutoPadLen + 1 zero-filled bytes; empty when absent.
void read_auto_pad(OperatorContext *handle, char (&text)[kAutoPadLen + 1]) {
    std::memset(text, 0, sizeof text);
    qv_kel_custom_get_attr_string(qv_kel_custom_get_attr_by_name(handle, "auto_pad"), text,
                                  kAutoPadLen);
}

uint32_t declared_outputs(OperatorContext *handle) {
    uint32_t n = 1;
    qv_kel_custom_get_output_num(handle, &n);
    return n;
}

// The fast walk, where it gives the literal walk's results: a 4-D NCHW
// input that its buffer holds, non-negative pads and a kernel inside the
// padded plane (so the literal's end-of-tensor checks never apply), every
// count inside 32 bits, and outputs that hold every window. Output 0 past
// the windows is zero-filled as the literal does. When the fast walk gives
// up part way (see pool_fast_run), the caller zero-fills output 0 and the
// literal walk rewrites every window.
bool try_fast_walk(PoolFastKind kind, const TensorInfo &in, const uint32_t strides[2],
                   const uint32_t kernel_hw[2], const uint32_t pads[4], uint32_t count_include_pad,
                   const TensorInfo &out, const TensorInfo &positions) {
    if (kind == PoolFastKind::None || !fast_paths_enabled()) return false;
    if (in.shape.dim_num != 4 || in.format != NPU_FORMAT_NCHW) return false;
    constexpr uint32_t kLimit = 1u << 16;
    const uint64_t N = in.shape.dims[0], C = in.shape.dims[1];
    const uint32_t H = in.shape.dims[2], W = in.shape.dims[3];
    if (N == 0 || C == 0 || H == 0 || W == 0 || H >= kLimit || W >= kLimit) return false;
    for (int i = 0; i < 4; ++i) {
        if (pads[i] >= kLimit) return false;
    }
    const uint32_t Hp = H + pads[0] + pads[2], Wp = W + pads[1] + pads[3];
    if (strides[0] < 1 || strides[1] < 1 || kernel_hw[0] < 1 || kernel_hw[1] < 1 ||
        kernel_hw[0] > Hp || kernel_hw[1] > Wp) {
        return false;
    }
    if (N * C * Hp * Wp >= (uint64_t{1} << 32)) return false;
    if (in.buf_len / sizeof(float) < N * C * H * W) return false;
    const uint64_t windows = N * C * pool_fast_windows(Hp, kernel_hw[0], strides[0]) *
                             pool_fast_windows(Wp, kernel_hw[1], strides[1]);
    if (out.buf_len / sizeof(float) < windows) return false;
    const bool with_positions = positions.buf != nullptr;
    if (with_positions && positions.buf_len / sizeof(uint32_t) < windows) return false;

    PoolFastArgs a{};
    a.kind = kind;
    a.x = static_cast<const float *>(in.buf);
    a.planes = N * C;
    a.height = H;
    a.width = W;
    a.top = pads[0];
    a.left = pads[1];
    a.bottom = pads[2];
    a.right = pads[3];
    a.kernel_h = kernel_hw[0];
    a.kernel_w = kernel_hw[1];
    a.stride_h = strides[0];
    a.stride_w = strides[1];
    a.count_include_pad = count_include_pad;
    a.y = static_cast<float *>(out.buf);
    a.positions = with_positions ? static_cast<uint32_t *>(positions.buf) : nullptr;
    if (!pool_fast_run(a)) return false;
    // Output 0 past the windows keeps the zero fill.
    std::memset(static_cast<char *>(out.buf) + windows * sizeof(float), 0,
                out.buf_len - windows * sizeof(float));
    return true;
}

}  // namespace

uint32_t pool_infershape(OperatorContext *handle, const PoolTexts &texts,
                         bool reads_count_include_pad) {
    if (input_count(handle) != 1) {
        NPU_ERROR_AS(texts.unit, "%s", texts.input_count);
        return NPU_ERR_INPUT_NUM;
    }
    const TensorInfo in = input_info(handle, 0);
    const uint32_t W = get_width(&in.shape, in.format);
    const uint32_t H = get_height(&in.shape, in.format);

    uint32_t strides[2], dilations[2], kernel[2], pads[4];
    char auto_pad[kAutoPadLen + 1];
    read_ints(handle, "strides", strides, 2, 1);
    read_ints(handle, "dilations", dilations, 2, 1);
    read_ints(handle, "kernel_shape", kernel, 2, 1);
    read_auto_pad(handle, auto_pad);
    read_ints(handle, "pads", pads, 4, 0);
    const uint32_t ceil_mode = read_int(handle, "ceil_mode", 0);
    if (reads_count_include_pad) read_int(handle, "count_include_pad", 0);

    // Window extents for the overhang check. The height extent takes the
    // width dilation and the width extent the height dilation: crossed on
    // purpose.
    const uint32_t extent_h = (kernel[0] - 1) * dilations[1];
    const uint32_t extent_w = (kernel[1] - 1) * dilations[0];

    uint32_t out_h = 0, out_w = 0;
    if (process_auto_pad_mode(auto_pad, H, W, strides[0], strides[1], kernel[0], kernel[1], pads,
                              ceil_mode, &out_h, &out_w) != NPU_OK) {
        NPU_ERROR_AS(texts.unit, "%s", texts.auto_pad_fail);
        return NPU_FAIL;
    }

    if (ceil_mode != 0) {
        // process_auto_pad_mode refuses zero strides, so both divisors are
        // non-zero here; the check keeps that reliance explicit.
        if (strides[0] == 0 || strides[1] == 0) return NPU_ERR_INVALID_ARG;
        // Unsigned 32-bit throughout; the width divides by the height stride
        // and the height by the width stride, crossed on purpose. The pads
        // that a full window would need are reported only: compute reads the
        // pads attribute again, so widening them here would change nothing.
        const uint32_t orig_w = (pads[1] + pads[3] + (W - 1) - extent_w) / strides[0] + 1;
        if (out_w > orig_w) {
            NPU_ERROR_AS(texts.unit, texts.overhang_w, static_cast<int>(out_w),
                         static_cast<int>(orig_w));
        }
        const uint32_t orig_h = (pads[0] + pads[2] + (H - 1) - extent_h) / strides[1] + 1;
        if (out_h > orig_h) {
            NPU_ERROR_AS(texts.unit, texts.overhang_h, static_cast<int>(out_h),
                         static_cast<int>(orig_h));
        }
    }

    // [N, C, out_h, out_w] in this order whatever the format; dims past the
    // fourth keep the input's.
    TensorShape out = in.shape;
    out.dims[0] = get_batch(&in.shape, in.format);
    out.dims[1] = get_channel(&in.shape, in.format);
    out.dims[2] = out_h;
    out.dims[3] = out_w;
    set_output_desc(handle, 0, out, in.dtype, in.format);
    if (declared_outputs(handle) > 1) set_output_desc(handle, 1, out, NPU_DTYPE_INT32, in.format);
    return NPU_OK;
}

uint32_t pool_check_supported(OperatorContext *handle) {
    return input_info(handle, 0).dtype == NPU_DTYPE_FLOAT32 ? 1u : 0u;
}

uint32_t pool_compute(OperatorContext *handle, const PoolKernel &kernel) {
    const TensorInfo in = input_info(handle, 0);
    if (in.buf == nullptr) return NPU_ERR_INVALID_ARG;

    uint32_t strides[2], kernel_hw[2], pads[4];
    char auto_pad[kAutoPadLen + 1];
    read_ints(handle, "strides", strides, 2, 1);
    read_ints(handle, "kernel_shape", kernel_hw, 2, 1);
    read_auto_pad(handle, auto_pad);  // read, and ignored by compute
    read_ints(handle, "pads", pads, 4, 0);
    const uint32_t count_include_pad =
        kernel.reads_count_include_pad ? read_int(handle, "count_include_pad", 0) : 0;

    const TensorInfo out = output_info(handle, 0);
    if (out.buf == nullptr) return NPU_ERR_INVALID_ARG;
    // Guard: an input buffer holding fewer floats than its shape (a data
    // type narrower than float) would be padded from past its end: nothing is
    // written. A short output buffer is not refused: the walk stops once the
    // output is full.
    if (in.buf_len / sizeof(float) < element_count(in.shape)) return NPU_ERR_INVALID_ARG;

    // Output 1 (positions) is not zero-filled.
    TensorInfo positions;
    if (kernel.writes_positions && declared_outputs(handle) > 1) {
        positions = output_info(handle, 1);
        if (positions.buf == nullptr) {
            std::memset(out.buf, 0, out.buf_len);  // output 0 is zero-filled first
            return NPU_ERR_INVALID_ARG;
        }
    }

    // The fast walk zero-fills only what it does not write.
    if (try_fast_walk(kernel.fast, in, strides, kernel_hw, pads, count_include_pad, out,
                      positions)) {
        return NPU_OK;
    }
    std::memset(out.buf, 0, out.buf_len);

    // The wrapper borrows the input buffer; the padded tensor owns its data.
    Tensor *wrapper = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
    wrapper->shape = in.shape;
    wrapper->dtype = in.dtype;
    wrapper->format = in.format;
    wrapper->data = static_cast<float *>(in.buf);
    Tensor *padded = do_padding(wrapper, pads, 0.0f);
    const uint32_t Hp = get_height(&padded->shape, padded->format);
    const uint32_t Wp = get_width(&padded->shape, padded->format);
    const uint32_t C = get_channel(&padded->shape, padded->format);
    const uint32_t N = get_batch(&padded->shape, padded->format);

    uint32_t status = NPU_OK;
    if (N == 0) {
        // Nothing to pool: the output keeps its zeros.
    } else if (strides[0] < 1 || strides[1] < 1) {
        // Guard: a zero stride would never leave the first window; refused
        // (output 0 keeps its zeros).
        status = NPU_ERR_INVALID_ARG;
    } else {
        // Guard: the walk stops once output 0 (and output 1) is full; windows
        // past that are not computed.
        uint64_t limit = out.buf_len / sizeof(float);
        if (positions.buf != nullptr && positions.buf_len / sizeof(uint32_t) < limit) {
            limit = positions.buf_len / sizeof(uint32_t);
        }
        float *y = static_cast<float *>(out.buf);
        uint32_t *pos = static_cast<uint32_t *>(positions.buf);

        PoolWindow w{};
        w.data = padded->data;
        w.size = GetElemSize(&padded->shape);
        w.height = Hp;
        w.width = Wp;
        w.kernel_h = kernel_hw[0];
        w.kernel_w = kernel_hw[1];
        w.pads = pads;
        w.count_include_pad = count_include_pad;
        const uint64_t plane = static_cast<uint64_t>(Hp) * Wp;

        // Windows start at 0 and step by the stride while they fit the
        // padded plane (unsigned 32-bit bounds: a kernel larger than the
        // plane wraps them, and only the output limit ends the walk).
        uint64_t written = 0;
        for (uint64_t n = 0; n < N && written < limit; ++n) {
            for (uint64_t c = 0; c < C && written < limit; ++c) {
                w.base = (n * C + c) * plane;
                for (uint32_t r0 = 0; r0 <= Hp - kernel_hw[0] && written < limit;
                     r0 += strides[0]) {
                    for (uint32_t q0 = 0; q0 <= Wp - kernel_hw[1] && written < limit;
                         q0 += strides[1]) {
                        w.top = r0;
                        w.left = q0;
                        const PoolResult result = kernel.window(w);
                        y[written] = result.value;
                        if (pos != nullptr) pos[written] = result.position;
                        ++written;
                    }
                }
            }
        }
    }
    free_tensor(padded);
    free_tensor_not_in_buf(wrapper);
    return status;
}

}  // namespace npucpu

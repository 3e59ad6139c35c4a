// Pad: grows or crops every axis of a tensor by per-axis begin and end
// amounts, filling new elements with a constant, a single mirror image of the
// data, or the edge value. Works on bytes, for 4-byte and 1-byte elements.
#include <cstring>
#include <limits>
#include <vector>

#include "npucpu.h"
#include "utils/convert.h"
#include "utils/dispatch.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

constexpr uint64_t kPadsEntryBytes = sizeof(int64_t);
constexpr uint64_t kModeLen = 16;  // bytes of the mode text buffer
constexpr uint64_t kUnbounded = std::numeric_limits<uint64_t>::max();

enum class PadMode { kConstant, kReflect, kEdge };

PadMode mode_of(const char *text) {
    if (std::strcmp(text, "reflect") == 0) return PadMode::kReflect;
    if (std::strcmp(text, "edge") == 0) return PadMode::kEdge;
    return PadMode::kConstant;
}

// Element size of the data types pad accepts; 0 for the others.
uint8_t pad_elem_size(uint32_t dtype) {
    switch (dtype) {
        case NPU_DTYPE_FLOAT32:
        case NPU_DTYPE_INT32:
            return 4;
        case NPU_DTYPE_INT8:
        case NPU_DTYPE_UINT8:
            return 1;
        default:
            return 0;
    }
}

// Signed 64-bit arithmetic that wraps instead of overflowing, so that pads
// near the int64 limits cannot invoke undefined behaviour; results that stay
// in range are the plain ones.
int64_t wadd(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
int64_t wsub(int64_t a, int64_t b) {
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

// Where output coordinate `coord` of one axis reads from: the input
// coordinate `*p`, or the constant when `*use_constant` comes back true.
// `begin` and `end` are the axis's pads, `n` its input extent.
void source_coord(PadMode mode, int64_t coord, int64_t begin, int64_t end, int64_t n, int64_t *p,
                  bool *use_constant) {
    int64_t q = wsub(coord, begin);
    bool flag = false;
    switch (mode) {
        case PadMode::kConstant:
            if (q < 0 || q >= n) flag = true;
            break;
        case PadMode::kReflect:
            // One reflection only; what it does not bring back inside the
            // data, or brings into a cropped part, takes the constant.
            if (q < 0) {
                q = wsub(0, q);
                if (q >= wadd(n, end < 0 ? end : 0)) flag = true;
            }
            if (q >= n) {
                q = wsub(wsub(wadd(n, n), q), 2);
                if (q < (begin < 0 ? wsub(0, begin) : 0)) flag = true;
            }
            break;
        case PadMode::kEdge:
            if (q < 0) q = 0;
            if (q >= n) q = n - 1;
            break;
    }
    *p = q;
    *use_constant = flag;
}

// Row-major strides over the first `d` dims, in 64 bits (wrapping).
void strides_of(const TensorShape &s, uint32_t d, uint64_t *strides) {
    uint64_t acc = 1;
    for (uint32_t k = d; k-- > 0;) {
        strides[k] = acc;
        acc *= s.dims[k];
    }
}

// The fast walk of pad_elements, for an output the buffer holds whole: the
// same per-axis source coordinates, tabulated once per axis; each output
// row (innermost axis) is cut into runs of consecutive sources, which are
// copied, and runs of the constant. An element takes the constant when any
// of its axes does, else the input element its coordinates name, exactly as
// the element loop decides (the guards before it leave no unflagged source
// outside the data on a path that reads).
void pad_by_rows(const void *input, void *output, const void *constant, uint8_t e,
                 const TensorShape *in_shape, const TensorShape *out_shape, const int64_t *pads,
                 PadMode mode, const uint64_t *in_strides) {
    const uint32_t d = in_shape->dim_num;
    const uint32_t last = d - 1;
    // Outer axes: per output coordinate, the source offset or the constant.
    std::vector<std::vector<int64_t>> offset(d);
    for (uint32_t k = 0; k < last; ++k) {
        offset[k].resize(out_shape->dims[k]);
        for (uint64_t c = 0; c < out_shape->dims[k]; ++c) {
            int64_t p;
            bool flag;
            source_coord(mode, static_cast<int64_t>(c), pads[k], pads[d + k],
                         static_cast<int64_t>(in_shape->dims[k]), &p, &flag);
            offset[k][c] = flag ? -1 : static_cast<int64_t>(static_cast<uint64_t>(p) * in_strides[k]);
        }
    }
    // The innermost axis as runs: [start, start + len) from source `src`
    // (consecutive), or the constant (src < 0).
    struct Run {
        uint64_t start, len;
        int64_t src;
    };
    std::vector<Run> runs;
    const uint64_t width = out_shape->dims[last];
    for (uint64_t c = 0; c < width; ++c) {
        int64_t p;
        bool flag;
        source_coord(mode, static_cast<int64_t>(c), pads[last], pads[d + last],
                     static_cast<int64_t>(in_shape->dims[last]), &p, &flag);
        const int64_t src = flag ? -1 : p;
        if (!runs.empty()) {
            Run &r = runs.back();
            const bool extends = src < 0 ? r.src < 0
                                         : r.src >= 0 && r.src + static_cast<int64_t>(r.len) == src;
            if (extends) {
                ++r.len;
                continue;
            }
        }
        runs.push_back({c, 1, src});
    }
    char *out = static_cast<char *>(output);
    const char *in = static_cast<const char *>(input);
    auto fill = [&](char *dst, uint64_t n) {
        for (uint64_t j = 0; j < n; ++j) std::memcpy(dst + j * e, constant, e);
    };
    uint64_t rows = 1;
    for (uint32_t k = 0; k < last; ++k) rows *= out_shape->dims[k];
    uint64_t coord[NPU_MAX_DIMS] = {};
    for (uint64_t row = 0; row < rows; ++row) {
        char *dst = out + row * width * e;
        bool outer_constant = false;
        int64_t base = 0;
        for (uint32_t k = 0; k < last; ++k) {
            const int64_t o = offset[k][coord[k]];
            outer_constant = outer_constant || o < 0;
            base += o;
        }
        if (outer_constant) {
            fill(dst, width);
        } else {
            for (const Run &r : runs) {
                if (r.src < 0) {
                    fill(dst + r.start * e, r.len);
                } else {
                    std::memcpy(dst + r.start * e, in + (base + r.src) * e, r.len * e);
                }
            }
        }
        for (uint32_t k = last; k-- > 0;) {
            if (++coord[k] < out_shape->dims[k]) break;
            coord[k] = 0;
        }
    }
}

// The element loop behind pad_run. `in_cap` and `out_cap` are the elements
// the input and output buffers hold (kUnbounded when unknown). Everything
// that could make the loop read or write outside a buffer is settled per
// axis before the first write, so a refused call writes nothing.
uint32_t pad_elements(const void *input, uint64_t in_cap, void *output, uint64_t out_cap,
                      const void *constant, uint8_t e, const TensorShape *in_shape,
                      const TensorShape *out_shape, const int64_t *pads, const char *mode_text) {
    // Guard: shapes and mode are always read; their absence is refused.
    if (in_shape == nullptr || out_shape == nullptr || mode_text == nullptr) {
        return NPU_ERR_INVALID_ARG;
    }
    // Guard: a rank past the dims a shape record holds is refused.
    if (in_shape->dim_num > NPU_MAX_DIMS || out_shape->dim_num > NPU_MAX_DIMS) {
        return NPU_ERR_INVALID_ARG;
    }
    const uint32_t d = in_shape->dim_num;
    uint64_t count = 1;
    for (uint32_t k = 0; k < out_shape->dim_num; ++k) count *= out_shape->dims[k];
    if (count < 1) return NPU_OK;
    // Guard: the walk takes one output coordinate per input axis, so the two
    // ranks must agree (else a stride of a missing dim would be 0).
    if (out_shape->dim_num != d) return NPU_ERR_INVALID_ARG;
    if (d > 0 && pads == nullptr) return NPU_ERR_INVALID_ARG;  // guard

    const PadMode mode = mode_of(mode_text);
    uint64_t in_strides[NPU_MAX_DIMS] = {}, out_strides[NPU_MAX_DIMS] = {};
    strides_of(*in_shape, d, in_strides);
    strides_of(*out_shape, d, out_strides);

    // Per axis: does some coordinate read the data, does some take the
    // constant, and does some read outside the axis (a source the literal
    // loop would fetch from before or past the data).
    bool reads_data = true, takes_constant = false, reads_outside = false;
    uint64_t max_source = 0;
    for (uint32_t k = 0; k < d; ++k) {
        const int64_t n = in_shape->dims[k];
        bool axis_reads = false;
        int64_t axis_max = 0;
        for (uint64_t c = 0; c < out_shape->dims[k]; ++c) {
            int64_t p;
            bool flag;
            source_coord(mode, static_cast<int64_t>(c), pads[k], pads[d + k], n, &p, &flag);
            if (flag) {
                takes_constant = true;
                continue;
            }
            axis_reads = true;
            if (p < 0 || p >= n) {
                reads_outside = true;
            } else if (p > axis_max) {
                axis_max = p;
            }
        }
        reads_data = reads_data && axis_reads;
        max_source += static_cast<uint64_t>(axis_max) * in_strides[k];
    }
    // Guards: an output element whose every axis reads the data must find it
    // inside the input; the buffers each side needs must be there.
    if (reads_data && (reads_outside || input == nullptr || max_source >= in_cap)) {
        return NPU_ERR_INVALID_ARG;
    }
    if (takes_constant && constant == nullptr) return NPU_ERR_INVALID_ARG;
    if (output == nullptr) return NPU_ERR_INVALID_ARG;

    if (npucpu::fast_paths_enabled() && count <= out_cap && d >= 1) {
        pad_by_rows(input, output, constant, e, in_shape, out_shape, pads, mode, in_strides);
        return NPU_OK;
    }

    // Guard: writes stop at the end of the output buffer.
    const uint64_t limit = count < out_cap ? count : out_cap;
    for (uint64_t i = 0; i < limit; ++i) {
        bool use_constant = false;
        uint64_t s = 0;
        uint64_t rem = i;
        for (uint32_t k = 0; k < d; ++k) {
            const uint64_t coord = rem / out_strides[k];
            rem -= coord * out_strides[k];
            int64_t p;
            bool flag;
            source_coord(mode, static_cast<int64_t>(coord), pads[k], pads[d + k],
                         static_cast<int64_t>(in_shape->dims[k]), &p, &flag);
            use_constant = use_constant || flag;
            s += static_cast<uint64_t>(p) * in_strides[k];  // used only without the flag
        }
        if (use_constant) {
            pad_copy(output, constant, i, 0, e, 1);
        } else {
            pad_copy(output, input, i, s, e, 1);
        }
    }
    return NPU_OK;
}

}  // namespace

extern "C" {

NPU_API void pad_copy(void *dst, const void *src, uint64_t dst_index, uint64_t src_index,
                      uint8_t elem_size, uint64_t count) {
    const uint64_t bytes = elem_size * count;
    if (bytes == 0 || dst == nullptr || src == nullptr) return;  // guard: nothing to move
    std::memcpy(static_cast<char *>(dst) + elem_size * dst_index,
                static_cast<const char *>(src) + elem_size * src_index, bytes);
}

NPU_API uint32_t pad_run(const void *input, void *output, const void *constant, uint8_t elem_size,
                         const TensorShape *in_shape, const TensorShape *out_shape,
                         const int64_t *pads, const char *mode) {
    return pad_elements(input, kUnbounded, output, kUnbounded, constant, elem_size, in_shape,
                        out_shape, pads, mode);
}

NPU_API uint32_t pad_infershape(OperatorContext *handle) {
    const uint32_t inputs = npucpu::input_count(handle);
    const uint32_t outputs = npucpu::output_count(handle);
    if (inputs != 2 && inputs != 3) {
        NPU_ERROR("Pad only support 2 or 3 inputs \n");
        return NPU_ERR_INVALID_ARG;
    }
    if (outputs != 1) {
        NPU_ERROR("Pad only support 1 outputs \n");
        return NPU_ERR_INVALID_ARG;
    }
    const void *pads_buf = qv_kel_custom_get_input_buf_by_index(handle, 1);
    if (pads_buf == nullptr) return NPU_ERR_INPUT;

    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    uint64_t pads_len = 0;
    qv_kel_custom_get_input_buf_len_by_index(handle, 1, &pads_len);
    const uint32_t d = in.shape.dim_num;
    if (2ull * d != pads_len / kPadsEntryBytes) {
        NPU_ERROR("input 1 pads format error \n");
        return NPU_ERR_INVALID_ARG;
    }
    const int64_t *pads = static_cast<const int64_t *>(pads_buf);

    TensorShape out{};
    out.dim_num = in.shape.dim_num;
    for (uint32_t k = 0; k < d; ++k) {
        // Signed 32-bit arithmetic on the low 32 bits of the pads.
        const int32_t extent = npucpu::wrap_add(
            npucpu::wrap_add(static_cast<int32_t>(in.shape.dims[k]), static_cast<int32_t>(pads[k])),
            static_cast<int32_t>(pads[d + k]));
        if (extent < 1) {
            // Nothing left on some axis: the output has no dims at all.
            TensorShape empty{};
            npucpu::set_output_desc(handle, 0, empty, in.dtype, in.format);
            return NPU_OK;
        }
        out.dims[k] = static_cast<uint32_t>(extent);
    }
    npucpu::set_output_desc(handle, 0, out, in.dtype, in.format);
    return NPU_OK;
}

NPU_API uint32_t pad_check_supported(OperatorContext *handle) {
    const uint32_t inputs = npucpu::input_count(handle);
    const npucpu::TensorInfo data = npucpu::input_info(handle, 0);
    if (inputs == 3 && npucpu::input_info(handle, 2).dtype != data.dtype) {
        NPU_ERROR("pad input 0 and input 2 are inconsistent in data tpye \n");
        return 0;
    }
    const npucpu::TensorInfo pads = npucpu::input_info(handle, 1);
    return pads.dtype == NPU_DTYPE_INT64 && pad_elem_size(data.dtype) != 0 ? 1u : 0u;
}

NPU_API uint32_t pad_compute(OperatorContext *handle) {
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    const uint8_t e = pad_elem_size(in.dtype);
    if (e == 0) return NPU_ERR_UNSUPPORTED;

    // The constant element, zero unless input 2 gives one. It lives on the
    // stack, so no path can leak it.
    unsigned char constant[4] = {0, 0, 0, 0};
    if (npucpu::input_count(handle) == 3) {
        const npucpu::TensorInfo value = npucpu::input_info(handle, 2);
        // Guard: a missing or short input 2 buffer is read only as far as
        // it goes (nothing for a null buffer), the rest stays zero.
        if (value.buf != nullptr) {
            std::memcpy(constant, value.buf, value.buf_len < e ? value.buf_len : e);
        }
    }

    std::string mode = "constant";
    if (npucpu::has_attr(handle, "mode")) {
        mode = npucpu::attr_string(handle, "mode", kModeLen, "constant");
        if (mode != "constant" && mode != "reflect" && mode != "edge") {
            NPU_ERROR("Pad mode error, use default: constant \n");
            mode = "constant";
        }
    }

    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    if (out.shape.dim_num == 0) {
        NPU_ERROR("Pad output tensor is empty \n");
        return NPU_OK;
    }
    // Guard: the pads must be there and hold a begin and an end per axis.
    const npucpu::TensorInfo pads = npucpu::input_info(handle, 1);
    if (pads.buf == nullptr || pads.buf_len / kPadsEntryBytes < 2ull * in.shape.dim_num) {
        return NPU_ERR_INVALID_ARG;
    }
    return pad_elements(in.buf, in.buf_len / e, out.buf, out.buf_len / e, constant, e, &in.shape,
                        &out.shape, static_cast<const int64_t *>(pads.buf), mode.c_str());
}

}  // extern "C"

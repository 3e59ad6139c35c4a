// Element-wise conversion of a tensor to the data type named by the "to"
// attribute (ONNX data type numbering). Sources: float32, int32, uint32,
// int64; targets: the ten numeric types (codes 0-9).
//
// Conversion rules:
// - same type: bit copy;
// - float to integer: truncation toward zero, saturated to int32 / uint32
//   (int64 / uint64 for the 64-bit targets), NaN giving 0; the 8- and 16-bit
//   targets then keep the low bits of that 32-bit result (300.0 -> uint8 44);
// - float to double: exact widening;
// - integer to float or double: the nearest value, by the source's signedness;
// - integer to integer: narrower targets keep the low bits, wider ones are
//   sign-extended from a signed source and zero-extended from an unsigned one.
// Elements are moved with memcpy, so buffers need no particular alignment.
#include <cstdint>
#include <cstring>
#include <type_traits>

#include <emmintrin.h>

#include "npucpu.h"
#include "utils/dispatch.h"
#include "utils/convert.h"
#include "utils/op_context.h"
#include "utils/op_log.h"

namespace {

// "to" (ONNX TensorProto numbering) to the library's data type code; false
// for STRING (8), 0, 16 and above, and negatives.
bool map_to(int64_t to, uint32_t *dtype) {
    static const int32_t kCodeOf[16] = {
        -1,                      // 0  UNDEFINED
        NPU_DTYPE_FLOAT32,       // 1  FLOAT
        NPU_DTYPE_UINT8,         // 2  UINT8
        NPU_DTYPE_INT8,          // 3  INT8
        NPU_DTYPE_UINT16,        // 4  UINT16
        NPU_DTYPE_INT16,         // 5  INT16
        NPU_DTYPE_INT32,         // 6  INT32
        NPU_DTYPE_INT64,         // 7  INT64
        -1,                      // 8  STRING
        NPU_DTYPE_BOOL,          // 9  BOOL
        NPU_DTYPE_FLOAT16,       // 10 FLOAT16
        NPU_DTYPE_FLOAT64,       // 11 DOUBLE
        NPU_DTYPE_UINT32,        // 12 UINT32
        NPU_DTYPE_UINT64,        // 13 UINT64
        NPU_DTYPE_COMPLEX64,     // 14 COMPLEX64
        NPU_DTYPE_COMPLEX128,    // 15 COMPLEX128
    };
    if (to < 0 || to > 15 || kCodeOf[to] < 0) return false;
    *dtype = static_cast<uint32_t>(kCodeOf[to]);
    return true;
}

bool is_cast_source(uint32_t dtype) {
    return dtype == NPU_DTYPE_FLOAT32 || dtype == NPU_DTYPE_INT32 || dtype == NPU_DTYPE_UINT32 ||
           dtype == NPU_DTYPE_INT64;
}

bool is_signed_int_target(uint32_t dtype) {
    return dtype == NPU_DTYPE_INT8 || dtype == NPU_DTYPE_INT16 || dtype == NPU_DTYPE_INT32 ||
           dtype == NPU_DTYPE_INT64;
}

// The 64-bit pattern an integer target keeps the low bits of.
// Integer source: sign- or zero-extended by the source's signedness.
template <typename Src>
uint64_t int_bits(Src s, uint32_t /*target*/) {
    static_assert(std::is_integral<Src>::value, "");
    using Wide = typename std::conditional<std::is_signed<Src>::value, int64_t, uint64_t>::type;
    return static_cast<uint64_t>(static_cast<Wide>(s));  // modular: two's complement bits
}

// Float source: saturating truncation to 32 bits (64 bits for the 64-bit
// targets), signed or unsigned as the target is; NaN gives 0.
inline uint64_t int_bits(float f, uint32_t target) {
    const bool wide = target == NPU_DTYPE_INT64 || target == NPU_DTYPE_UINT64;
    if (is_signed_int_target(target)) {
        if (wide) return static_cast<uint64_t>(npucpu::saturate_trunc<int64_t>(f));
        return static_cast<uint32_t>(npucpu::saturate_trunc<int32_t>(f));
    }
    if (wide) return npucpu::saturate_trunc<uint64_t>(f);
    return npucpu::saturate_trunc<uint32_t>(f);
}

// Converts n elements of type Src into Dst with `conv`.
template <typename Dst, typename Src, typename Conv>
void convert_n(const unsigned char *in, unsigned char *out, uint64_t n, Conv conv) {
    for (uint64_t i = 0; i < n; ++i) {
        Src s;
        std::memcpy(&s, in + i * sizeof(Src), sizeof(Src));
        const Dst d = conv(s);
        std::memcpy(out + i * sizeof(Dst), &d, sizeof(Dst));
    }
}

// Integer targets store the low bytes of int_bits(), unsigned types carrying
// the bit pattern of either signedness.
template <typename UDst, typename Src>
void convert_to_int(const unsigned char *in, unsigned char *out, uint64_t n, uint32_t target) {
    convert_n<UDst, Src>(in, out, n,
                         [target](Src s) { return static_cast<UDst>(int_bits(s, target)); });
}

// Converts n elements of a source type into target (0-9); source != target.
template <typename Src>
void convert_from(const unsigned char *in, unsigned char *out, uint64_t n, uint32_t target) {
    switch (target) {
    case NPU_DTYPE_FLOAT32:
        convert_n<float, Src>(in, out, n, [](Src s) { return static_cast<float>(s); });
        break;
    case NPU_DTYPE_FLOAT64:
        convert_n<double, Src>(in, out, n, [](Src s) { return static_cast<double>(s); });
        break;
    case NPU_DTYPE_INT8:
    case NPU_DTYPE_UINT8:
        convert_to_int<uint8_t, Src>(in, out, n, target);
        break;
    case NPU_DTYPE_INT16:
    case NPU_DTYPE_UINT16:
        convert_to_int<uint16_t, Src>(in, out, n, target);
        break;
    case NPU_DTYPE_INT32:
    case NPU_DTYPE_UINT32:
        convert_to_int<uint32_t, Src>(in, out, n, target);
        break;
    default:  // NPU_DTYPE_INT64, NPU_DTYPE_UINT64
        convert_to_int<uint64_t, Src>(in, out, n, target);
        break;
    }
}

// float -> int32, four at a time: the same saturating truncation (the
// processor's truncation gives INT32_MIN for NaN and out-of-range values;
// those at or above 2^31 become INT32_MAX and NaN becomes 0).
void float_to_int32_fast(const unsigned char *in, unsigned char *out, uint64_t n) {
    const __m128 hi = _mm_set1_ps(2147483648.0f);
    const __m128i max = _mm_set1_epi32(INT32_MAX);
    uint64_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m128 f = _mm_loadu_ps(reinterpret_cast<const float *>(in + 4 * i));
        __m128i r = _mm_cvttps_epi32(f);
        const __m128i above = _mm_castps_si128(_mm_cmpge_ps(f, hi));
        r = _mm_or_si128(_mm_andnot_si128(above, r), _mm_and_si128(above, max));
        r = _mm_and_si128(r, _mm_castps_si128(_mm_cmpord_ps(f, f)));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 4 * i), r);
    }
    convert_to_int<uint32_t, float>(in + 4 * i, out + 4 * i, n - i, NPU_DTYPE_INT32);
}

void convert(const void *in_buf, uint32_t source, void *out_buf, uint32_t target, uint64_t n) {
    const unsigned char *in = static_cast<const unsigned char *>(in_buf);
    unsigned char *out = static_cast<unsigned char *>(out_buf);
    if (source == NPU_DTYPE_FLOAT32 && target == NPU_DTYPE_INT32 && npucpu::fast_paths_enabled()) {
        float_to_int32_fast(in, out, n);
        return;
    }
    if (source == target) {
        std::memcpy(out, in, n * get_dtype_size(source));
        return;
    }
    switch (source) {
    case NPU_DTYPE_FLOAT32: convert_from<float>(in, out, n, target); break;
    case NPU_DTYPE_INT32: convert_from<int32_t>(in, out, n, target); break;
    case NPU_DTYPE_UINT32: convert_from<uint32_t>(in, out, n, target); break;
    default: convert_from<int64_t>(in, out, n, target); break;  // NPU_DTYPE_INT64
    }
}

}  // namespace

extern "C" {

NPU_API uint32_t cast_infershape(OperatorContext *handle) {
    if (npucpu::input_count(handle) != 1) {
        // The text names ceil: it is the message hosts know for this check.
        NPU_ERROR("ceil only support 1 inputs \n");
        return NPU_ERR_INPUT_NUM;
    }
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    // An absent "to" keeps the preset 0 (the getter logs why), which no
    // data type maps from.
    int64_t to = 0;
    qv_kel_custom_get_attr_int(qv_kel_custom_get_attr_by_name(handle, "to"), &to);
    uint32_t dtype = 0;
    if (!map_to(to, &dtype)) {
        NPU_ERROR("cpu cast not supported this to \n");
        return NPU_ERR_INVALID_ARG;
    }
    npucpu::set_output_desc(handle, 0, in.shape, dtype, in.format);
    return NPU_OK;
}

NPU_API uint32_t cast_check_supported(OperatorContext *handle) {
    uint32_t dtype = 0;
    qv_kel_custom_get_input_dtype_by_index(handle, 0, &dtype);
    return is_cast_source(dtype) ? 1u : 0u;
}

NPU_API uint32_t cast_compute(OperatorContext *handle) {
    const npucpu::TensorInfo in = npucpu::input_info(handle, 0);
    const npucpu::TensorInfo out = npucpu::output_info(handle, 0);
    if (in.buf == nullptr || out.buf == nullptr) return NPU_ERR_INVALID_ARG;

    const uint32_t source = in.dtype;
    const uint32_t target = out.dtype;
    if (!is_cast_source(source)) {
        NPU_ERROR("cpu cast not supported this to \n");
        return NPU_ERR_INVALID_ARG;
    }
    uint64_t n = in.buf_len / get_dtype_size(source);
    if (n == 0) return NPU_OK;  // not even one whole element to convert
    if (target > NPU_DTYPE_UINT64) {
        // float16, complex and bool are named by "to" but not converted into.
        NPU_ERROR("cpu cast not supported this to \n");
        return NPU_OK;
    }
    // Guard: never more elements than the output buffer holds at the
    // target's size.
    const uint64_t room = out.buf_len / get_dtype_size(target);
    if (n > room) n = room;
    convert(in.buf, source, out.buf, target, n);
    return NPU_OK;
}

}  // extern "C"

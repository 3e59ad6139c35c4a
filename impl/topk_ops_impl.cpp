// The K largest or smallest elements of every slice along one axis, with
// their indices along that axis.
#include <emmintrin.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "npucpu.h"
#include "utils/convert.h"
#include "utils/dispatch.h"
#include "utils/op_context.h"
#include "utils/op_log.h"
#include "utils/stable_sort.h"

namespace {

// Attribute defaults; each attribute is read only when present.
constexpr int64_t kDefaultAxis = -1;
constexpr int64_t kDefaultLargest = 1;
constexpr int64_t kDefaultSorted = 1;

int64_t optional_int(OperatorContext *handle, const char *name, int64_t def) {
    return npucpu::has_attr(handle, name) ? npucpu::attr_int(handle, name, def) : def;
}

// K is the first 32 bits of input 1's buffer, whatever its data type says.
// Guard: a buffer shorter than 4 bytes is read only as far as it goes.
uint32_t read_k(const npucpu::TensorInfo &in1) {
    uint32_t k = 0;
    std::memcpy(&k, in1.buf, std::min<uint64_t>(sizeof(k), in1.buf_len));
    return k;
}

const TopkPair &pair_of(const void *p) { return *static_cast<const TopkPair *>(p); }

template <typename T>
T pair_value(const TopkPair &p);
template <>
float pair_value<float>(const TopkPair &p) { return p.value.f; }
template <>
int32_t pair_value<int32_t>(const TopkPair &p) { return p.value.i; }

// The float comparators never answer 0. Where each of two pairs says the
// other does not come first (equal values, or a NaN), the merge sort is told
// they tie, so they keep their ascending index order.
int tie_aware(npucpu::CompareFn cmp, const void *a, const void *b) {
    const int r = cmp(a, b);
    return r < 0 && cmp(b, a) < 0 ? 0 : r;
}
int by_largest_fp32(const void *a, const void *b) { return tie_aware(cmp_largest_fp32, a, b); }
int by_smallest_fp32(const void *a, const void *b) { return tie_aware(cmp_smallest_fp32, a, b); }

struct Order {
    npucpu::CompareFn largest;
    npucpu::CompareFn smallest;
};
const Order kOrderFp32{by_largest_fp32, by_smallest_fp32};
// The integer comparators answer 0 on ties; the merge sort keeps those in
// index order by itself.
const Order kOrderS32{cmp_largest_s32, cmp_smallest_s32};

// Element capacities of the buffers; the exported kernels have no lengths
// to go by and pass kUnbounded.
constexpr uint64_t kUnbounded = std::numeric_limits<uint64_t>::max();

// The K best pairs of one slice without sorting it, where that gives the
// stable merge sort's first K pairs: with comparators that order the slice
// consistently (no NaN among floats; integers less than 2^31 apart, so that
// the wrapping difference keeps its sign), the sort's order is by value, ties
// in index order, and the first K of it are what an insertion into a K-long
// list keeps. Returns false (nothing written) where that does not hold.
constexpr uint64_t kFastMaxK = 64;

inline bool is_nan_value(float v) { return v != v; }
inline bool is_nan_value(int32_t) { return false; }
// Float comparisons order every non-NaN pair consistently; the integer
// comparators subtract with wrapping, which keeps its sign below 2^31.
inline bool consistent_range(float, float) { return true; }
inline bool consistent_range(int32_t lo, int32_t hi) {
    return static_cast<int64_t>(hi) - static_cast<int64_t>(lo) <= INT32_MAX;
}

// Whether a slice can be selected: floats hold no NaN, integers lie within
// 2^31 of each other.
bool consistent_slice(const float *in, uint64_t first, uint64_t stride, uint32_t n) {
    bool nan = false;
    if (stride == 1) {
        const float *x = in + first;
        __m128 acc = _mm_setzero_ps();
        uint32_t m = 0;
        for (; m + 4 <= n; m += 4) {
            const __m128 v = _mm_loadu_ps(x + m);
            acc = _mm_or_ps(acc, _mm_cmpunord_ps(v, v));
        }
        nan = _mm_movemask_ps(acc) != 0;
        for (; m < n; ++m) nan |= x[m] != x[m];
    } else {
        for (uint32_t m = 0; m < n; ++m) nan |= is_nan_value(in[first + m * stride]);
    }
    return !nan;
}
bool consistent_slice(const int32_t *in, uint64_t first, uint64_t stride, uint32_t n) {
    int32_t lo = in[first], hi = in[first];
    for (uint32_t m = 0; m < n; ++m) {
        const int32_t v = in[first + m * stride];
        lo = v < lo ? v : lo;
        hi = v > hi ? v : hi;
    }
    return consistent_range(lo, hi);
}

// Whether any of the eight elements at x is strictly better than last.
inline bool any_better(const float *x, float last, bool largest) {
    const __m128 l = _mm_set1_ps(last);
    const __m128 a = _mm_loadu_ps(x), b = _mm_loadu_ps(x + 4);
    const __m128 r = largest ? _mm_or_ps(_mm_cmpgt_ps(a, l), _mm_cmpgt_ps(b, l))
                             : _mm_or_ps(_mm_cmplt_ps(a, l), _mm_cmplt_ps(b, l));
    return _mm_movemask_ps(r) != 0;
}
inline bool any_better(const int32_t *x, int32_t last, bool largest) {
    const __m128i l = _mm_set1_epi32(last);
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(x));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(x + 4));
    const __m128i r = largest ? _mm_or_si128(_mm_cmpgt_epi32(a, l), _mm_cmpgt_epi32(b, l))
                              : _mm_or_si128(_mm_cmplt_epi32(a, l), _mm_cmplt_epi32(b, l));
    return _mm_movemask_epi8(r) != 0;
}

template <typename T>
bool select_slice(const T *in, uint64_t first, uint64_t stride, uint32_t n, uint64_t km,
                  bool largest, TopkPair *best) {
    if (!consistent_slice(in, first, stride, n)) return false;

    // best[0 .. size) in sort order; a later element enters only when it is
    // strictly better than the last kept one (ties keep index order).
    uint64_t size = 0;
    uint32_t m = 0;
    while (m < n) {
        if (size == km && stride == 1) {
            // Skip blocks of eight that hold nothing better than the last
            // kept element (a branch-free test the compiler vectorises).
            const T last = pair_value<T>(best[km - 1]);
            const T *x = in + first;
            while (m + 8 <= n && !any_better(x + m, last, largest)) m += 8;
            if (m >= n) break;
        }
        const T v = in[first + m * stride];
        if (size == km) {
            const T last = pair_value<T>(best[km - 1]);
            if (largest ? !(v > last) : !(v < last)) {
                ++m;
                continue;
            }
            --size;
        }
        uint64_t at = size;
        while (at > 0) {
            const T prev = pair_value<T>(best[at - 1]);
            if (largest ? !(v > prev) : !(v < prev)) break;
            best[at] = best[at - 1];
            --at;
        }
        std::memset(&best[at], 0, sizeof(TopkPair));
        best[at].index = m;
        std::memcpy(&best[at].value, &v, sizeof(T));
        ++size;
        ++m;
    }
    return true;
}

// Selection of one slice after another into the pair array, then the
// unsorted rearrangements, then the first K pairs written out. Reads stay
// below in_cap input elements (a slice is cut where the input ends) and
// writes below out_cap elements of each output. With fast paths enabled, a
// slice that lies wholly inside both buffers is selected without the sort
// where select_slice can.
template <typename T>
uint32_t top_walk(const T *in, uint64_t in_cap, T *out_values, uint32_t *out_indices,
                  uint64_t out_cap, const TensorShape &shape, int32_t k, uint32_t axis,
                  int64_t largest, int64_t sorted, Order order) {
    // Guard: dims[axis] would lie outside the shape record.
    if (axis >= NPU_MAX_DIMS) return NPU_ERR_INVALID_ARG;
    const int32_t a = static_cast<int32_t>(axis);
    const uint64_t outer = accumulate_mul(shape.dims, 0, a);
    const uint32_t n = shape.dims[axis];
    const uint64_t inner = accumulate_mul(shape.dims, a + 1, shape.dim_num);
    // Guard: K is clamped to the axis length (the pair array holds n pairs);
    // a negative K selects nothing.
    const uint64_t kk = k < 0 ? 0 : std::min<uint64_t>(static_cast<uint64_t>(k), n);
    const bool fast = npucpu::fast_paths_enabled() && kk >= 1 && kk <= kFastMaxK &&
                      outer * n * inner <= in_cap && outer * kk * inner <= out_cap;

    // At least one record, so an empty axis does not depend on malloc(0).
    TopkPair *pairs = static_cast<TopkPair *>(std::malloc(sizeof(TopkPair) * std::max(n, 1u)));
    if (pairs == nullptr) return NPU_FAIL;
    for (uint64_t o = 0; o < outer; ++o) {
        for (uint64_t i = 0; i < inner; ++i) {
            uint64_t km = 0;
            if (fast && select_slice(in, o * n * inner + i, inner, n, kk, largest != 0, pairs)) {
                km = kk;
            } else {
                std::memset(pairs, 0, sizeof(TopkPair) * n);
                uint32_t m = 0;  // pairs filled: n unless the input ends first
                for (; m < n; ++m) {
                    const uint64_t src = o * n * inner + m * inner + i;
                    if (src >= in_cap) break;
                    pairs[m].index = m;
                    std::memcpy(&pairs[m].value, &in[src], sizeof(T));
                }
                km = std::min<uint64_t>(kk, m);
                npucpu::stable_sort(pairs, m, sizeof(TopkPair),
                                    largest != 0 ? order.largest : order.smallest);
            }
            if (largest != 0) {
                if (sorted == 0 && km >= 2) {
                    // The pair at K/2 goes to the front; those before it move
                    // up one place.
                    const uint64_t h = km / 2;
                    const TopkPair taken = pairs[h];
                    std::memmove(pairs + 1, pairs, sizeof(TopkPair) * h);
                    pairs[0] = taken;
                }
            } else {
                // Unsorted: the K smallest come out in descending order.
                if (sorted == 0) npucpu::stable_sort(pairs, km, sizeof(TopkPair), order.largest);
            }
            for (uint64_t j = 0; j < km; ++j) {
                const uint64_t pos = o * kk * inner + j * inner + i;
                if (pos >= out_cap) break;
                std::memcpy(&out_values[pos], &pairs[j].value, sizeof(T));
                out_indices[pos] = pairs[j].index;
            }
        }
    }
    std::free(pairs);
    return NPU_OK;
}

}  // namespace

extern "C" {

NPU_API int cmp_largest_s32(const void *a, const void *b) {
    return npucpu::wrap_sub(pair_of(b).value.i, pair_of(a).value.i);
}

NPU_API int cmp_smallest_s32(const void *a, const void *b) {
    return npucpu::wrap_sub(pair_of(a).value.i, pair_of(b).value.i);
}

NPU_API int cmp_largest_fp32(const void *a, const void *b) {
    return pair_of(b).value.f - pair_of(a).value.f > 0 ? 1 : -1;
}

NPU_API int cmp_smallest_fp32(const void *a, const void *b) {
    return pair_of(a).value.f - pair_of(b).value.f > 0 ? 1 : -1;
}

NPU_API uint32_t get_top_fp32(const float *in, float *out_values, uint32_t *out_indices,
                              const TensorShape *shape, int32_t k, uint32_t axis, int64_t largest,
                              int64_t sorted, uint64_t in_len, uint64_t out_len) {
    (void)in_len;
    (void)out_len;
    return top_walk(in, kUnbounded, out_values, out_indices, kUnbounded, *shape, k, axis, largest,
                    sorted, kOrderFp32);
}

NPU_API uint32_t get_top_s32(const int32_t *in, int32_t *out_values, uint32_t *out_indices,
                             const TensorShape *shape, int32_t k, uint32_t axis, int64_t largest,
                             int64_t sorted, uint64_t in_len, uint64_t out_len) {
    (void)in_len;
    (void)out_len;
    return top_walk(in, kUnbounded, out_values, out_indices, kUnbounded, *shape, k, axis, largest,
                    sorted, kOrderS32);
}

NPU_API uint32_t topk_infershape(OperatorContext *handle) {
    if (npucpu::input_count(handle) != 2) {
        NPU_ERROR("topk only support 2 inputs \n");
        return NPU_ERR_INPUT_NUM;
    }
    const npucpu::TensorInfo in1 = npucpu::input_info(handle, 1);
    if (in1.buf == nullptr) return NPU_ERR_INPUT;
    const int64_t axis = optional_int(handle, "axis", kDefaultAxis);
    optional_int(handle, "largest", kDefaultLargest);
    const int64_t sorted = optional_int(handle, "sorted", kDefaultSorted);
    const npucpu::TensorInfo in0 = npucpu::input_info(handle, 0);
    const int64_t rank = in0.shape.dim_num;
    const int64_t a = axis < 0 ? axis + rank : axis;
    if (static_cast<uint64_t>(a) >= static_cast<uint64_t>(rank)) {
        NPU_ERROR("topk axis: %lld must be in [-%lld, %lld - 1] \n", static_cast<long long>(axis),
                  static_cast<long long>(rank), static_cast<long long>(rank));
        return NPU_ERR_INPUT_NUM;
    }
    if (static_cast<uint64_t>(sorted) > 1) {
        NPU_ERROR("topk sorted:  must be 0 or 1 but not %lld \n", static_cast<long long>(sorted));
        return NPU_ERR_INPUT_NUM;
    }
    qv_kel_custom_set_output_dtype_by_index(handle, 0, in0.dtype);
    qv_kel_custom_set_output_dtype_by_index(handle, 1, NPU_DTYPE_INT32);
    qv_kel_custom_set_output_format_by_index(handle, 0, in0.format);
    qv_kel_custom_set_output_format_by_index(handle, 1, in0.format);

    const uint32_t k = read_k(in1);
    TensorShape out{};
    if (k != 0) {
        out = in0.shape;
        const int32_t dim = static_cast<int32_t>(out.dims[a]);
        out.dims[a] = static_cast<int32_t>(k) < dim ? k : out.dims[a];
    }
    qv_kel_custom_set_output_shape_by_index(handle, 0, &out);
    qv_kel_custom_set_output_shape_by_index(handle, 1, &out);
    return NPU_OK;
}

NPU_API uint32_t topk_check_supported(OperatorContext *handle) {
    const uint32_t dtype = npucpu::input_info(handle, 0).dtype;
    return dtype == NPU_DTYPE_FLOAT32 || dtype == NPU_DTYPE_INT32 ? 1u : 0u;
}

NPU_API uint32_t topk_compute(OperatorContext *handle) {
    const int64_t axis = optional_int(handle, "axis", kDefaultAxis);
    const int64_t largest = optional_int(handle, "largest", kDefaultLargest);
    const int64_t sorted = optional_int(handle, "sorted", kDefaultSorted);
    const npucpu::TensorInfo in0 = npucpu::input_info(handle, 0);
    const int64_t rank = in0.shape.dim_num;
    const int64_t a = axis < 0 ? axis + rank : axis;

    const npucpu::TensorInfo in1 = npucpu::input_info(handle, 1);
    // Guard: K is read from input 1's buffer.
    if (in1.buf == nullptr) return NPU_ERR_INVALID_ARG;
    uint32_t k = read_k(in1);
    const npucpu::TensorInfo out0 = npucpu::output_info(handle, 0);
    const npucpu::TensorInfo out1 = npucpu::output_info(handle, 1);
    if (k == 0) return NPU_OK;
    if (in0.dtype != NPU_DTYPE_FLOAT32 && in0.dtype != NPU_DTYPE_INT32) {
        NPU_ERROR("Get top index failure \n");
        return NPU_ERR_UNSUPPORTED;
    }
    // Guards: the kernel reads and writes these buffers, and along an axis
    // inside the rank (infershape refuses any other).
    if (in0.buf == nullptr || out0.buf == nullptr || out1.buf == nullptr) {
        return NPU_ERR_INVALID_ARG;
    }
    if (a < 0 || a >= rank) return NPU_ERR_INVALID_ARG;
    // Guard: K larger than the axis selects the whole axis, as infershape
    // sized the outputs.
    k = std::min(k, in0.shape.dims[a]);

    // Guard: the kernel reads and writes no more than the buffers hold.
    const uint64_t in_cap = in0.buf_len / 4;
    const uint64_t out_cap = std::min(out0.buf_len, out1.buf_len) / 4;
    uint32_t status;
    if (in0.dtype == NPU_DTYPE_FLOAT32) {
        status = top_walk(static_cast<const float *>(in0.buf), in_cap,
                          static_cast<float *>(out0.buf), static_cast<uint32_t *>(out1.buf),
                          out_cap, in0.shape, static_cast<int32_t>(k), static_cast<uint32_t>(a),
                          largest, sorted, kOrderFp32);
    } else {
        status = top_walk(static_cast<const int32_t *>(in0.buf), in_cap,
                          static_cast<int32_t *>(out0.buf), static_cast<uint32_t *>(out1.buf),
                          out_cap, in0.shape, static_cast<int32_t>(k), static_cast<uint32_t>(a),
                          largest, sorted, kOrderS32);
    }
    if (status != NPU_OK) {
        NPU_ERROR("Get top index failure \n");
        return NPU_ERR_UNSUPPORTED;
    }
    return NPU_OK;
}

}  // extern "C"

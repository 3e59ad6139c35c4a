// Tensor reshaping, broadcasting and the data-movement utilities.
#include <cstdlib>
#include <cstring>

#include "broadcast_fast.h"
#include "convert.h"
#include "dispatch.h"
#include "npucpu.h"
#include "op_log.h"
#include "transpose_fast.h"

extern "C" {

NPU_API Tensor *reshape(const Tensor *src, uint32_t tag, const TensorShape *target) {
    if (src == nullptr || target == nullptr) return nullptr;
    if (target->dim_num == 0) {
        NPU_ERROR("Given target shape info is empty! \n");
        return nullptr;
    }
    const uint32_t count = GetElemSize(target);
    if (GetElemSize(&src->shape) != count) {
        NPU_ERROR("Reshape to  failed! input elems:, output elems: \n");
        return nullptr;
    }
    Tensor *t = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
    t->shape = *target;
    t->dtype = src->dtype;
    t->format = tag;
    t->data = static_cast<float *>(std::malloc(static_cast<size_t>(count) * sizeof(float)));
    if (count > 0) std::memcpy(t->data, src->data, static_cast<size_t>(count) * sizeof(float));
    return t;
}

}  // extern "C"

namespace {

// One axis of a broadcast after merging: `n` output positions, input stride
// `in_step` (0 where the input repeats), output stride `out_step`.
struct BroadcastAxis {
    uint64_t n, in_step, out_step;
};

// Fills the output block of axis k onwards. An input-repeating axis is
// written once and its block copied n-1 times; the innermost axis is a
// plain copy or a fill.
void broadcast_block(const BroadcastAxis *ax, uint32_t k, uint32_t last, float *out, const float *in) {
    const BroadcastAxis &a = ax[k];
    if (k == last) {
        if (a.in_step == 0) {
            // A few elements by hand, then doubling copies (memcpy runs
            // at full width where a plain fill loop may not be vectorised).
            const uint64_t head = a.n < 16 ? a.n : 16;
            for (uint64_t j = 0; j < head; ++j) out[j] = *in;
            for (uint64_t done = head; done < a.n;) {
                const uint64_t step = done < a.n - done ? done : a.n - done;
                std::memcpy(out + done, out, step * sizeof(float));
                done += step;
            }
        } else {
            std::memcpy(out, in, a.n * sizeof(float));
        }
        return;
    }
    if (a.in_step == 0) {
        broadcast_block(ax, k + 1, last, out, in);
        for (uint64_t j = 1; j < a.n; ++j) std::memcpy(out + j * a.out_step, out, a.out_step * sizeof(float));
        return;
    }
    for (uint64_t j = 0; j < a.n; ++j) broadcast_block(ax, k + 1, last, out + j * a.out_step, in + j * a.in_step);
}

}  // namespace

namespace npucpu {

// The broadcast by blocks, for shapes whose aligned input dims all equal the
// output dim or 1 (where the index walk below reads the usual broadcast
// element for every output position). Returns false, writing nothing, for
// any other shape, which keeps the walk.
bool broadcast_fast(const TensorShape *in_shape, const float *in_data, const TensorShape *out_shape,
                    float *result, uint32_t count) {
    const uint32_t R = out_shape->dim_num;
    if (R > NPU_MAX_DIMS || in_shape->dim_num > NPU_MAX_DIMS) return false;
    const uint32_t r = in_shape->dim_num < R ? in_shape->dim_num : R;
    const uint32_t *in_dims = in_shape->dims + (in_shape->dim_num - r);
    uint64_t out_total = 1;
    for (uint32_t k = 0; k < R; ++k) {
        const uint32_t a = k < R - r ? 1u : in_dims[k - (R - r)];
        if (a != 1 && a != out_shape->dims[k]) return false;
        out_total *= out_shape->dims[k];
        if (out_total > 0xFFFFFFFFull) return false;
    }
    if (out_total != count) return false;

    // Axes from the innermost outwards, size-1 output axes dropped and
    // neighbours of the same kind (copied or repeated) merged.
    BroadcastAxis rev[NPU_MAX_DIMS];
    uint32_t m = 0;
    uint64_t in_stride = 1, out_stride = 1;
    for (uint32_t k = R; k-- > 0;) {
        const uint64_t d = out_shape->dims[k];
        const bool copied = (k >= R - r) && in_dims[k - (R - r)] != 1;
        if (d == 1) continue;
        if (m > 0 && (rev[m - 1].in_step != 0) == copied) {
            rev[m - 1].n *= d;
        } else {
            rev[m++] = BroadcastAxis{d, copied ? in_stride : 0, out_stride};
        }
        out_stride *= d;
        if (copied) in_stride *= d;
    }
    if (m == 0) {
        result[0] = in_data[0];
        return true;
    }
    BroadcastAxis ax[NPU_MAX_DIMS];
    for (uint32_t k = 0; k < m; ++k) ax[k] = rev[m - 1 - k];
    broadcast_block(ax, 0, m - 1, result, in_data);
    return true;
}

}  // namespace npucpu

extern "C" {

NPU_API float *broadcast(const TensorShape *in_shape, uint32_t dtype, const float *in_data,
                         const TensorShape *out_shape) {
    (void)dtype;  // the data is always read as 32-bit floats
    const uint32_t R = out_shape->dim_num;
    const uint32_t count = GetElemSize(out_shape);
    float *result = static_cast<float *>(std::calloc(count > 0 ? count : 1, sizeof(float)));
    // An input with no elements has nothing to read: the result stays zero.
    if (GetElemSize(in_shape) == 0 || count == 0) return result;
    if (R == 0) {
        result[0] = in_data[0];
        return result;
    }
    if (npucpu::fast_paths_enabled() && npucpu::broadcast_fast(in_shape, in_data, out_shape, result, count)) {
        return result;
    }

    // Input dims aligned at the right; an input of higher rank uses its last R dims.
    const uint32_t r = in_shape->dim_num < R ? in_shape->dim_num : R;
    const uint32_t *in_dims = in_shape->dims + (in_shape->dim_num - r);
    uint32_t a[NPU_MAX_DIMS], os[NPU_MAX_DIMS], is[NPU_MAX_DIMS];
    int32_t idx[NPU_MAX_DIMS];
    for (uint32_t k = 0; k < R; ++k) a[k] = k < R - r ? 1u : in_dims[k - (R - r)];
    os[R - 1] = 1;
    is[R - 1] = 1;
    for (uint32_t k = R - 1; k > 0; --k) {
        os[k - 1] = os[k] * out_shape->dims[k];
        is[k - 1] = is[k] * a[k];
    }
    std::memset(idx, 0, sizeof idx);

    // Incremental index walk: an axis's index is recomputed from the output
    // position modulo the input dim, and the walk stops at the first axis
    // whose index advanced, so outer axes keep their indices. For compatible
    // shapes this is the usual broadcast; for mismatched dims it wraps.
    for (uint32_t i = 0; i < count; ++i) {
        for (int32_t k = static_cast<int32_t>(R) - 1; k >= 0; --k) {
            if (a[k] == 1) {
                idx[k] = 0;
                continue;
            }
            const int32_t next = static_cast<int32_t>(
                static_cast<int64_t>(i / os[k]) % static_cast<int64_t>(a[k]));
            const int32_t old = idx[k];
            idx[k] = next;
            if (old < next) break;
        }
        uint32_t offset = 0;
        for (uint32_t k = 0; k < R; ++k) offset += static_cast<uint32_t>(idx[k]) * is[k];
        result[i] = in_data[offset];
    }
    return result;
}

// ---- Bias broadcast, split, concat and padding --------------------------

// Number of elements of an n-element run from position src of a buffer of
// src_count elements to position dst of one of dst_count that stays inside
// both (the copies below are clamped to their buffers).
static uint64_t clamped_copy_len(uint64_t n, uint64_t src, uint64_t src_count, uint64_t dst,
                                 uint64_t dst_count) {
    if (src >= src_count || dst >= dst_count) return 0;
    if (n > src_count - src) n = src_count - src;
    if (n > dst_count - dst) n = dst_count - dst;
    return n;
}

NPU_API Tensor *broadcast_bias(const Tensor *bias, const Tensor *target) {
    const uint32_t rank = target->shape.dim_num;
    if (rank < bias->shape.dim_num) {
        NPU_ERROR("not support from bigger shape to small shape! \n");
        return nullptr;
    }
    // The bias's dims are placed into a shape of target's rank, all ones
    // elsewhere: from axis 1 for a 1-D bias of a 4-D (or larger) target (the
    // channel axis of NCHW), else from the first axis whose size equals the
    // bias's first dim (axis 0 when none does).
    TensorShape aligned;
    std::memset(&aligned, 0, sizeof aligned);
    aligned.dim_num = target->shape.dim_num;
    for (uint32_t k = 0; k < rank; ++k) aligned.dims[k] = 1;
    uint32_t first = 0;
    for (uint32_t k = 0; k < rank; ++k) {
        if (target->shape.dims[k] == bias->shape.dims[0]) {
            first = k;
            break;
        }
    }
    const uint32_t start = (rank >= 4 && bias->shape.dim_num == 1) ? 1 : first;
    // Guard: dims that would land past the shape record's 16 entries are dropped.
    for (uint32_t k = 0; k < bias->shape.dim_num && start + k < NPU_MAX_DIMS; ++k) {
        aligned.dims[start + k] = bias->shape.dims[k];
    }

    // The bias is copied into a buffer of the aligned shape's element count;
    // guard: when that count exceeds the bias's own, the rest stays zero
    // instead of reading past the bias.
    const uint32_t aligned_count = GetElemSize(&aligned);
    const uint32_t bias_count = GetElemSize(&bias->shape);
    float *copy = static_cast<float *>(std::calloc(aligned_count > 0 ? aligned_count : 1, sizeof(float)));
    const uint32_t copied = bias_count < aligned_count ? bias_count : aligned_count;
    if (copied > 0) std::memcpy(copy, bias->data, static_cast<size_t>(copied) * sizeof(float));

    Tensor *result = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
    result->shape = target->shape;
    result->dtype = bias->dtype;
    result->format = bias->format;
    result->data = broadcast(&aligned, bias->dtype, copy, &target->shape);
    std::free(copy);
    return result;
}

NPU_API uint32_t split(const Tensor *input, uint32_t axis, const uint32_t *sizes, uint32_t count,
                       TensorList *list) {
    const int32_t signed_axis = static_cast<int32_t>(axis);
    if (static_cast<int32_t>(input->shape.dim_num) <= signed_axis) {
        NPU_ERROR("Split axis  is great than input shape  \n");
        return NPU_ERR_INVALID_ARG;
    }
    // Guard: an axis negative as a signed value, or no list, would address
    // memory outside the records.
    if (signed_axis < 0 || list == nullptr) return NPU_ERR_INVALID_ARG;
    const uint32_t inner = accumulate_mul(input->shape.dims, signed_axis + 1, input->shape.dim_num);
    const uint32_t outer = accumulate_mul(input->shape.dims, 0, signed_axis);

    if (list->next == nullptr) {
        TensorList *tail = list;
        for (uint32_t k = 0; k < count; ++k) {
            Tensor *piece = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
            piece->shape = input->shape;
            piece->shape.dims[axis] = sizes[k];
            piece->dtype = input->dtype;
            piece->format = input->format;
            const uint32_t n = GetElemSize(&piece->shape);
            piece->data = static_cast<float *>(std::calloc(n > 0 ? n : 1, sizeof(float)));
            TensorList *node = static_cast<TensorList *>(std::calloc(1, sizeof(TensorList)));
            node->tensor = piece;
            tail->next = node;
            tail = node;
        }
    }

    // Guard: pieces handed in by the caller are used as they are, so every
    // copy is clamped to the input and to the piece (a missing piece holds
    // nothing); the read and write positions advance as if all was copied.
    const size_t in_count = GetElemSize(&input->shape);
    uint64_t *offsets = static_cast<uint64_t *>(std::calloc(count > 0 ? count : 1, sizeof(uint64_t)));
    uint64_t read = 0;
    for (uint32_t o = 0; o < outer; ++o) {
        const TensorList *node = list->next;
        for (uint32_t k = 0; k < count; ++k) {
            const uint64_t n = static_cast<uint64_t>(inner) * sizes[k];
            const Tensor *piece = node != nullptr ? node->tensor : nullptr;
            const uint64_t capacity = piece != nullptr ? GetElemSize(&piece->shape) : 0;
            const uint64_t len = clamped_copy_len(n, read, in_count, offsets[k], capacity);
            if (len > 0) std::memcpy(piece->data + offsets[k], input->data + read, len * sizeof(float));
            read += n;
            offsets[k] += n;
            if (node != nullptr) node = node->next;
        }
    }
    std::free(offsets);
    return NPU_OK;
}

NPU_API uint32_t concat(const TensorList *list, uint32_t count, uint32_t axis, Tensor *out) {
    // Guard: without a first tensor there is no reference shape (and an axis
    // past the shape record has no dim); nothing is written.
    if (list == nullptr || list->next == nullptr || list->next->tensor == nullptr) return NPU_OK;
    if (axis >= NPU_MAX_DIMS) return NPU_OK;
    const Tensor *ref = list->next->tensor;
    const uint64_t out_count = GetElemSize(&out->shape);
    uint64_t write = 0;

    // Guard (both branches): every copy is clamped to its source tensor and
    // to out; a missing tensor contributes nothing.
    if (ref->shape.dim_num == 1) {
        const TensorList *node = list->next;
        for (uint32_t k = 0; k < count && node != nullptr; ++k, node = node->next) {
            if (node->tensor == nullptr) continue;
            const uint64_t n = GetElemSize(&node->tensor->shape);
            const uint64_t len = clamped_copy_len(n, 0, n, write, out_count);
            if (len > 0) std::memcpy(out->data + write, node->tensor->data, len * sizeof(float));
            write += n;
        }
        return NPU_OK;
    }

    const uint32_t outer = accumulate_mul(ref->shape.dims, 0, static_cast<int32_t>(axis));
    const uint32_t inner =
        accumulate_mul(ref->shape.dims, static_cast<int32_t>(axis) + 1, ref->shape.dim_num);
    if (outer == 0) return NPU_OK;
    uint64_t *offsets = static_cast<uint64_t *>(std::calloc(count > 0 ? count : 1, sizeof(uint64_t)));
    for (uint32_t o = 0; o < outer; ++o) {
        const TensorList *node = list->next;
        for (uint32_t k = 0; k < count; ++k) {
            const Tensor *t = node != nullptr ? node->tensor : nullptr;
            const uint64_t n = t != nullptr ? static_cast<uint64_t>(inner) * t->shape.dims[axis] : 0;
            const uint64_t capacity = t != nullptr ? GetElemSize(&t->shape) : 0;
            const uint64_t len = clamped_copy_len(n, offsets[k], capacity, write, out_count);
            if (len > 0) std::memcpy(out->data + write, t->data + offsets[k], len * sizeof(float));
            offsets[k] += n;
            write += n;
            if (node != nullptr) node = node->next;
        }
    }
    std::free(offsets);
    return NPU_OK;
}

NPU_API Tensor *do_padding(const Tensor *input, const uint32_t pads[4], float value) {
    // Pads are read as signed: a negative pad cuts rows or columns.
    const int32_t top = static_cast<int32_t>(pads[0]);
    const int32_t left = static_cast<int32_t>(pads[1]);
    const int32_t bottom = static_cast<int32_t>(pads[2]);

    Tensor *result = static_cast<Tensor *>(std::calloc(1, sizeof(Tensor)));
    result->shape = input->shape;
    result->shape.dims[2] += pads[0] + pads[2];
    result->shape.dims[3] += pads[1] + pads[3];
    result->dtype = input->dtype;
    result->format = input->format;
    const uint32_t count = GetElemSize(&result->shape);
    result->data = static_cast<float *>(std::malloc(count > 0 ? static_cast<size_t>(count) * sizeof(float)
                                                              : sizeof(float)));
    // The fill is bytewise: every byte takes the low 8 bits of the value's
    // int32 truncation, so 0.0 pads with zeros and 1.0 with 0x01010101.
    const uint8_t fill_byte = static_cast<uint8_t>(npucpu::saturate_trunc<int32_t>(value) & 0xff);
    std::memset(result->data, fill_byte, static_cast<size_t>(count) * sizeof(float));

    const uint32_t Wo = get_width(&result->shape, result->format);
    const uint32_t Ho = get_height(&result->shape, result->format);
    const uint32_t Co = get_channel(&result->shape, result->format);
    const uint32_t No = get_batch(&result->shape, result->format);
    const uint32_t W = get_width(&input->shape, input->format);
    const uint32_t H = get_height(&input->shape, input->format);
    const uint32_t C = get_channel(&input->shape, input->format);
    if (No < 1) return result;

    const int64_t first_row = top > 0 ? top : 0;
    const int64_t end_row = static_cast<int64_t>(static_cast<int32_t>(Ho)) - (bottom > 0 ? bottom : 0);
    const int64_t first_src_row = top < 0 ? -static_cast<int64_t>(top) : 0;
    const int64_t column = left > 0 ? left : 0;
    const uint64_t run = W < Wo ? W : Wo;
    // Offsets are non-negative; one that would pass int64 (padded dims near
    // 2^32) lies past every buffer, so it saturates and the clamp below
    // skips its row.
    const auto sat_mul = [](int64_t a, int64_t b) {
        int64_t r;
        return __builtin_mul_overflow(a, b, &r) ? INT64_MAX : r;
    };
    const auto sat_add = [](int64_t a, int64_t b) {
        int64_t r;
        return __builtin_add_overflow(a, b, &r) ? INT64_MAX : r;
    };
    const int64_t out_batch = sat_mul(sat_mul(Co, Wo), Ho);
    const int64_t in_batch = sat_mul(sat_mul(C, W), H);
    const uint64_t in_count = GetElemSize(&input->shape);

    // Guard: each row copy is clamped to the input and to the result (a
    // positive left pad with a negative right pad, or a layout other than
    // NCHW, would reach past them); rows at negative positions are skipped.
    // Destinations only grow in this loop order, so the copying stops at
    // the first row past the result, and does not start when no row has
    // anything to copy (pads that wrap the dims could make the loops run
    // for billions of empty rows).
    if (run == 0 || end_row <= first_row) return result;
    for (int64_t n = 0; n < No; ++n) {
        for (int64_t c = 0; c < Co; ++c) {
            int64_t src_row = first_src_row;
            for (int64_t h = first_row; h < end_row; ++h, ++src_row) {
                const int64_t dst = sat_add(sat_add(sat_add(sat_mul(n, out_batch),
                                                            sat_mul(sat_mul(c, Wo), Ho)),
                                                    sat_mul(h, Wo)),
                                            column);
                const int64_t src = sat_add(sat_add(sat_mul(n, in_batch), sat_mul(sat_mul(c, W), H)),
                                            sat_mul(src_row, W));
                if (dst < 0 || src < 0) continue;
                if (static_cast<uint64_t>(dst) >= count) return result;
                const uint64_t len = clamped_copy_len(run, static_cast<uint64_t>(src), in_count,
                                                 static_cast<uint64_t>(dst), count);
                if (len > 0) std::memcpy(result->data + dst, input->data + src, len * sizeof(float));
            }
        }
    }
    return result;
}


// ---- Gather, slice and transpose -----------------------------------------

// A rank the dims array of a TensorShape can hold.
static bool rank_fits(uint32_t rank) { return rank <= NPU_MAX_DIMS; }

NPU_API uint32_t gather(const Tensor *data, const Tensor *indices, int64_t axis, Tensor *output) {
    // Guard: missing records or buffers: nothing to gather from or into.
    if (data == nullptr || indices == nullptr || output == nullptr || data->data == nullptr ||
        indices->data == nullptr || output->data == nullptr) {
        return NPU_OK;
    }
    const int64_t rank = data->shape.dim_num;
    // Guard: ranks past the dims array.
    if (!rank_fits(data->shape.dim_num) || !rank_fits(indices->shape.dim_num)) return NPU_OK;
    const int64_t a = axis < 0 ? axis + rank : axis;
    // Guard: an axis outside the data's dims would read past them.
    if (a < 0 || a >= rank) return NPU_OK;

    // Indices widened to 64 bits: sign-extended from 32 bits for dtype 4,
    // taken as they are otherwise.
    const uint32_t n = accumulate_mul(indices->shape.dims, 0, indices->shape.dim_num);
    int64_t *entries = static_cast<int64_t *>(std::malloc(n > 0 ? n * sizeof(int64_t) : 1));
    if (indices->dtype == NPU_DTYPE_INT32) {
        const int32_t *src = reinterpret_cast<const int32_t *>(indices->data);
        for (uint32_t j = 0; j < n; ++j) entries[j] = src[j];
    } else if (n > 0) {
        std::memcpy(entries, indices->data, static_cast<size_t>(n) * sizeof(int64_t));
    }

    const int32_t ai = static_cast<int32_t>(a);
    const uint64_t axis_len = data->shape.dims[ai];
    const uint64_t outer = accumulate_mul(data->shape.dims, 0, ai);
    const uint64_t inner = accumulate_mul(data->shape.dims, ai + 1, data->shape.dim_num);
    if (ai >= 1 && outer < 1) {
        std::free(entries);
        return NPU_OK;
    }
    const uint64_t rounds = outer < 1 ? 1 : outer;

    // A negative index counts from the end of the axis, once.
    for (uint32_t j = 0; j < n; ++j) {
        if (entries[j] < 0) entries[j] += static_cast<int64_t>(axis_len);
    }
    // Guard: an index still outside the axis would read past the data;
    // refuse before anything is written.
    if (inner > 0) {
        for (uint32_t j = 0; j < n; ++j) {
            if (entries[j] < 0 || static_cast<uint64_t>(entries[j]) >= axis_len) {
                std::free(entries);
                return NPU_ERR_INVALID_ARG;
            }
        }
    }

    // Guard: writes stop at the output's element count.
    const uint64_t capacity = GetElemSize(&output->shape);
    for (uint64_t o = 0; o < rounds; ++o) {
        for (uint32_t j = 0; j < n; ++j) {
            const uint64_t from = (o * axis_len + static_cast<uint64_t>(entries[j])) * inner;
            const uint64_t to = (o * n + j) * inner;
            if (to >= capacity) continue;
            const uint64_t len = capacity - to < inner ? capacity - to : inner;
            std::memcpy(output->data + to, data->data + from, len * sizeof(float));
        }
    }
    std::free(entries);
    return NPU_OK;
}

NPU_API float *slice_one_axis(float *data, int32_t *total, uint32_t *dims, int32_t axis,
                              const int32_t *list, int32_t count) {
    // Guard: missing arrays, an axis past the dims array or a negative
    // count: nothing is done.
    if (data == nullptr || total == nullptr || dims == nullptr || axis < 0 ||
        axis >= static_cast<int32_t>(NPU_MAX_DIMS) || count < 0 || (count > 0 && list == nullptr) ||
        *total < 0) {
        return nullptr;
    }
    const uint32_t outer = accumulate_mul(dims, 0, axis);
    if (outer == 0) return nullptr;
    const uint32_t len = dims[axis];
    if (len == 0) return nullptr;
    const int64_t inner = (static_cast<int64_t>(*total) / outer) / len;

    // Guard: a position outside the axis would read past the data, and a
    // selection of more than 2^31 - 1 elements does not fit the total.
    if (inner > 0) {
        for (int32_t k = 0; k < count; ++k) {
            if (list[k] < 0 || static_cast<uint32_t>(list[k]) >= len) return nullptr;
        }
    }
    const int64_t size = static_cast<int64_t>(count) * outer * inner;
    if (size > INT32_MAX) return nullptr;

    float *result = static_cast<float *>(std::malloc(size > 0 ? static_cast<size_t>(size) * sizeof(float) : 1));
    float *next = result;
    for (uint32_t o = 0; o < outer; ++o) {
        for (int32_t k = 0; k < count; ++k) {
            const int64_t from = (list[k] + static_cast<int64_t>(o) * len) * inner;
            if (inner > 0) std::memcpy(next, data + from, static_cast<size_t>(inner) * sizeof(float));
            next += inner;
        }
    }
    *total = static_cast<int32_t>(size);
    std::free(data);
    dims[axis] = static_cast<uint32_t>(count);
    return result;
}

// The fast form of slice for the ordinary case: every axis selects at least
// one position, all inside the axis (then each one-axis pass of the literal
// kernel keeps exactly those positions), and the output holds the whole
// selection. One pass over the output with the positions per axis instead
// of a copy of the tensor per axis. False (nothing written) otherwise.
static bool slice_strided(const Tensor *input, const int32_t *starts, const int32_t *ends,
                          const int32_t *steps, Tensor *output) {
    const uint32_t rank = input->shape.dim_num;
    if (rank == 0) return false;
    int64_t count[NPU_MAX_DIMS], step[NPU_MAX_DIMS], first[NPU_MAX_DIMS];
    uint64_t stride[NPU_MAX_DIMS];
    uint64_t total = 1, s = 1;
    for (uint32_t d = rank; d-- > 0;) {
        const int64_t n = input->shape.dims[d];
        const int64_t start = starts[d], end = ends[d], p = steps[d];
        int64_t c = 0;
        if (p >= 1 && start < end) c = (end - 1 - start) / p + 1;
        if (p < 0 && start > end) c = (start - end - 1) / -p + 1;
        if (c < 1) return false;
        const int64_t last = start + (c - 1) * p;
        if ((start < last ? start : last) < 0 || (start < last ? last : start) >= n) return false;
        count[d] = c;
        step[d] = p;
        first[d] = start;
        stride[d] = s;
        s *= static_cast<uint64_t>(n);
        total *= static_cast<uint64_t>(c);
    }
    if (GetElemSize(&output->shape) < total) return false;

    const uint32_t last = rank - 1;
    uint64_t rows = total / static_cast<uint64_t>(count[last]);
    int64_t coord[NPU_MAX_DIMS] = {};
    int64_t base = 0;  // source of the row's first element
    for (uint32_t d = 0; d < last; ++d) base += first[d] * static_cast<int64_t>(stride[d]);
    float *dst = output->data;
    const float *src = input->data;
    const int64_t w = count[last], p = step[last];
    for (uint64_t row = 0; row < rows; ++row, dst += w) {
        const float *from = src + base + first[last];
        if (p == 1) {
            std::memcpy(dst, from, static_cast<size_t>(w) * sizeof(float));
        } else {
            for (int64_t j = 0; j < w; ++j) dst[j] = from[j * p];
        }
        for (uint32_t d = last; d-- > 0;) {
            base += step[d] * static_cast<int64_t>(stride[d]);
            if (++coord[d] < count[d]) break;
            base -= count[d] * step[d] * static_cast<int64_t>(stride[d]);
            coord[d] = 0;
        }
    }
    return true;
}

NPU_API uint32_t slice(const Tensor *input, const int32_t *starts, const int32_t *ends,
                       const int32_t *steps, Tensor *output) {
    // Guard: missing records, buffers or parameter arrays: nothing is written.
    if (input == nullptr || starts == nullptr || ends == nullptr || steps == nullptr ||
        output == nullptr || input->data == nullptr || output->data == nullptr) {
        return NPU_OK;
    }
    const uint32_t rank = input->shape.dim_num;
    const uint32_t elements = GetElemSize(&input->shape);
    // Guard: a rank past the dims array, or more elements than the signed
    // 32-bit total counts: nothing is written.
    if (!rank_fits(rank) || elements > static_cast<uint32_t>(INT32_MAX)) return NPU_OK;

    if (npucpu::fast_paths_enabled() && slice_strided(input, starts, ends, steps, output)) {
        return NPU_OK;
    }

    uint32_t dims[NPU_MAX_DIMS] = {};
    std::memcpy(dims, input->shape.dims, rank * sizeof(uint32_t));
    int32_t total = static_cast<int32_t>(elements);
    float *current = static_cast<float *>(std::malloc(elements > 0 ? elements * sizeof(float) : 1));
    if (elements > 0) std::memcpy(current, input->data, elements * sizeof(float));

    for (uint32_t d = 0; d < rank; ++d) {
        const int64_t start = starts[d];
        const int64_t end = ends[d];
        const int64_t step = steps[d];
        // Positions start, start + step, ... while short of end. A step of 0
        // selects nothing (it would never reach the end).
        int64_t count = 0;
        if (step >= 1 && start < end) count = (end - 1 - start) / step + 1;
        if (step < 0 && start > end) count = (start - end - 1) / -step + 1;
        if (count > 0) {
            // Guard: the positions run monotonically, so the first and the
            // last bound them; one outside the axis would be read past the
            // data. Nothing is written. (On an axis of length 0 nothing was
            // going to be copied anyway.)
            const int64_t last = start + (count - 1) * step;
            const int64_t lo = start < last ? start : last;
            const int64_t hi = start < last ? last : start;
            if (lo < 0 || hi >= static_cast<int64_t>(dims[d])) {
                std::free(current);
                return NPU_OK;
            }
        }
        // count <= dims[d] here, so it fits.
        int32_t *list = static_cast<int32_t *>(
            std::malloc(count > 0 ? static_cast<size_t>(count) * sizeof(int32_t) : 1));
        for (int64_t k = 0; k < count; ++k) list[k] = static_cast<int32_t>(start + k * step);
        float *sliced = slice_one_axis(current, &total, dims, static_cast<int32_t>(d), list,
                                       static_cast<int32_t>(count));
        if (sliced != nullptr) current = sliced;
        std::free(list);
    }

    // An empty selection leaves a total of 0: nothing is copied.
    const uint64_t capacity = GetElemSize(&output->shape);
    const uint64_t n = capacity < static_cast<uint64_t>(total) ? capacity : static_cast<uint64_t>(total);
    if (n > 0) std::memcpy(output->data, current, n * sizeof(float));
    std::free(current);
    return NPU_OK;
}

NPU_API uint32_t Transpose(const Tensor *input, const uint32_t *perm, Tensor *output) {
    if (input == nullptr || perm == nullptr || output == nullptr) {
        NPU_ERROR("invalid param! input_tensor:%p, perm:%p, output_tensor:%p \n",
                  static_cast<const void *>(input), static_cast<const void *>(perm),
                  static_cast<const void *>(output));
        return NPU_ERR_INVALID_ARG;
    }
    const uint32_t r = output->shape.dim_num;
    // Guard: the permutation must be one of the output's axes, the input of
    // the same rank, and the output shape the permuted input shape;
    // otherwise coordinates would land outside the coordinate array or reads
    // outside the input. Nothing is written.
    if (!rank_fits(r) || input->shape.dim_num != r) return NPU_ERR_INVALID_ARG;
    bool seen[NPU_MAX_DIMS] = {};
    for (uint32_t d = 0; d < r; ++d) {
        if (perm[d] >= r || seen[perm[d]] || output->shape.dims[d] != input->shape.dims[perm[d]]) {
            return NPU_ERR_INVALID_ARG;
        }
        seen[perm[d]] = true;
    }

    // Fast path: the same moves by tiles, where the element count does not
    // wrap in 32 bits and the two arrays do not overlap (the position walk
    // reads and writes in its own order).
    if (npucpu::active_isa() >= npucpu::Isa::Avx2 && r >= 1 && input->data != nullptr &&
        output->data != nullptr) {
        uint64_t count = 1;
        for (uint32_t d = 0; d < r; ++d) count *= input->shape.dims[d];
        const uintptr_t in_lo = reinterpret_cast<uintptr_t>(input->data);
        const uintptr_t out_lo = reinterpret_cast<uintptr_t>(output->data);
        const uint64_t bytes = count * sizeof(float);
        if (count >= 1 && count < (uint64_t{1} << 32) &&
            (in_lo + bytes <= out_lo || out_lo + bytes <= in_lo)) {
            int64_t perm64[NPU_MAX_DIMS];
            for (uint32_t d = 0; d < r; ++d) perm64[d] = perm[d];
            npucpu::transpose_fast_avx2(input->data, output->data, r, input->shape.dims, perm64);
            return NPU_OK;
        }
    }

    uint32_t *in_stride = static_cast<uint32_t *>(std::calloc(r > 0 ? r : 1, sizeof(uint32_t)));
    uint32_t *out_stride = static_cast<uint32_t *>(std::calloc(r > 0 ? r : 1, sizeof(uint32_t)));
    for (uint32_t d = 0; d < r; ++d) {
        in_stride[d] = static_cast<uint32_t>(get_size_from_dim(&input->shape, static_cast<int32_t>(d + 1)));
        out_stride[d] = static_cast<uint32_t>(get_size_from_dim(&output->shape, static_cast<int32_t>(d + 1)));
    }
    const uint32_t total = GetElemSize(&output->shape);
    // Guard: with elements to move, both buffers must exist.
    if (total >= 1 && (input->data == nullptr || output->data == nullptr)) {
        std::free(in_stride);
        std::free(out_stride);
        return NPU_ERR_INVALID_ARG;
    }

    // Output axis d takes input axis perm[d]: split each output position
    // into its coordinates and gather them by input axis.
    for (uint32_t n = 0; n < total; ++n) {
        uint32_t coord[NPU_MAX_DIMS] = {};
        uint32_t rem = n;
        for (uint32_t d = 0; d < r; ++d) {
            const uint32_t q = out_stride[d] == 0 ? 0 : rem / out_stride[d];
            coord[perm[d]] = q;
            rem -= q * out_stride[d];
        }
        uint32_t pos = 0;
        for (uint32_t d = 0; d < r; ++d) pos += in_stride[d] * coord[d];
        output->data[n] = input->data[pos];
    }
    std::free(in_stride);
    std::free(out_stride);
    return NPU_OK;
}


}  // extern "C"

// Mean of a float tensor over a set of axes.
#include <algorithm>
#include <vector>

#include "npucpu.h"
#include "utils/dispatch.h"
#include "utils/plane_sums.h"
#include "utils/reduce_ops.h"

namespace {

// Each pass measures the unchanged input shape (so only ascending axis lists
// give the true mean), reads B and averages per pass: a float sum in index
// order divided by the axis length.
void mean_pass(const npucpu::ReducePass &p) {
    const uint64_t outer = accumulate_mul(p.in_dims, 0, static_cast<int32_t>(p.axis));
    const uint32_t len = p.in_dims[p.axis];
    const uint64_t inner = accumulate_mul(p.in_dims, static_cast<int32_t>(p.axis) + 1, p.rank);
    // A zero-length axis: the pass writes nothing.
    if (len == 0) return;
    for (uint64_t o = 0; o < outer; ++o) {
        for (uint64_t i = 0; i < inner; ++i) {
            const float *slice = p.b + o * len * inner + i;
            float s = 0.0f;
            for (uint64_t k = 0; k < len; ++k) s += slice[k * inner];
            p.a[o * inner + i] = s / static_cast<float>(len);
        }
    }
}

// The literal mean of one slice (as mean_pass computes it).
float slice_mean(const float *slice, uint64_t len, uint64_t inner) {
    float s = 0.0f;
    for (uint64_t k = 0; k < len; ++k) s += slice[k * inner];
    return s / static_cast<float>(static_cast<uint32_t>(len));
}
float row_mean(const float *row, uint64_t len, uint32_t) { return slice_mean(row, len, 1); }

// The single-axis pass straight from the input into the output, where the
// output holds exactly the results (the literal copies the work buffer's
// front, which past the results would hold input data) and the input buffer
// holds the whole shape. Contiguous slices go eight rows at a time; strided
// ones run across the inner positions. A sum that meets NaN with NaN is
// redone by slice_mean (which NaN survives is the compiler's choice).
bool fast_mean(const float *in, uint64_t in_cap, float *out, uint64_t out_cap,
               const uint32_t *in_dims, int32_t rank, uint32_t axis) {
    const uint64_t outer = accumulate_mul(in_dims, 0, static_cast<int32_t>(axis));
    const uint64_t len = in_dims[axis];
    const uint64_t inner = accumulate_mul(in_dims, static_cast<int32_t>(axis) + 1, rank);
    if (len == 0 || outer * inner != out_cap || outer * len * inner > in_cap) return false;
    if (inner == 1) {
        if (npucpu::active_isa() < npucpu::Isa::Avx2 || len > UINT32_MAX) return false;
        npucpu::plane_means_avx2(in, outer, static_cast<uint32_t>(len), out, row_mean);
        return true;
    }
    const float divisor = static_cast<float>(static_cast<uint32_t>(len));
    std::vector<float> sums(inner);
    std::vector<unsigned char> clash(inner);
    for (uint64_t o = 0; o < outer; ++o) {
        const float *block = in + o * len * inner;
        std::fill(sums.begin(), sums.end(), 0.0f);
        std::fill(clash.begin(), clash.end(), 0);
        for (uint64_t k = 0; k < len; ++k) {
            const float *row = block + k * inner;
            for (uint64_t i = 0; i < inner; ++i) {
                clash[i] |= (sums[i] != sums[i]) & (row[i] != row[i]);
                sums[i] += row[i];
            }
        }
        for (uint64_t i = 0; i < inner; ++i) {
            out[o * inner + i] = clash[i] ? slice_mean(block + i, len, inner) : sums[i] / divisor;
        }
    }
    return true;
}

}  // namespace

extern "C" {

NPU_API uint32_t reducemean_infershape(OperatorContext *handle) {
    return npucpu::reduce_infershape(handle, __FILE__);
}

NPU_API uint32_t reducemean_check_supported(OperatorContext *handle) {
    return npucpu::reduce_check_supported(handle);
}

NPU_API uint32_t reducemean_compute(OperatorContext *handle) {
    return npucpu::reduce_compute(handle, mean_pass, fast_mean);
}

}  // extern "C"

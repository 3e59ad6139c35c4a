// Fast softmax over contiguous rows, bit-identical to the literal slice loop:
// the same running maximum (order does not matter for it: NaN and the zeros
// never win against the positive start value), each element's
// float(exp(double(x - m))), the float sum in index order and the division.
#ifndef NPUCPU_IMPL_UTILS_SOFTMAX_FAST_H
#define NPUCPU_IMPL_UTILS_SOFTMAX_FAST_H

#include <cstdint>

namespace npucpu {

// out[k] = float(std::exp(double(d[k]))) for k < n. Lanes are computed with
// a table and a polynomial in double and rounded to float; a lane whose
// value lies too close to a midpoint between two floats for the error bound
// (or whose input is outside [-87, 88], or NaN) calls std::exp instead.
void exp_to_float_avx2(const float *d, float *out, uint64_t n);

// The same with AVX-512 (eight doubles per vector, the same operations).
void exp_to_float_avx512(const float *d, float *out, uint64_t n);

// e[k] = float(exp(double(x[k] - m))) for k < n.
void exp_of_differences_avx512(const float *x, float m, float *e, uint32_t n);

// The same, also returning the float sum of e[0..n) in index order from
// +0.0 (NaN when a term is NaN: the caller then redoes the row literally).
float exp_sum_of_differences_avx512(const float *x, float m, float *e, uint32_t n);
float exp_sum_of_differences_avx2(const float *x, float m, float *e, uint32_t n);

// y = softmax(x) along rows of `len` contiguous elements; scratch holds
// 8 * len floats. With `avx512`, the exponentials use the AVX-512 form.
void softmax_rows_avx2(const float *x, float *y, uint64_t rows, uint32_t len, float *scratch,
                       bool avx512);

}  // namespace npucpu

#endif

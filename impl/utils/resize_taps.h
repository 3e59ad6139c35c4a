// The tap rules of resize's bilinear and bicubic sampling, shared by the
// literal samplers (resize_sampling.cpp) and the fast rows (resize_fast).
#ifndef NPUCPU_IMPL_UTILS_RESIZE_TAPS_H
#define NPUCPU_IMPL_UTILS_RESIZE_TAPS_H

#include <cstdint>

namespace npucpu {

// Cubic convolution weights of the four taps around a sample at distance t
// from the tap left of it, with coefficient a.
void CubicCoefficients(float out[4], float t, float a);

// i clamped to [0, size - 1].
int64_t clamp_index(int64_t i, uint32_t size);

// Left (or upper) neighbour of a bilinear sample and the weight of the right one.
struct BilinearTap {
    int64_t lo;
    int64_t hi;
    float frac;
};
BilinearTap bilinear_tap(float c, uint32_t size);

// Bilinear rows of `planes` planes (in_h x in_w) sampled at the source rows
// src_y[out_h] and columns src_x[out_w], written densely; false when the fast
// rows cannot run here (the caller then runs the literal walk).
bool resize_bilinear_fast(const float *in, float *out, uint64_t planes, uint32_t in_h,
                          uint32_t in_w, uint32_t out_h, uint32_t out_w, const float *src_y,
                          const float *src_x);

// Bicubic likewise, with coefficient a.
bool resize_cubic_fast(const float *in, float *out, uint64_t planes, uint32_t in_h, uint32_t in_w,
                       uint32_t out_h, uint32_t out_w, const float *src_y, const float *src_x,
                       float a);

}  // namespace npucpu

#endif

// Resize sampling: mapping an output pixel back to a source coordinate and
// sampling one float32 plane there (nearest, bilinear, bicubic).
//
// A plane is passed as a table of row pointers, one per input row. Every
// routine is a pure function of its arguments; nothing is allocated.
//
// Precision is part of the contract: the half-pixel style mappings run in
// double, everything else in float, and the fused multiply-adds sit exactly
// where the comments say (std::fma, nowhere else; the build forbids the
// compiler from contracting anything itself).
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "convert.h"
#include "npucpu.h"
#include "resize_taps.h"

namespace {

// Coordinate transformation mode codes.
constexpr uint32_t kHalfPixel = 0;
constexpr uint32_t kPytorchHalfPixel = 1;
constexpr uint32_t kAlignCorners = 2;
constexpr uint32_t kAsymmetric = 3;
constexpr uint32_t kTfHalfPixelForNn = 4;
constexpr uint32_t kTfCropAndResize = 5;

// Nearest rounding mode codes (0, round_prefer_floor, is also the fallback).
constexpr uint32_t kRoundPreferCeil = 1;
constexpr uint32_t kFloor = 2;
constexpr uint32_t kCeil = 3;

float half_pixel(float x, float scale) {
    return static_cast<float>((static_cast<double>(x) + 0.5) / static_cast<double>(scale) - 0.5);
}

// Rounds a mapped coordinate the way the nearest rounding mode asks.
// round_prefer_floor sends only positive exact halves down: +2.5 -> 2, but
// -2.5 is not trunc(-2.5) + 0.5, so it rounds away from zero to -3.
float round_nearest(uint32_t nearest_mode, float v) {
    switch (nearest_mode) {
        case kFloor:
            return std::floor(v);
        case kCeil:
            return std::ceil(v);
        case kRoundPreferCeil:
            return std::round(v);
        default:
            if (v == std::trunc(v) + 0.5f) return std::floor(v);
            return std::round(v);
    }
}

// Source index of a rounded coordinate: positive values truncate (saturating),
// anything else (negative, zero, NaN) is 0; then the upper clamp.
uint32_t nearest_index(float rounded, uint32_t size) {
    uint32_t i = rounded > 0.0f ? npucpu::saturate_trunc<uint32_t>(rounded) : 0u;
    if (i >= size) i = size - 1;
    return i;
}

}  // namespace

// Shared with the fast resize rows (resize_taps.h).
namespace npucpu {

// Cubic convolution weights of the four taps around a sample whose distance
// from the tap left of it is t, with coefficient a. Each line is a Horner
// scheme of fused multiply-adds, innermost first.
void CubicCoefficients(float out[4], float t, float a) {
    const float s = std::fabs(t);
    const float five_a = 5.0f * a;
    const float eight_a = 8.0f * a;
    const float four_a = 4.0f * a;
    const float a_plus_2 = a + 2.0f;
    const float a_plus_3 = a + 3.0f;

    // Outer taps: a|x|^3 - 5a|x|^2 + 8a|x| - 4a for 1 <= |x| < 2.
    const float u = s + 1.0f;
    out[0] = std::fma(std::fma(std::fma(a, u, -five_a), u, eight_a), u, -four_a);
    const float w = 2.0f - s;
    out[3] = std::fma(std::fma(std::fma(a, w, -five_a), w, eight_a), w, -four_a);

    // Inner taps: (a+2)|x|^3 - (a+3)|x|^2 + 1 for |x| < 1.
    const float p1 = std::fma(a_plus_2, s, -a_plus_3) * s;
    out[1] = std::fma(p1, s, 1.0f);
    const float v = 1.0f - s;
    const float p2 = std::fma(a_plus_2, v, -a_plus_3) * v;
    out[2] = std::fma(p2, v, 1.0f);
}

int64_t clamp_index(int64_t i, uint32_t size) {
    if (i < 0) return 0;
    if (i > static_cast<int64_t>(size) - 1) return static_cast<int64_t>(size) - 1;
    return i;
}


BilinearTap bilinear_tap(float c, uint32_t size) {
    BilinearTap t{0, 1, 0.0f};
    if (c > 0.0f) {
        const int32_t lo = npucpu::saturate_trunc<int32_t>(c);
        t.lo = lo;
        t.hi = static_cast<int64_t>(lo) + 1;
        t.frac = c - static_cast<float>(lo);
    }
    // Only the upper neighbour is clamped by the sampling rule itself ...
    if (!(static_cast<int64_t>(size) > t.hi)) t.hi = static_cast<int64_t>(size) - 1;
    // ... guard: a coordinate past the last pixel (a crop box reaching beyond
    // the image) would read the lower neighbour outside the plane; it takes
    // the last pixel too. Inside the image this never changes anything.
    if (t.lo > static_cast<int64_t>(size) - 1) t.lo = static_cast<int64_t>(size) - 1;
    return t;
}

}  // namespace npucpu

using npucpu::bilinear_tap;
using npucpu::BilinearTap;
using npucpu::clamp_index;
using npucpu::CubicCoefficients;

extern "C" {

NPU_API float CoordinateMapping(uint32_t mode, uint32_t out_index, uint32_t in_size,
                                uint32_t out_size, float scale, float roi_start, float roi_end) {
    const float x = static_cast<float>(out_index);
    switch (mode) {
        case kHalfPixel:
            return half_pixel(x, scale);
        case kPytorchHalfPixel:
            return out_size < 2 ? 0.0f : half_pixel(x, scale);
        case kAlignCorners:
            // out_size 1 divides by zero and yields inf or NaN, as intended.
            return static_cast<float>(in_size - 1) * x / static_cast<float>(out_size - 1);
        case kAsymmetric:
            return x / scale;
        case kTfHalfPixelForNn:
            return static_cast<float>((static_cast<double>(x) + 0.5) / static_cast<double>(scale));
        case kTfCropAndResize: {
            const float extent = static_cast<float>(in_size - 1);
            if (out_size < 2) {
                return static_cast<float>(
                    (static_cast<double>(roi_start) + static_cast<double>(roi_end)) * 0.5 *
                    static_cast<double>(in_size - 1));
            }
            const float q = (roi_end - roi_start) * x * extent / static_cast<float>(out_size - 1);
            return std::fma(extent, roi_start, q);
        }
        default:
            std::fputs("Use default coordinate convert mode: half_pixel.", stdout);
            return half_pixel(x, scale);
    }
}

NPU_API void GetNearestPixelCoordinate(uint32_t mode, uint32_t nearest_mode, uint32_t out_y,
                                       uint32_t out_x, uint32_t *in_y, uint32_t *in_x,
                                       uint32_t in_h, uint32_t in_w, uint32_t out_h,
                                       uint32_t out_w, float scale_h, float scale_w,
                                       float roi_start_h, float roi_end_h, float roi_start_w,
                                       float roi_end_w) {
    const float fy = CoordinateMapping(mode, out_y, in_h, out_h, scale_h, roi_start_h, roi_end_h);
    const float fx = CoordinateMapping(mode, out_x, in_w, out_w, scale_w, roi_start_w, roi_end_w);
    const uint32_t y = nearest_index(round_nearest(nearest_mode, fy), in_h);
    const uint32_t x = nearest_index(round_nearest(nearest_mode, fx), in_w);
    // Guard: missing result slots receive nothing.
    if (in_y != nullptr) *in_y = y;
    if (in_x != nullptr) *in_x = x;
}

NPU_API float GetAxisScale(uint32_t mode, uint32_t in_size, uint32_t out_size, uint8_t flag) {
    const float ratio = static_cast<float>(out_size) / static_cast<float>(in_size);
    if (flag == 0) return ratio;
    // Only the modes that divide by a scale get one.
    switch (mode) {
        case kHalfPixel:
        case kPytorchHalfPixel:
        case kAsymmetric:
        case kTfHalfPixelForNn:
            return ratio;
        default:
            return 0.0f;
    }
}

NPU_API void ParseRoiData(const float *roi, uint32_t count, float *start_h, float *end_h,
                          float *start_w, float *end_w) {
    // The list holds starts for every axis, then ends; the last two axes are
    // the plane's. Guard: a list of fewer than four values (or none) would be
    // read outside its bounds, so nothing is written and the caller's box
    // stays as it was.
    if (roi == nullptr || count < 4 || start_h == nullptr || end_h == nullptr ||
        start_w == nullptr || end_w == nullptr) {
        return;
    }
    const int64_t half = static_cast<int64_t>(count) / 2;
    *start_h = roi[half - 2];
    *end_h = roi[count - 2];
    *start_w = roi[half - 1];
    *end_w = roi[count - 1];
}

NPU_API float BiLinearInterpolation(float *const *rows, uint32_t in_h, uint32_t in_w, float x,
                                    float y) {
    // Guard: an empty plane (or no row table) has no pixel to read.
    if (rows == nullptr || in_h == 0 || in_w == 0) return 0.0f;
    const BilinearTap tx = bilinear_tap(x, in_w);
    const BilinearTap ty = bilinear_tap(y, in_h);
    const float *r0 = rows[ty.lo];
    const float *r1 = rows[ty.hi];
    const float dx = tx.frac;
    const float dy = ty.frac;
    float t = dx * r0[tx.hi] * (1.0f - dy);
    t = std::fma((1.0f - dx) * r0[tx.lo], 1.0f - dy, t);
    t = std::fma((1.0f - dx) * r1[tx.lo], dy, t);
    return std::fma(dx * r1[tx.hi], dy, t);
}

NPU_API float CubicInterpolation(float *const *rows, uint32_t in_h, uint32_t in_w, float a,
                                 float y, float x) {
    // Guard: an empty plane (or no row table) has no pixel to read.
    if (rows == nullptr || in_h == 0 || in_w == 0) return 0.0f;
    const int32_t yi = npucpu::saturate_floor<int32_t>(y);
    const int32_t xi = npucpu::saturate_floor<int32_t>(x);
    float cy[4];
    float cx[4];
    CubicCoefficients(cy, y - static_cast<float>(yi), a);
    CubicCoefficients(cx, x - static_cast<float>(xi), a);

    // Neighbours outside the plane repeat its edge; weights are not renormalised.
    float sum = 0.0f;
    for (int i = 0; i < 4; ++i) {
        const float *row = rows[clamp_index(static_cast<int64_t>(yi) - 1 + i, in_h)];
        for (int j = 0; j < 4; ++j) {
            const float weight = cx[j] * cy[i];
            sum = std::fma(row[clamp_index(static_cast<int64_t>(xi) - 1 + j, in_w)], weight, sum);
        }
    }
    return sum;
}

}  // extern "C"

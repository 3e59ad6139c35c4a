// Exact conversions and integer arithmetic used across the operators.
//
// Every float-to-integer conversion saturates to the target's range and maps
// NaN to 0 (never a bare C++ cast of an out-of-range value, which is
// undefined). Signed 32-bit arithmetic wraps in two's complement.
#ifndef NPUCPU_IMPL_UTILS_CONVERT_H
#define NPUCPU_IMPL_UTILS_CONVERT_H

#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace npucpu {

// Truncation toward zero of a float or double, saturated to Int's range;
// NaN gives 0.
template <typename Int, typename Real>
inline Int saturate_trunc(Real v) {
    static_assert(std::is_integral<Int>::value && std::is_floating_point<Real>::value, "");
    if (std::isnan(v)) return 0;
    // Bounds as Real: the lowest value of a signed type is a power of two and
    // exact; max()+1 is a power of two and exact as well.
    const Real lo = static_cast<Real>(std::numeric_limits<Int>::lowest());
    const Real hi_excl = static_cast<Real>(std::numeric_limits<Int>::max() / 2 + 1) * Real(2);
    if (v <= lo) return std::numeric_limits<Int>::lowest();
    if (v >= hi_excl) return std::numeric_limits<Int>::max();
    return static_cast<Int>(v);  // in range after the checks: truncates toward zero
}

// floor / ceil / round-half-away-from-zero / round-half-to-even followed by
// the saturating conversion.
template <typename Int, typename Real>
inline Int saturate_floor(Real v) { return saturate_trunc<Int>(std::floor(v)); }
template <typename Int, typename Real>
inline Int saturate_ceil(Real v) { return saturate_trunc<Int>(std::ceil(v)); }
template <typename Int, typename Real>
inline Int saturate_round(Real v) { return saturate_trunc<Int>(std::round(v)); }
template <typename Int, typename Real>
inline Int saturate_rint(Real v) { return saturate_trunc<Int>(std::nearbyint(v)); }

// Two's-complement wrapping arithmetic on signed 32-bit values.
inline int32_t wrap_add(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t wrap_sub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}
inline int32_t wrap_mul(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}
// Truncating division and remainder; a zero divisor or INT32_MIN / -1 is the
// caller's guard case, so these refuse them by returning false.
inline bool checked_div(int32_t a, int32_t b, int32_t *q) {
    if (b == 0 || (a == std::numeric_limits<int32_t>::min() && b == -1)) return false;
    *q = a / b;
    return true;
}
inline bool checked_rem(int32_t a, int32_t b, int32_t *r) {
    if (b == 0 || (a == std::numeric_limits<int32_t>::min() && b == -1)) return false;
    *r = a % b;
    return true;
}

}  // namespace npucpu

#endif

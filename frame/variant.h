// The build variant: coefficient type, energy type and the most literals in a term.
#pragma once

#include <cstdint>
#include <type_traits>

namespace zorp {

#if ZORP_COEFF_BITS == 16
using coeff_t = std::int16_t;
#elif ZORP_COEFF_BITS == 32
using coeff_t = std::int32_t;
#elif ZORP_COEFF_BITS == 64
using coeff_t = std::int64_t;
#else
#error "ZORP_COEFF_BITS must be 16, 32 or 64"
#endif

#if ZORP_ENERGY_BITS == 64
using energy_t = std::int64_t;
#elif ZORP_ENERGY_BITS == 128
using energy_t = __int128;
#else
#error "ZORP_ENERGY_BITS must be 64 or 128"
#endif

inline constexpr unsigned MAXDEG = ZORP_MAXDEG;
static_assert(MAXDEG >= 2 && MAXDEG <= 8, "MAXDEG must be between 2 and 8");

// Arithmetic on coefficients and energies wraps by design; going through the unsigned
// type keeps it defined behaviour.
template <class T>
constexpr T wrapping_add(T a, T b) {
  using U = std::make_unsigned_t<T>;
  return static_cast<T>(static_cast<U>(a) + static_cast<U>(b));
}
template <class T>
constexpr T wrapping_sub(T a, T b) {
  using U = std::make_unsigned_t<T>;
  return static_cast<T>(static_cast<U>(a) - static_cast<U>(b));
}
template <class T>
constexpr T wrapping_mul(T a, T b) {
  using U = std::make_unsigned_t<T>;
  return static_cast<T>(static_cast<U>(a) * static_cast<U>(b));
}
template <class T>
constexpr T wrapping_neg(T a) {
  using U = std::make_unsigned_t<T>;
  return static_cast<T>(U(0) - static_cast<U>(a));
}

// Narrowing from the 64-bit boundary width keeps the low bits.
constexpr coeff_t narrow_coeff(std::int64_t v) { return static_cast<coeff_t>(v); }

}  // namespace zorp

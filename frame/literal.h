// The 32-bit literal encoding shared by every subsystem.
#pragma once

#include <cstdint>

namespace zorp {

inline constexpr std::uint32_t kNoVar = 0xFFFFFFFFu;
inline constexpr std::uint32_t kNegatedBit = 0x80000000u;
inline constexpr std::uint32_t kIntAtomBit = 0x40000000u;
inline constexpr std::uint32_t kIndexMask = 0x3FFFFFFFu;

constexpr bool is_negated(std::uint32_t literal) { return (literal & kNegatedBit) != 0; }
constexpr bool is_int_atom(std::uint32_t literal) { return (literal & kIntAtomBit) != 0; }
constexpr std::uint32_t negate_literal(std::uint32_t literal) { return literal ^ kNegatedBit; }
constexpr std::uint32_t positive_literal(std::uint32_t literal) { return literal & ~kNegatedBit; }

// Rotating left by one puts a literal beside its negation (positive first), orders binary
// variables by index and sends integer atoms (bit 30, now the top bit) after all of them.
constexpr std::uint32_t literal_sort_key(std::uint32_t literal) { return (literal << 1) | (literal >> 31); }

}  // namespace zorp

// Host lookup tables that tools index directly.
#pragma once

#include <array>
#include <cstdint>

namespace kestrion {

// Scale8[v][w] = v * w: an 8-bit channel value times an 8-bit weight, as a 16-bit product.
extern const std::array<std::array<uint16_t, 256>, 256> Scale8;

// Sines at steps of 1/1000 radian: SinTable[kSinTableZero + j] = float(sin(j / 1000.0)) for
// j = -kSinTableZero .. kSinTableZero - 1 (tools use j = -6283 .. 6283).
constexpr int kSinTableZero = 6284;
extern const std::array<float, 2 * kSinTableZero> SinTable;

}  // namespace kestrion

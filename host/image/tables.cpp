#include "host/image/tables.h"

#include <cmath>

namespace kestrion {

namespace {

constexpr std::array<std::array<uint16_t, 256>, 256> MakeScale8() {
  std::array<std::array<uint16_t, 256>, 256> table{};
  for (int v = 0; v < 256; ++v)
    for (int w = 0; w < 256; ++w) table[size_t(v)][size_t(w)] = uint16_t(v * w);
  return table;
}

std::array<float, 2 * kSinTableZero> MakeSinTable() {
  std::array<float, 2 * kSinTableZero> table{};
  for (int i = 0; i < 2 * kSinTableZero; ++i) table[size_t(i)] = float(std::sin(double(i - kSinTableZero) / 1000.0));
  return table;
}

}  // namespace

constinit const std::array<std::array<uint16_t, 256>, 256> Scale8 = MakeScale8();
const std::array<float, 2 * kSinTableZero> SinTable = MakeSinTable();

}  // namespace kestrion

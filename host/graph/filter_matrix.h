// The table behind the host's filter-matrix control ("CFLT"), held in a LookUpTable of 54
// bytes: byte 0 is the size code (the kernel's radius less one: 0 for 3 x 3, 1 for 5 x 5, 2 for
// 7 x 7), bytes 1 to 4 are written 0, 9, 0, 0 and never read, and bytes 5 to 53 are a 7 x 7
// grid of weights, row by row, each a signed byte (-128 to 127, stored as its two's complement
// byte), of which a kernel uses the centred block of its size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kestrion::filter_matrix {

constexpr int kBytes = 54, kSide = 7, kFirstWeight = 5, kLargestSizeCode = 2;
constexpr uint16_t kFiller[4] = {0, 9, 0, 0};

// The weight at row i, column j (0 to 6) of the grid.
inline int Weight(const std::vector<uint16_t>& table, int i, int j) {
  return int8_t(uint8_t(table[size_t(kFirstWeight + kSide * i + j)]));
}

// The table of a kernel `size` pixels across (3, 5 or 7) whose centred block holds `weights`
// (-128 to 127, size x size of them, row by row); the weights around the block are 1, as in the
// default table.
inline std::vector<uint16_t> OfBlock(int size, const std::vector<int>& weights) {
  std::vector<uint16_t> table(kBytes, 1);
  table[0] = uint16_t(size / 2 - 1);
  for (int k = 0; k < 4; ++k) table[size_t(1 + k)] = kFiller[k];
  const int first = (kSide - size) / 2;
  for (int i = 0; i < size; ++i)
    for (int j = 0; j < size; ++j)
      table[size_t(kFirstWeight + kSide * (first + i) + first + j)] = uint8_t(weights[size_t(size * i + j)]);
  return table;
}

// The default: 3 x 3, every weight 1.
inline std::vector<uint16_t> Default() { return OfBlock(3, std::vector<int>(9, 1)); }

// The size (3, 5 or 7) of a table that OfBlock makes, or 0 for any other table.
inline int BlockSize(const std::vector<uint16_t>& table) {
  if (table.size() != size_t(kBytes) || table[0] > kLargestSizeCode) return 0;
  const int size = 2 * table[0] + 3;
  std::vector<int> block;
  const int first = (kSide - size) / 2;
  for (int i = 0; i < size; ++i)
    for (int j = 0; j < size; ++j) block.push_back(Weight(table, first + i, first + j));
  return OfBlock(size, block) == table ? size : 0;
}

}  // namespace kestrion::filter_matrix

// The host tables and the C runtime generator, at hand-checked entries.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "host/base/random.h"
#include "host/image/tables.h"

namespace kestrion {
namespace {

TEST(Scale8, IsTheProductOfItsIndices) {
  EXPECT_EQ(Scale8[0][255], 0);
  EXPECT_EQ(Scale8[3][7], 21);
  EXPECT_EQ(Scale8[7][3], 21);
  EXPECT_EQ(Scale8[128][2], 256);
  EXPECT_EQ(Scale8[255][255], 65025);
}

struct SinCase {
  int j;
  float value;
};

// float(sin(j / 1000)) at entry 6284 + j, to the nine digits that name a float exactly.
// clang-format off
const SinCase kSines[] = {
  {0, 0.0f},
  {500, 0.47942555f},
  {1571, 1.0f},             // sin(1.571) = 0.99999997926 is nearer 1 than any float below
  {-1571, -1.0f},
  {3142, -0.000407346408f},
  {6283, -0.000185307174f},
  {-6283, 0.000185307174f},
};
// clang-format on

TEST(SinTable, HoldsSinesInThousandthsOfARadian) {
  EXPECT_EQ(kSinTableZero, 6284);
  for (const SinCase& c : kSines) EXPECT_EQ(SinTable[size_t(kSinTableZero + c.j)], c.value) << c.j;
}

// Seed 1 gives the runtime's sequence; the draw is bits 16..30 of the state, so seed 12345,
// whose first state 12345 * 214013 + 2531011 = 2644521496 (mod 2^32) has bit 31 set, gives 15 bits.
TEST(CrtRand, SeedsGiveTheRuntimeSequence) {
  crt_srand(1);
  std::vector<int> got;
  for (int i = 0; i < 5; ++i) got.push_back(crt_rand());
  EXPECT_EQ(got, (std::vector<int>{41, 18467, 6334, 26500, 19169}));
  crt_srand(12345);
  EXPECT_EQ(crt_rand(), int((2644521496u >> 16) & 0x7FFF));
}

// Taking n draws leaves the state where n single draws would, and returns the state before
// them; the jump of n steps is the same as stepping n times (here up to 70000, past 2^16).
TEST(CrtRand, TakingDrawsJumpsAhead) {
  for (uint64_t n : {0ull, 1ull, 2ull, 1920ull, 70000ull}) {
    crt_srand(7);
    uint32_t stepped = 7;
    for (uint64_t i = 0; i < n; ++i) stepped = stepped * 214013u + 2531011u;
    EXPECT_EQ(CrtSteps::Of(n).Apply(7), stepped) << n;
    EXPECT_EQ(crt_rand_take(n), 7u) << n;
    EXPECT_EQ(crt_rand(), CrtDraw(stepped * 214013u + 2531011u)) << n;
  }
}

}  // namespace
}  // namespace kestrion

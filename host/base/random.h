// The C runtime's sequential random generator, reproduced so that tools drawing from it give
// the same frames on every platform. One global 32-bit state (atomic, so that unrelated renders
// never race on it). A tool that draws on several threads takes its whole run of draws at once
// with crt_rand_take and jumps each thread to its place in the run with CrtSteps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kestrion {

// Sets the state to the seed.
void crt_srand(unsigned seed);
// Advances the state (state * 214013 + 2531011, modulo 2^32) and returns its bits 16..30:
// 0 .. 32767. Seed 1 gives 41, 18467, 6334, ...
int crt_rand();
// Takes the next `count` draws for the caller: returns the state they start from and leaves the
// global state where `count` crt_rand calls would, in one atomic step.
uint32_t crt_rand_take(uint64_t count);

// The number a state gives when drawn (the state already advanced).
constexpr int CrtDraw(uint32_t state) { return int(state >> 16 & 0x7FFF); }

// n steps of the generator as one affine map: state -> state * multiplier + increment (mod 2^32).
struct CrtSteps {
  uint32_t multiplier = 1, increment = 0;

  constexpr uint32_t Apply(uint32_t state) const { return state * multiplier + increment; }
  // This map followed by `then`.
  constexpr CrtSteps Then(CrtSteps then) const {
    return {multiplier * then.multiplier, increment * then.multiplier + then.increment};
  }
  // The map of n steps, by squaring: O(log n).
  static constexpr CrtSteps Of(uint64_t n) {
    CrtSteps result, power{214013u, 2531011u};
    for (; n != 0; n >>= 1, power = power.Then(power))
      if (n & 1) result = result.Then(power);
    return result;
  }
};

// The maps from a row's first state to each of its draws, one draw per pixel: draw x of a row
// that starts at state s comes from s * multiplier[x] + increment[x] (x + 1 steps). Kept
// between renders, so a render allocates nothing once the width is reached.
struct CrtRowSteps {
  std::vector<uint32_t> multiplier, increment;

  void Prepare(size_t width) {
    multiplier.resize(width);
    increment.resize(width);
    CrtSteps steps;
    for (size_t x = 0; x < width; ++x) {
      steps = steps.Then(CrtSteps::Of(1));
      multiplier[x] = steps.multiplier;
      increment[x] = steps.increment;
    }
  }
};

}  // namespace kestrion

// The C runtime's sequential random generator, reproduced so that tools drawing from it give
// the same frames on every platform. One global 32-bit state; tools that use it run on one
// thread (the state is atomic only so that unrelated renders never race on it).
#pragma once

#include <cstddef>

namespace kestrion {

// Sets the state to the seed.
void crt_srand(unsigned seed);
// Advances the state (state * 214013 + 2531011, modulo 2^32) and returns its bits 16..30:
// 0 .. 32767. Seed 1 gives 41, 18467, 6334, ...
int crt_rand();
// Draws `count` numbers at once into `out`: the same numbers as that many crt_rand calls,
// without a call per number.
void crt_rand_n(int* out, size_t count);

}  // namespace kestrion

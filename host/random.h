// The C runtime's sequential random generator, reproduced so that tools drawing from it give
// the same frames on every platform. One global 32-bit state; tools that use it run on one
// thread (the state is atomic only so that unrelated renders never race on it).
#pragma once

namespace kestrion {

// Sets the state to the seed.
void crt_srand(unsigned seed);
// Advances the state (state * 214013 + 2531011, modulo 2^32) and returns its bits 16..30:
// 0 .. 32767. Seed 1 gives 41, 18467, 6334, ...
int crt_rand();

}  // namespace kestrion

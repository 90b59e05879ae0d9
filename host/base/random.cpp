#include "host/base/random.h"

#include <atomic>
#include <cstdint>

namespace kestrion {

namespace {
std::atomic<uint32_t> g_state{1};
}

void crt_srand(unsigned seed) { g_state.store(uint32_t(seed), std::memory_order_relaxed); }

int crt_rand() {
  const uint32_t next = g_state.load(std::memory_order_relaxed) * 214013u + 2531011u;
  g_state.store(next, std::memory_order_relaxed);
  return int((next >> 16) & 0x7FFF);
}

uint32_t crt_rand_take(uint64_t count) {
  const CrtSteps steps = CrtSteps::Of(count);
  uint32_t state = g_state.load(std::memory_order_relaxed);
  while (!g_state.compare_exchange_weak(state, steps.Apply(state), std::memory_order_relaxed)) {
  }
  return state;
}

}  // namespace kestrion

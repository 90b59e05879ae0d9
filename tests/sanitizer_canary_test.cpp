// Canaries: in a sanitizer build, a deliberate fault that the sanitizer must report. A
// sanitizer that stopped working (a flag lost from the build, a runtime that no longer loads)
// fails these, where the rest of the suite would pass in silence. The plain build has none.
#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

#if defined(__SANITIZE_ADDRESS__)

// Through memset, which only AddressSanitizer checks (UBSan would see a plain store first).
char* volatile g_allocation;  // where the compiler cannot drop the allocation
void WritePastAnAllocation() {
  g_allocation = new char[8];
  volatile size_t past = 8;  // out of the compiler's sight
  std::memset(g_allocation + past, 1, 1);
  delete[] g_allocation;
}

void OverflowAnInt() {
  volatile int big = INT_MAX;
  volatile int one = 1;
  big = big + one;
}

TEST(SanitizerCanary, AddressSanitizerReportsAWritePastAnAllocation) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(WritePastAnAllocation(), "heap-buffer-overflow");
}

TEST(SanitizerCanary, UndefinedBehaviorSanitizerReportsAnOverflow) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(OverflowAnInt(), "signed integer overflow");
}

#elif defined(__SANITIZE_THREAD__)

void Race() {
  int shared = 0;
  std::thread other([&] { ++shared; });
  ++shared;
  other.join();
  std::exit(shared == 0);
}

TEST(SanitizerCanary, ThreadSanitizerReportsARace) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(Race(), testing::ExitedWithCode(66), "data race");
}

#endif

}  // namespace

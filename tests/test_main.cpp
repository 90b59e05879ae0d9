// Loads the tool module as the host does, then runs the suites.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "host/graph/module.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  const char* folder = std::getenv("KESTRION_MODULES");
  std::string error;
  auto modules = kestrion::OpenModules(folder && *folder ? folder : KESTRION_TEST_MODULE_DIR, &error);
  if (modules.empty()) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  const int result = RUN_ALL_TESTS();
  modules.clear();
  return result;
}

// The Loader's class-level start-up and clean-up.
#pragma once

#include <cstdint>

#include "host/registry.h"

namespace kestrion::tools {

uint32_t LoaderRegInit(Registry* reg);
void LoaderRegCleanup(Registry* reg);

}  // namespace kestrion::tools

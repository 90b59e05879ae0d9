// The Loader's class-level start-up and clean-up (reading the clip definitions file), and its factory.
#pragma once

#include <cstdint>

#include "host/base/object.h"
#include "host/graph/registry.h"

namespace kestrion::tools {

uint32_t LoaderRegInit(Registry* reg);
void LoaderRegCleanup(Registry* reg);
Object* NewLoader(Registry* reg, CArchive* ar, TagList* tags);

}  // namespace kestrion::tools

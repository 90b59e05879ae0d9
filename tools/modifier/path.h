// Factory of the Path modifier.
#pragma once

#include "host/base/object.h"
#include "host/graph/registry.h"

namespace kestrion::tools {

Object* NewPath(Registry* reg, CArchive* ar, TagList* tags);

}  // namespace kestrion::tools

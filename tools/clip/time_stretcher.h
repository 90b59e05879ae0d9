// The Time Stretcher's factory.
#pragma once

#include "host/base/object.h"
#include "host/graph/registry.h"

namespace kestrion::tools {

Object* NewTimeStretcher(Registry* reg, CArchive* ar, TagList* tags);

}  // namespace kestrion::tools

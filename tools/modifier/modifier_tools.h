// Factories of the modifiers and the tracker.
#pragma once

#include "host/base/object.h"
#include "host/graph/registry.h"

namespace kestrion::tools {

Object* NewPath(Registry* reg, CArchive* ar, TagList* tags);
Object* NewOffset(Registry* reg, CArchive* ar, TagList* tags);
Object* NewCalculation(Registry* reg, CArchive* ar, TagList* tags);
Object* NewTracker(Registry* reg, CArchive* ar, TagList* tags);

}  // namespace kestrion::tools

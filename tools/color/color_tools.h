// Factories of the colour and compositing tools.
#pragma once

#include "host/base/object.h"
#include "host/graph/registry.h"

namespace kestrion::tools {

Object* NewColorGain(Registry* reg, CArchive* ar, TagList* tags);
Object* NewColorSpace(Registry* reg, CArchive* ar, TagList* tags);
Object* NewMerge(Registry* reg, CArchive* ar, TagList* tags);
Object* NewDissolve(Registry* reg, CArchive* ar, TagList* tags);
Object* NewChannelBooleans(Registry* reg, CArchive* ar, TagList* tags);

}  // namespace kestrion::tools

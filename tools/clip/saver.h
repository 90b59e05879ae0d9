// Factories of the Saver and the Preview Saver.
#pragma once

#include "host/base/object.h"
#include "host/graph/registry.h"

namespace kestrion::tools {

Object* NewSaver(Registry* reg, CArchive* ar, TagList* tags);
Object* NewPreviewSaver(Registry* reg, CArchive* ar, TagList* tags);

}  // namespace kestrion::tools

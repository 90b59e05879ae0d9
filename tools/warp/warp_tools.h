// Factories of the geometry and warp tools.
#pragma once

#include "host/base/object.h"
#include "host/graph/registry.h"

namespace kestrion::tools {

Object* NewTransform(Registry* reg, CArchive* ar, TagList* tags);
Object* NewResize(Registry* reg, CArchive* ar, TagList* tags);
Object* NewCrop(Registry* reg, CArchive* ar, TagList* tags);
Object* NewCornerPin(Registry* reg, CArchive* ar, TagList* tags);
Object* NewPerspectivePin(Registry* reg, CArchive* ar, TagList* tags);
Object* NewRipple(Registry* reg, CArchive* ar, TagList* tags);
Object* NewVortex(Registry* reg, CArchive* ar, TagList* tags);
Object* NewCoordinateSpace(Registry* reg, CArchive* ar, TagList* tags);
Object* NewDent(Registry* reg, CArchive* ar, TagList* tags);

}  // namespace kestrion::tools

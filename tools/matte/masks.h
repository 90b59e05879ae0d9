// Factories of the mask tools, and what their drawing shares.
#pragma once

#include <bit>
#include <cstdint>

#include "host/base/object.h"
#include "host/graph/registry.h"

namespace kestrion::tools {

Object* NewRectangleMask(Registry* reg, CArchive* ar, TagList* tags);
Object* NewCircleMask(Registry* reg, CArchive* ar, TagList* tags);
Object* NewTriangleMask(Registry* reg, CArchive* ar, TagList* tags);
Object* NewPolygonMask(Registry* reg, CArchive* ar, TagList* tags);

// Whether a size draws nothing: its bit pattern, read as a signed integer, is below 1 (zero or
// negative; a NaN without its sign bit counts as positive).
inline bool NotPositive(float size) { return std::bit_cast<int32_t>(size) < 1; }

constexpr double kRadiansPerDegree = 0.017453292519943295;

}  // namespace kestrion::tools

#include "host/base/object.h"

namespace kestrion {

void Object::SetAttrsTagList(const TagList& tags) {
  for (const auto& t : tags) attrs_.Set(t);
}

double Object::GetAttrD(uint32_t tag, double fallback) const { return attrs_.GetDouble(tag, fallback); }
uint32_t Object::GetAttrI(uint32_t tag, uint32_t fallback) const { return attrs_.GetInt(tag, fallback); }

}  // namespace kestrion

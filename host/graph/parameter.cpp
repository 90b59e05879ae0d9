#include "host/graph/parameter.h"

#include <cmath>
#include <map>
#include <mutex>
#include <string>

#include "host/base/archive.h"

namespace kestrion {

void Parameter::Save(CArchive&) const {}

void Number::Save(CArchive& ar) const { ar.WriteDouble(value); }
bool Number::Equals(const Parameter& o) const {
  auto* n = dynamic_cast<const Number*>(&o);
  return n && (n->value == value || (n->value != n->value && value != value));
}

void Point::Save(CArchive& ar) const {
  ar.WriteFloat(x);
  ar.WriteFloat(y);
}
bool Point::Equals(const Parameter& o) const {
  auto* p = dynamic_cast<const Point*>(&o);
  return p && p->x == x && p->y == y;
}

void Text::Save(CArchive& ar) const { ar.WriteString(text); }
bool Text::Equals(const Parameter& o) const {
  auto* t = dynamic_cast<const Text*>(&o);
  return t && t->text == text;
}

void LookUpTable::Save(CArchive& ar) const {
  ar.WriteWord(uint32_t(entries.size()));
  for (uint16_t e : entries) ar.WriteWord(e);
}
bool LookUpTable::Equals(const Parameter& o) const {
  auto* t = dynamic_cast<const LookUpTable*>(&o);
  return t && t->entries == entries;
}

namespace {
std::mutex g_loaders_lock;
std::map<uint32_t, ParameterLoader>& Loaders() {
  static std::map<uint32_t, ParameterLoader> loaders;
  return loaders;
}
}  // namespace

void RegisterParameterType(uint32_t type, ParameterLoader loader) {
  std::lock_guard<std::mutex> hold(g_loaders_lock);
  Loaders()[type] = loader;
}

Parameter* LoadParameter(uint32_t type, CArchive& ar) {
  switch (type) {
    case vtype::Number: {
      const double v = ar.ReadDouble();
      if (!std::isfinite(v)) throw ArchiveError("the document is corrupt: a saved number is not finite");
      return new Number(v);
    }
    case vtype::Point: {
      const float x = ar.ReadFloat();
      const float y = ar.ReadFloat();
      if (!std::isfinite(x) || !std::isfinite(y)) throw ArchiveError("the document is corrupt: a saved point is not finite");
      return new Point(x, y);
    }
    case vtype::Text:
      return new Text(ar.ReadText());
    case vtype::LookUpTable: {
      const uint32_t n = ar.ReadWord();
      if (n > ar.Remaining() / 4) throw ArchiveError("the document is corrupt: a table claims " + std::to_string(n) + " entries");
      std::vector<uint16_t> entries(n);
      for (auto& e : entries) e = uint16_t(ar.ReadWord());
      return new LookUpTable(std::move(entries));
    }
    default: {
      ParameterLoader loader = nullptr;
      {
        std::lock_guard<std::mutex> hold(g_loaders_lock);
        auto it = Loaders().find(type);
        if (it != Loaders().end()) loader = it->second;
      }
      if (loader) return loader(ar);
      throw ArchiveError("the document is corrupt: a saved value has the unknown type '" + FourCCText(type) + "'");
    }
  }
}

}  // namespace kestrion

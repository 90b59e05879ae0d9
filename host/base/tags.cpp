#include "host/base/tags.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace kestrion {

std::string FourCCText(uint32_t code) {
  std::string out;
  // A code whose text would begin "0x" is written with its '0' escaped, so that ParseFourCC
  // does not read it back as a hexadecimal word.
  const bool looks_hexadecimal = uint8_t(code) == '0' && (uint8_t(code >> 8) == 'x' || uint8_t(code >> 8) == 'X');
  for (int i = 0; i < 4; ++i) {
    const unsigned char c = uint8_t(code >> (8 * i));
    if (c >= 0x20 && c < 0x7F && c != '\\' && !(i == 0 && looks_hexadecimal)) {
      out += char(c);
    } else {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02X", c);
      out += buf;
    }
  }
  return out;
}

bool ParseFourCC(const std::string& text, uint32_t& code) {
  // "0x" and one to eight hexadecimal digits; anything else that starts so may still be four
  // characters ("0xG1").
  if (text.size() > 2 && text.size() <= 10 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') &&
      std::all_of(text.begin() + 2, text.end(), [](char c) { return std::isxdigit(uint8_t(c)) != 0; })) {
    code = uint32_t(std::strtoul(text.c_str() + 2, nullptr, 16));
    return true;
  }
  uint32_t result = 0;
  int count = 0;
  for (size_t i = 0; i < text.size(); ++count) {
    if (count == 4) return false;
    unsigned value;
    if (text[i] == '\\' && i + 3 < text.size() + 0 && text[i + 1] == 'x' && std::isxdigit(uint8_t(text[i + 2])) &&
        std::isxdigit(uint8_t(text[i + 3]))) {
      value = unsigned(std::strtoul(text.substr(i + 2, 2).c_str(), nullptr, 16));
      i += 4;
    } else {
      value = uint8_t(text[i]);
      i += 1;
    }
    result |= uint32_t(value) << (8 * count);
  }
  if (count != 4) return false;
  code = result;
  return true;
}

void TagList::Set(const Tag& tag) {
  for (auto& t : tags_) {
    if (t.id == tag.id) {
      t = tag;
      return;
    }
  }
  tags_.push_back(tag);
}

void TagList::Remove(uint32_t id) {
  std::erase_if(tags_, [id](const Tag& t) { return t.id == id; });
}

const Tag* TagList::Find(uint32_t id) const {
  for (const auto& t : tags_)
    if (t.id == id) return &t;
  return nullptr;
}

uint32_t TagList::GetInt(uint32_t id, uint32_t fallback) const {
  const Tag* t = Find(id);
  if (!t) return fallback;
  if (t->kind == TagKind::Integer) return t->integer;
  if (t->kind == TagKind::Double) return uint32_t(int64_t(t->real));
  return fallback;
}

double TagList::GetDouble(uint32_t id, double fallback) const {
  const Tag* t = Find(id);
  if (!t) return fallback;
  if (t->kind == TagKind::Double) return t->real;
  if (t->kind == TagKind::Integer) return double(int32_t(t->integer));
  return fallback;
}

const char* TagList::GetString(uint32_t id, const char* fallback) const {
  const Tag* t = Find(id);
  return t && t->kind == TagKind::String ? t->string : fallback;
}

const void* TagList::GetPointer(uint32_t id, const void* fallback) const {
  const Tag* t = Find(id);
  return t && t->kind == TagKind::Pointer ? t->pointer : fallback;
}

std::vector<const char*> TagList::GetStrings(uint32_t id) const {
  std::vector<const char*> out;
  for (const auto& t : tags_)
    if (t.id == id && t.kind == TagKind::String) out.push_back(t.string);
  return out;
}

}  // namespace kestrion

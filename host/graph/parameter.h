// Values that flow on links and sit on inputs: Number, Point, Text, LookUpTable (and Image,
// ClipParameter in their own headers). Each is a reference-counted Parameter.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/base/object.h"
#include "host/base/tags.h"

namespace kestrion {

class CArchive;

class Parameter : public Object {
 public:
  // The value type code ("Numb", "Poin", ...).
  virtual uint32_t Type() const = 0;
  // A new, independent copy (one reference, the caller's).
  virtual Parameter* Copy() const = 0;
  // The value of constants in saved documents; images are never saved.
  virtual void Save(CArchive& ar) const;
  virtual bool Equals(const Parameter& other) const = 0;
};

class Number final : public Parameter {
 public:
  explicit Number(double v = 0.0) : value(v) {}
  uint32_t Type() const override { return vtype::Number; }
  Parameter* Copy() const override { return new Number(value); }
  void Save(CArchive& ar) const override;
  bool Equals(const Parameter& o) const override;
  double value;
};

// A position in normalised frame coordinates (0 to 1 across the frame).
class Point final : public Parameter {
 public:
  Point(float px = 0.0f, float py = 0.0f) : x(px), y(py) {}
  uint32_t Type() const override { return vtype::Point; }
  Parameter* Copy() const override { return new Point(x, y); }
  void Save(CArchive& ar) const override;
  bool Equals(const Parameter& o) const override;
  float x, y;
};

class Text final : public Parameter {
 public:
  explicit Text(std::string s = {}) : text(std::move(s)) {}
  uint32_t Type() const override { return vtype::Text; }
  Parameter* Copy() const override { return new Text(text); }
  void Save(CArchive& ar) const override;
  bool Equals(const Parameter& o) const override;
  std::string text;
};

// A table of 16-bit entries (curves of colour tools).
class LookUpTable final : public Parameter {
 public:
  explicit LookUpTable(std::vector<uint16_t> e = {}) : entries(std::move(e)) {}
  uint32_t Type() const override { return vtype::LookUpTable; }
  Parameter* Copy() const override { return new LookUpTable(entries); }
  void Save(CArchive& ar) const override;
  bool Equals(const Parameter& o) const override;
  std::vector<uint16_t> entries;
};

// Reads a constant of the given type as Parameter::Save wrote it. Throws ArchiveError on a
// truncated or corrupt value or a type that no loader knows.
Parameter* LoadParameter(uint32_t type, CArchive& ar);

// Value types beyond the built-in ones (clips) register how their saved constants load.
using ParameterLoader = Parameter* (*)(CArchive& ar);
void RegisterParameterType(uint32_t type, ParameterLoader loader);

}  // namespace kestrion

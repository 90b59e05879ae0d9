// What the matte tool tests share: the colour tools' fixture, range ends given as integers, and
// the eight range inputs of the keyers as `kestrion describe` shows them.
#pragma once

#include <vector>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {

// A range value whose trunc(value * 255) is `end`.
inline double End(int end) { return (end + 0.5) / 255.0; }

inline std::vector<InputFacts> RangeFacts() {
  return {{"Red Low", vtype::Number, FourCC("RdLw"), 0.0},         {"Red High", vtype::Number, FourCC("RdHi"), 1.0},
          {"Green Low", vtype::Number, FourCC("GnLw"), 0.0},       {"Green High", vtype::Number, FourCC("GnHi"), 1.0},
          {"Blue Low", vtype::Number, FourCC("BlLw"), 0.0},        {"Blue High", vtype::Number, FourCC("BlHi"), 1.0},
          {"Luminance Low", vtype::Number, FourCC("LmLw"), 0.0},   {"Luminance High", vtype::Number, FourCC("LmHi"), 1.0}};
}

}  // namespace kestrion::test

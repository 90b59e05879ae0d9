// What the matte tool tests share: the colour tools' fixture and range ends given as integers.
#pragma once

#include <vector>

#include "tests/tools/color/color_fixture.h"

namespace kestrion::test {

// A range value whose trunc(value * 255) is `end`.
inline double End(int end) { return (end + 0.5) / 255.0; }

}  // namespace kestrion::test

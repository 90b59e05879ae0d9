// What the mask tests share: a flow on a frame of a chosen size, and a mask tool rendered to its
// mask and the bounds its base reports.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <stdexcept>
#include <string>

#include "host/base/prefs.h"
#include "host/draw/mask_operator.h"
#include "tests/tools/color/color_fixture.h"

namespace kestrion {

inline void PrintTo(const CRect& r, std::ostream* os) {
  *os << "{" << r.left << ", " << r.top << ", " << r.right << ", " << r.bottom << "}";
}

namespace test {

struct RenderedMask {
  Ref<Image> mask;
  CRect bounds;
  // How many pixels hold the value.
  size_t Count(uint8_t value) const {
    size_t n = 0;
    for (int y = 0; y < mask->Height(); ++y) n += size_t(std::count(mask->MaskRow(y), mask->MaskRow(y) + mask->Width(), value));
    return n;
  }
  uint8_t At(int x, int y) const { return mask->MaskRow(y)[x]; }
};

class MaskToolTest : public ColorToolTest {
 protected:
  void SetFrame(int width, int height) {
    PVidMode.width = width;
    PVidMode.height = height;
  }
  static void SetPoint(Operator* op, const std::string& label, float x, float y) { In(op, label)->SetValue(new Point(x, y)); }

  RenderedMask Render(Operator* op, double time = 0.0, uint32_t flags = 0) {
    RenderedMask out{ColorToolTest::Render(op, time, flags), {}};
    if (auto* mask_tool = dynamic_cast<MaskOperator*>(op)) out.bounds = mask_tool->GetBounds();
    if (!out.mask) throw std::runtime_error("no mask");
    return out;
  }

  test_tools::SavedPrefs prefs_;
};

}  // namespace test
}  // namespace kestrion

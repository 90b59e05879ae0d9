// The fast sin, cos, atan2 and pow of the warps against the C library, over millions of
// arguments spread over their ranges and at the points where their reductions switch: each
// keeps within a quarter of the distance its warps allow for it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "module/fast_math.h"

namespace kestrion::module {
namespace {

// Random doubles whose magnitudes spread evenly over [2^lo, 2^hi), either sign.
class Spread {
 public:
  Spread(int lo, int hi) : exponent_(lo, hi - 1) {}
  double operator()(std::mt19937_64& random) {
    const double v = std::ldexp(1.0 + unit_(random), exponent_(random));
    return random() & 1 ? -v : v;
  }

 private:
  std::uniform_int_distribution<int> exponent_;
  std::uniform_real_distribution<double> unit_{0.0, 1.0};
};

TEST(FastMath, SinCosKeepNearTheLibrary) {
  std::mt19937_64 random(1);
  std::vector<double> args = {0.0, -0.0, kFastTrigLimit, -kFastTrigLimit, 1e-300};
  for (int k = -40; k <= 40; ++k)  // around the multiples of pi/4, where quadrants change
    for (double nudge : {-1e-9, 0.0, 1e-9}) args.push_back(k * 0.7853981633974483 + nudge);
  std::uniform_real_distribution<double> near(-8.0, 8.0), anywhere(-kFastTrigLimit, kFastTrigLimit);
  for (int i = 0; i < 1000000; ++i) args.push_back(i % 2 ? near(random) : anywhere(random));
  double worst = 0;
  for (double x : args) {
    const SinCos sc = FastSinCos(x);
    worst = std::max({worst, std::fabs(sc.sin - std::sin(x)), std::fabs(sc.cos - std::cos(x))});
  }
  EXPECT_LT(worst, kFastTrigError / 4);
}

TEST(FastMath, Atan2KeepsNearTheLibrary) {
  std::mt19937_64 random(2);
  Spread small(-30, 30), wide(-1000, 1000);
  std::vector<std::pair<double, double>> args;
  for (double y : {0.0, -0.0, 1.0, -1.0})
    for (double x : {0.0, -0.0, 2.0, -2.0})
      if (y != 0 || x != 0) args.push_back({y, x});
  // Ratios at the reduction's switch points 7/16 and 11/16, and along the diagonals.
  for (double t : {0.4375, 0.6875, 1.0})
    for (double nudge : {-1e-15, 0.0, 1e-15})
      for (double sy : {1.0, -1.0})
        for (double sx : {1.0, -1.0}) {
          args.push_back({sy * (t + nudge), sx});
          args.push_back({sy, sx * (t + nudge)});
        }
  for (int i = 0; i < 1000000; ++i) args.push_back(i % 4 ? std::pair{small(random), small(random)}
                                                         : std::pair{wide(random), wide(random)});
  double worst = 0;
  for (const auto& [y, x] : args) worst = std::max(worst, std::fabs(FastAtan2(y, x) - std::atan2(y, x)));
  EXPECT_LT(worst, kFastAtan2Error / 4);
}

TEST(FastMath, PowKeepsNearTheLibrary) {
  std::mt19937_64 random(3);
  Spread base(-60, 3);
  std::uniform_real_distribution<double> exponent(-12.0, 12.0);
  double worst = 0;  // in units of the bound
  for (int i = 0; i < 1000000; ++i) {
    const double f = std::fabs(i % 8 ? base(random) : 1.0 - std::ldexp(double(random() % 4096), -52));
    const double p = i % 5 ? exponent(random) : double(int(exponent(random)));
    const double y = p * FastLog(f);
    if (!(std::fabs(y) <= kFastExpLimit)) continue;
    const double power = FastExp(y);
    worst = std::max(worst, std::fabs(power - std::pow(f, p)) / FastPowError(power, y, p));
  }
  EXPECT_LT(worst, 0.25);
  EXPECT_EQ(FastExp(2.0 * FastLog(1.0)), 1.0);
}

}  // namespace
}  // namespace kestrion::module

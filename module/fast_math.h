// Fast forms of the C library's sin, cos, atan2 and pow for the warps' row kernels, each within a
// stated distance of the library's own result. A warp needs only a position truncated from such
// a value: it works the position out from both ends of the distance (Bracketed), and where the
// two truncate alike that is the position the library would give; on the few pixels in a
// million where they differ it calls the library. The forms are plain branch-free arithmetic
// that the compiler runs on vectors, after the classic public-domain kernels of the C library.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

#include "module/image_model.h"

namespace kestrion::module {

// The arguments FastSinCos takes: |x| up to this; beyond it a kernel asks the library.
constexpr double kFastTrigLimit = 65536.0;
// The most FastSinCos differs from std::sin and std::cos there, and FastAtan2 from std::atan2
// for finite arguments not both zero (the forms keep within a quarter of these).
constexpr double kFastTrigError = 4e-15;
constexpr double kFastAtan2Error = 8e-15;
// The exponents FastExp takes: |y| up to this, so that the result stays a normal number.
constexpr double kFastExpLimit = 700.0;

namespace fast_math {

// x + kRound - kRound is x rounded to a whole number, which stands in the low bits of x + kRound.
constexpr double kRound = 6755399441055744.0;  // 1.5 * 2^52
constexpr double kPi = 3.141592653589793, kHalfPi = 1.5707963267948966;

// v with its sign turned when `flip` (0 or 1) is 1.
inline double FlipSign(double v, uint64_t flip) {
  return std::bit_cast<double>(std::bit_cast<uint64_t>(v) ^ (flip << 63));
}

// 1 when v's sign bit is set (-0 included), else 0.
inline uint64_t SignBit(double v) { return std::bit_cast<uint64_t>(v) >> 63; }

// A whole number 0 <= n < 2^52 as a double, from its bits in 2^52 + n.
inline double WholeToDouble(uint64_t n) {
  return std::bit_cast<double>(0x4330000000000000u | n) - 4503599627370496.0;
}

}  // namespace fast_math

struct SinCos {
  double sin, cos;
};

// sin x and cos x for |x| <= kFastTrigLimit: x less the nearest whole multiple k of pi/2, taken
// in three parts whose first two products with k are exact, then the sine and cosine
// polynomials on [-pi/4, pi/4] put in the quadrant k mod 4.
inline SinCos FastSinCos(double x) {
  using namespace fast_math;
  constexpr double kPio2a = 1.57079632673412561417e+00, kPio2b = 6.07710050630396597660e-11,
                   kPio2c = 2.02226624871116645580e-21;
  const double shifted = x * 0.63661977236758134308 + kRound;
  const double k = shifted - kRound;
  const uint64_t quadrant = std::bit_cast<uint64_t>(shifted) & 3;
  const double r = ((x - k * kPio2a) - k * kPio2b) - k * kPio2c;
  const double z = r * r;
  const double s = r + z * r *
                           (-1.66666666666666324348e-01 +
                            z * (8.33333333332248946124e-03 +
                                 z * (-1.98412698298579493134e-04 +
                                      z * (2.75573137070700676789e-06 +
                                           z * (-2.50507602534068634195e-08 + z * 1.58969099521155010221e-10)))));
  const double c = 1.0 - (0.5 * z - z * z *
                                        (4.16666666666666019037e-02 +
                                         z * (-1.38888888888741095749e-03 +
                                              z * (2.48015872894767294178e-05 +
                                                   z * (-2.75573143513906633035e-07 +
                                                        z * (2.08757232129817482790e-09 +
                                                             z * -1.13596475577881948265e-11))))));
  const bool odd = quadrant & 1;
  return {FlipSign(odd ? c : s, quadrant >> 1), FlipSign(odd ? s : c, ((quadrant + 1) >> 1) & 1)};
}

// atan2(y, x) for finite y and x, not both zero: the arctangent of t = min / max of |x| and |y|
// (0 to 1), from the polynomial on |u| <= 7/16 after moving t by atan(1/2) or atan(1), then put
// in its octant by the signs, as the library gives them (y = -0 gives -pi for negative x).
inline double FastAtan2(double y, double x) {
  using namespace fast_math;
  const double ax = std::fabs(x), ay = std::fabs(y);
  const bool steep = ay > ax;
  const double t = (steep ? ax : ay) / (steep ? ay : ax);
  const bool high = t >= 0.6875, middle = !high && t >= 0.4375;
  const double u = (high ? t - 1.0 : middle ? 2.0 * t - 1.0 : t) / (high ? t + 1.0 : middle ? 2.0 + t : 1.0);
  const double base_hi = high ? 7.85398163397448278999e-01 : middle ? 4.63647609000806093515e-01 : 0.0;
  const double base_lo = high ? 3.06161699786838301793e-17 : middle ? 2.26987774529616870924e-17 : 0.0;
  const double z = u * u, w = z * z;
  const double odd_terms =
      z * (3.33333333333329318027e-01 +
           w * (1.42857142725034663711e-01 +
                w * (9.09088713343650656196e-02 +
                     w * (6.66107313738753120669e-02 + w * (4.97687799461593236017e-02 + w * 1.62858201153657823623e-02)))));
  const double even_terms =
      w * (-1.99999999998764832476e-01 +
           w * (-1.11111104054623557880e-01 +
                w * (-7.69187620504482999495e-02 + w * (-5.83357013379057348645e-02 + w * -3.65315727442169155270e-02))));
  const double atan_t = base_hi - ((u * (odd_terms + even_terms) - base_lo) - u);
  const double octant = steep ? kHalfPi - atan_t : atan_t;
  const double half = SignBit(x) ? kPi - octant : octant;
  return FlipSign(half, SignBit(y));
}

// ln f for a normal positive f: f = m 2^e with m within sqrt(1/2) .. sqrt(2), and
// ln m = ln(1 + g) from the polynomial in s = g / (2 + g).
inline double FastLog(double f) {
  using namespace fast_math;
  constexpr double kLn2Hi = 6.93147180369123816490e-01, kLn2Lo = 1.90821492927058770002e-10;
  const uint64_t bits = std::bit_cast<uint64_t>(f);
  const double m1 = std::bit_cast<double>((bits & 0x000FFFFFFFFFFFFFu) | 0x3FF0000000000000u);  // 1 .. 2
  const bool above = m1 > 1.4142135623730951;
  const double m = above ? 0.5 * m1 : m1;
  const double e = WholeToDouble(bits >> 52) - (above ? 1022.0 : 1023.0);
  const double g = m - 1.0, s = g / (2.0 + g), z = s * s, w = z * z;
  const double r = w * (3.999999999940941908e-01 + w * (2.222219843214978396e-01 + w * 1.531383769920937332e-01)) +
                   z * (6.666666666666735130e-01 +
                        w * (2.857142874366239149e-01 + w * (1.818357216161805012e-01 + w * 1.479819860511658591e-01)));
  const double half_square = 0.5 * g * g;
  return e * kLn2Hi - ((half_square - (s * (half_square + r) + e * kLn2Lo)) - g);
}

// e^y for |y| <= kFastExpLimit: y less the nearest whole multiple k of ln 2, the rational form
// of e^r on |r| <= ln 2 / 2, and 2^k put into the exponent.
inline double FastExp(double y) {
  using namespace fast_math;
  constexpr double kLn2Hi = 6.93147180369123816490e-01, kLn2Lo = 1.90821492927058770002e-10;
  const double shifted = y * 1.44269504088896338700 + kRound;
  const double k = shifted - kRound;
  const int64_t whole = std::bit_cast<int64_t>(shifted) - std::bit_cast<int64_t>(kRound);
  const double hi = y - k * kLn2Hi, lo = k * kLn2Lo, r = hi - lo, t = r * r;
  const double c = r - t * (1.66666666666666019037e-01 +
                            t * (-2.77777777770155933842e-03 +
                                 t * (6.61375632143793436117e-05 +
                                      t * (-1.65339022054652515390e-06 + t * 4.13813679705723846039e-08))));
  const double er = 1.0 - ((lo - (r * c) / (2.0 - c)) - hi);
  return er * std::bit_cast<double>(uint64_t(whole + 1023) << 52);
}

// The most FastExp(y) of y = p FastLog(f) differs from std::pow(f, p), for a result `power`
// (again kept within a quarter).
inline double FastPowError(double power, double y, double p) {
  return power * (2e-15 + 2e-15 * std::fabs(y) + 1e-15 * std::fabs(p));
}

// The positions that a monotone `position` gives at both ends of `error` around `estimate`.
// The library's value lies between, so where the two agree that is the position it gives.
struct Bracket {
  int32_t low, high;
  bool Certain() const { return low == high; }
};
template <class Position>
inline Bracket BracketOf(double estimate, double error, Position&& position) {
  return {position(estimate - error), position(estimate + error)};
}

}  // namespace kestrion::module

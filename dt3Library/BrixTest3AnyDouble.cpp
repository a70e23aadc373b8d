// BrixTest3AnyDouble.cpp: exact predicates for any finite double, the layer
// beneath the published stages of BrixTest3.cpp. Those stages hand a test
// here when a coordinate lies outside the published range (see
// BrixTest3AnyDouble.h); the answer is the sign of the published determinant,
// whatever the magnitudes.
//
// anyRangeSign takes one of three ways, the cheapest that is exact:
//  1. Scaling. All coordinates times one power of two 2^k multiply each
//     determinant by 2^(degree k) and keep its sign. When the exponents of
//     the nonzero coordinates span no more than the range does, one 2^k
//     brings them all inside it, exactly, and the published predicate runs
//     on the scaled copy. Lattices near 2^1000, subnormal ones, and points
//     scaled by 1e-150 or 1e150 all take this way.
//  2. A filter on a rounded copy. Otherwise (magnitudes mixed across more
//     than 2^357) the space tests first scale the largest magnitude to just
//     below 2^100; smaller coordinates may round, each by at most 2^-1075,
//     which moves any of the determinants by less than 2^-600 (at most 72
//     monomials of degree five, differences below 2^101). The filter with
//     that added to its bound decides nearly every test that is not
//     degenerate, such as sets that reach the overflow threshold and hold
//     subnormal coordinates too.
//  3. Integers. Each coordinate becomes the integer c * 2^-e0, e0 the lowest
//     set bit of all of them, at most 2098 bits, and the determinant is
//     evaluated in ExactInteger, the integer arithmetic below. It costs tens of
//     microseconds a test.

#include "BrixTest3AnyDouble.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>

#include "freeFunctions.h"

namespace VELM3D {

namespace {

// ilogb of the ends of the published range.
constexpr int kRangeLowExp = -159, kRangeHighExp = 198;

// Signed integers of up to kCapacity 32-bit limbs, magnitude and sign, on
// the stack. Enough for the sphere test's five-fold products of 2099-bit
// differences and their sums (10,780 bits); nothing allocates.
class ExactInteger {
public:
  static constexpr int kCapacity = 344;

  ExactInteger() : numLimbs(0), bNegative(false) {}
  ExactInteger(const ExactInteger& other) : numLimbs(other.numLimbs), bNegative(other.bNegative) {
    std::copy(other.limb, other.limb + numLimbs, limb);
  }
  ExactInteger& operator=(const ExactInteger& other) {
    numLimbs = other.numLimbs;
    bNegative = other.bNegative;
    std::copy(other.limb, other.limb + numLimbs, limb);
    return *this;
  }

  // v * 2^-e0, for a finite v whose lowest set bit is at least 2^e0.
  static ExactInteger fromDouble(double v, int e0) {
    ExactInteger r;
    if (v == 0.0) return r;
    int e;
    std::uint64_t m = static_cast<std::uint64_t>(std::ldexp(std::frexp(std::fabs(v), &e), 53));
    int shift = e - 53 - e0;
    while ((m & 1u) == 0) {  // shift is then at least 0
      m >>= 1;
      ++shift;
    }
    const int word = shift / 32, bit = shift % 32;
    const std::uint64_t low = m << bit, high = bit == 0 ? 0 : m >> (64 - bit);
    std::fill(r.limb, r.limb + word, 0u);
    r.limb[word] = static_cast<std::uint32_t>(low);
    r.limb[word + 1] = static_cast<std::uint32_t>(low >> 32);
    r.limb[word + 2] = static_cast<std::uint32_t>(high);
    r.numLimbs = word + 3;
    r.bNegative = v < 0.0;
    r.trim();
    return r;
  }

  int sign() const { return numLimbs == 0 ? 0 : (bNegative ? -1 : 1); }

  // The value times 2^e as a double of the same sign: a nonzero value too
  // small for a double gives the smallest subnormal, a too large one infinity.
  double toDouble(int e) const {
    if (numLimbs == 0) return 0.0;
    double top = 0.0;
    const int first = std::max(0, numLimbs - 3);
    for (int i = numLimbs - 1; i >= first; --i) top = top * 4294967296.0 + limb[i];
    double v = std::ldexp(top, e + 32 * first);
    if (v == 0.0) v = std::numeric_limits<double>::denorm_min();
    return bNegative ? -v : v;
  }

  friend ExactInteger operator+(const ExactInteger& a, const ExactInteger& b) {
    return sum(a, b, b.bNegative);
  }
  friend ExactInteger operator-(const ExactInteger& a, const ExactInteger& b) {
    return sum(a, b, !b.bNegative);
  }
  friend ExactInteger operator*(const ExactInteger& a, const ExactInteger& b) {
    ExactInteger r;
    if (a.numLimbs == 0 || b.numLimbs == 0) return r;
    r.numLimbs = a.numLimbs + b.numLimbs;
    VELM_ASSERT(r.numLimbs <= kCapacity);
    std::fill(r.limb, r.limb + r.numLimbs, 0u);
    for (int i = 0; i < a.numLimbs; ++i) {
      std::uint64_t carry = 0;
      for (int j = 0; j < b.numLimbs; ++j) {
        const std::uint64_t t =
            static_cast<std::uint64_t>(a.limb[i]) * b.limb[j] + r.limb[i + j] + carry;
        r.limb[i + j] = static_cast<std::uint32_t>(t);
        carry = t >> 32;
      }
      r.limb[i + b.numLimbs] = static_cast<std::uint32_t>(carry);
    }
    r.bNegative = a.bNegative != b.bNegative;
    r.trim();
    return r;
  }

private:
  void trim() {
    while (numLimbs > 0 && limb[numLimbs - 1] == 0) --numLimbs;
    if (numLimbs == 0) bNegative = false;
  }
  // -1, 0, 1 as |a| is below, equal to or above |b|.
  static int compareMagnitude(const ExactInteger& a, const ExactInteger& b) {
    if (a.numLimbs != b.numLimbs) return a.numLimbs < b.numLimbs ? -1 : 1;
    for (int i = a.numLimbs - 1; i >= 0; --i)
      if (a.limb[i] != b.limb[i]) return a.limb[i] < b.limb[i] ? -1 : 1;
    return 0;
  }
  // a + (b with the sign bNegativeB).
  static ExactInteger sum(const ExactInteger& a, const ExactInteger& b, bool bNegativeB) {
    ExactInteger r;
    if (a.bNegative == bNegativeB) {
      const ExactInteger& big = a.numLimbs >= b.numLimbs ? a : b;
      const ExactInteger& small = a.numLimbs >= b.numLimbs ? b : a;
      std::uint64_t carry = 0;
      for (int i = 0; i < big.numLimbs; ++i) {
        const std::uint64_t t = static_cast<std::uint64_t>(big.limb[i]) +
                                (i < small.numLimbs ? small.limb[i] : 0u) + carry;
        r.limb[i] = static_cast<std::uint32_t>(t);
        carry = t >> 32;
      }
      r.numLimbs = big.numLimbs;
      if (carry != 0) {
        VELM_ASSERT(r.numLimbs < kCapacity);
        r.limb[r.numLimbs++] = static_cast<std::uint32_t>(carry);
      }
      r.bNegative = a.bNegative;
    } else {
      const int cmp = compareMagnitude(a, b);
      if (cmp == 0) return r;
      const ExactInteger& big = cmp > 0 ? a : b;
      const ExactInteger& small = cmp > 0 ? b : a;
      std::int64_t borrow = 0;
      for (int i = 0; i < big.numLimbs; ++i) {
        std::int64_t t = static_cast<std::int64_t>(big.limb[i]) -
                         (i < small.numLimbs ? small.limb[i] : 0u) - borrow;
        borrow = t < 0;
        if (t < 0) t += 4294967296LL;
        r.limb[i] = static_cast<std::uint32_t>(t);
      }
      r.numLimbs = big.numLimbs;
      r.bNegative = cmp > 0 ? a.bNegative : bNegativeB;
    }
    r.trim();
    return r;
  }

  std::uint32_t limb[kCapacity];
  int numLimbs;
  bool bNegative;
};

// The published determinants over differences d to the last point, in any
// arithmetic. Orders: d = {ax, bx, ay, by} with the planar ones and
// {ax, bx, cx, ay, by, cy, az, bz, cz} (orient3d, incircle's x and y) or
// {ax, bx, cx, dx, ay, by, cy, dy, az, bz, cz, dz} (insphere).
template <class T> T orient2dOf(const T* d) { return d[0] * d[3] - d[2] * d[1]; }

template <class T> T orient3dOf(const T* d) {
  return d[6] * (d[1] * d[5] - d[2] * d[4]) + d[7] * (d[2] * d[3] - d[0] * d[5]) +
         d[8] * (d[0] * d[4] - d[1] * d[3]);
}

template <class T> T incircleOf(const T* d) {
  const T alift = d[0] * d[0] + d[3] * d[3], blift = d[1] * d[1] + d[4] * d[4];
  const T clift = d[2] * d[2] + d[5] * d[5];
  return alift * (d[1] * d[5] - d[2] * d[4]) + blift * (d[2] * d[3] - d[0] * d[5]) +
         clift * (d[0] * d[4] - d[1] * d[3]);
}

template <class T> T insphereOf(const T* d) {
  const T &aex = d[0], &bex = d[1], &cex = d[2], &dex = d[3];
  const T &aey = d[4], &bey = d[5], &cey = d[6], &dey = d[7];
  const T &aez = d[8], &bez = d[9], &cez = d[10], &dez = d[11];
  const T ab = aex * bey - bex * aey, bc = bex * cey - cex * bey;
  const T cd = cex * dey - dex * cey, da = dex * aey - aex * dey;
  const T ac = aex * cey - cex * aey, bd = bex * dey - dex * bey;
  const T abc = aez * bc - bez * ac + cez * ab, bcd = bez * cd - cez * bd + dez * bc;
  const T cda = cez * da + dez * ac + aez * cd, dab = dez * ab + aez * bd + bez * da;
  const T alift = aex * aex + aey * aey + aez * aez, blift = bex * bex + bey * bey + bez * bez;
  const T clift = cex * cex + cey * cey + cez * cez, dlift = dex * dex + dey * dey + dez * dez;
  return (dlift * abc - clift * dab) + (blift * cda - alift * bcd);
}

} // namespace

// The sign of a published determinant of numPts points of dim coordinates
// (pts[0..numPts-1], differences to the last one), by scaling, a filter on a
// rounded copy or integer arithmetic; as a double of that sign. The scaled way returns the published
// predicate's value scaled back (a nonzero one that would underflow stays the
// smallest subnormal). Non-finite coordinates give 0.
double anyRangeSign(const ExactTest& t, PredicateKind kind, double* const* pts) {
  using K = PredicateKind;
  const int numPts = kind == K::ORIENT2D ? 3 : (kind == K::INSPHERE ? 5 : 4);
  const int dim = kind == K::ORIENT2D || kind == K::INCIRCLE ? 2 : 3;
  const int degree = kind == K::ORIENT2D ? 2 : (kind == K::ORIENT3D ? 3 : (kind == K::INCIRCLE ? 4 : 5));
  int lowExp = INT_MAX, highExp = INT_MIN, lowBit = INT_MAX;
  for (int i = 0; i < numPts; ++i)
    for (int k = 0; k < dim; ++k) {
      const double v = pts[i][k];
      if (!std::isfinite(v)) return 0.0;
      if (v == 0.0) continue;
      int e;
      const std::uint64_t m =
          static_cast<std::uint64_t>(std::ldexp(std::frexp(std::fabs(v), &e), 53));
      lowExp = std::min(lowExp, e - 1);
      highExp = std::max(highExp, e - 1);
      int low = e - 53;
      for (std::uint64_t r = m; (r & 1u) == 0; r >>= 1) ++low;
      lowBit = std::min(lowBit, low);
    }
  if (lowExp == INT_MAX) return 0.0;  // all coordinates 0

  if (highExp - lowExp <= kRangeHighExp - kRangeLowExp) {
    const int k = kRangeLowExp - lowExp;
    double scaled[5][3];
    double* p[5];
    for (int i = 0; i < numPts; ++i) {
      for (int j = 0; j < dim; ++j) scaled[i][j] = std::ldexp(pts[i][j], k);
      p[i] = scaled[i];
    }
    double value;
    switch (kind) {
    case K::ORIENT2D: value = t.orient2d(p[0], p[1], p[2]); break;
    case K::INCIRCLE: value = t.incircle(p[0], p[1], p[2], p[3]); break;
    case K::ORIENT3D: value = t.orient3d(p[0], p[1], p[2], p[3]); break;
    default: {
      double det, permanent, floor;
      kernels::insphereFilter(p[0], p[1], p[2], p[3], p[4], det, permanent, floor);
      if (!kernels::filterDecides(det, t.isperrboundA * permanent + floor)) {
        const unsigned int cls = t.insphereadapt(p[0], p[1], p[2], p[3], p[4], permanent);
        det = cls == 1u ? 1.0 : (cls == 0u ? -1.0 : 0.0);
      }
      return det;
    }
    }
    const double unscaled = std::ldexp(value, -degree * k);
    if (unscaled == 0.0 && value != 0.0)
      return std::copysign(std::numeric_limits<double>::denorm_min(), value);
    return unscaled;
  }

  if (kind == K::ORIENT3D || kind == K::INSPHERE) {
    double rounded[5][3];
    for (int i = 0; i < numPts; ++i)
      for (int j = 0; j < 3; ++j) rounded[i][j] = std::ldexp(pts[i][j], 99 - highExp);
    double det, permanent, floor;
    if (kind == K::ORIENT3D) {
      kernels::orient3dFilter(rounded[0], rounded[1], rounded[2], rounded[3], det, permanent,
                              floor);
      floor += t.o3derrboundA * permanent;
    } else {
      kernels::insphereFilter(rounded[0], rounded[1], rounded[2], rounded[3], rounded[4], det,
                              permanent, floor);
      floor += t.isperrboundA * permanent;
    }
    if (kernels::filterDecides(det, floor + 0x1p-600)) return det > 0.0 ? 1.0 : -1.0;
  }

  ExactInteger d[12];
  const int last = numPts - 1;
  for (int k = 0; k < dim; ++k) {
    const ExactInteger origin = ExactInteger::fromDouble(pts[last][k], lowBit);
    for (int i = 0; i < last; ++i)
      d[k * last + i] = ExactInteger::fromDouble(pts[i][k], lowBit) - origin;
  }
  ExactInteger det;
  switch (kind) {
  case K::ORIENT2D: det = orient2dOf(d); break;
  case K::INCIRCLE: det = incircleOf(d); break;
  case K::ORIENT3D: det = orient3dOf(d); break;
  default: det = insphereOf(d); break;
  }
  return det.toDouble(degree * lowBit);
}

} // namespace VELM3D

// A caller that compiles with flags hostile to exact arithmetic: a GNU
// dialect with -march=native on g++ (whose default then contracts a*b+c into
// a fused multiply-add) and -ffp-contract=fast -march=native on clang; see
// tests/CMakeLists.txt. Whatever this file's flags, the predicates it calls
// through the public header must be the library's own evaluation:
// every sign agrees with exact rational arithmetic on near-degenerate input
// (coplanar and cospherical lattices nudged by a few units in the last place,
// at large offsets and tiny scales; points rounded onto a plane or a sphere).
#include <gmpxx.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <utility>

#include "BrixTest3.h"
#include "SimplePool.h"
#include "exact_checker.h"

using namespace VELM3D;

namespace {

// a*b + c as this file's flags compile it, on values the compiler cannot
// fold.
double mulAdd(double a, double b, double c) {
  volatile double va = a, vb = b, vc = c;
  const double x = va, y = vb, z = vc;
  return x * y + z;
}

enum Kind { FLAT_LATTICE, FLAT_ROUNDED, ROUND_LATTICE, ROUND_ROUNDED };

struct Regime {
  const char* name;
  Kind kind;
  double offset, scale;  // lattice points become p * scale + offset
  int numUlps;           // largest nudge of one coordinate, 0 for none
  int count;
};

// Five points: the corners of a tetrahedron (q[0..3]) and a query q[4] close
// to the plane of q[0] q[1] q[2] (flat kinds) or to the circumsphere (round
// kinds).
class Cases {
public:
  void make(const Regime& r, double q[5][3]) {
    if (r.kind == FLAT_LATTICE || r.kind == FLAT_ROUNDED) {
      const bool bLattice = r.kind == FLAT_LATTICE;
      for (int i = 0; i < 4; ++i)
        for (int k = 0; k < 3; ++k) q[i][k] = irand(101) - 50;
      const double s = bLattice ? irand(7) - 3 : 2 * uni(rng);
      const double t = bLattice ? irand(7) - 3 : 2 * uni(rng);
      for (int k = 0; k < 3; ++k)
        q[4][k] = q[0][k] + s * (q[1][k] - q[0][k]) + t * (q[2][k] - q[0][k]);
    } else if (r.kind == ROUND_LATTICE) {  // signed permutations of integer vectors of length 65
      const int centre[3] = {irand(201) - 100, irand(201) - 100, irand(201) - 100};
      for (int i = 0; i < 5; ++i) {
        const int* w = kSphere[irand(kNumSphere)];
        int perm[3] = {0, 1, 2};
        for (int m = irand(6); m > 0; --m) std::next_permutation(perm, perm + 3);
        for (int k = 0; k < 3; ++k) q[i][k] = centre[k] + (irand(2) ? -w[perm[k]] : w[perm[k]]);
      }
    } else {  // rounded onto a sphere of random radius
      const double radius = std::ldexp(1.0 + uni(rng), irand(21) - 10);
      for (int i = 0; i < 5; ++i) {
        const double v[3] = {uni(rng), uni(rng), uni(rng)};
        const double len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        for (int k = 0; k < 3; ++k) q[i][k] = radius * v[k] / len;
      }
    }
    for (int i = 0; i < 5; ++i)
      for (int k = 0; k < 3; ++k) q[i][k] = q[i][k] * r.scale + r.offset;
    if (r.numUlps > 0) {
      double& v = q[irand(5)][irand(3)];
      const double dir = irand(2) ? INFINITY : -INFINITY;
      for (int n = 1 + irand(r.numUlps); n > 0; --n) v = std::nextafter(v, dir);
    }
  }

private:
  int irand(int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }
  static constexpr int kNumSphere = 11;
  static constexpr int kSphere[kNumSphere][3] = {
      {0, 0, 65},   {0, 16, 63},  {0, 25, 60},  {0, 33, 56},  {0, 39, 52}, {7, 24, 60},
      {15, 20, 60}, {15, 36, 52}, {20, 24, 57}, {20, 39, 48}, {25, 36, 48}};
  std::mt19937_64 rng{20240611};
  std::uniform_real_distribution<double> uni{-1.0, 1.0};
};

// The exact orientation of d against the plane of a, b, c, in the library's
// words: positive when d sees a, b, c counterclockwise.
int exactOrientation(const Point3& a, const Point3& b, const Point3& c, const Point3& d) {
  using exact::diff;
  return sgn(exact::det3<mpq_class>(diff<mpq_class>(b, a), diff<mpq_class>(c, a),
                                    diff<mpq_class>(d, a)));
}

Orientation3 orientationOfSign(int s) {
  return s > 0 ? ORIENTATION3_POSITIVE : (s < 0 ? ORIENTATION3_NEGATIVE : ORI3_ZERO);
}

const Regime kRegimes[] = {
    {"coplanar lattice at offset 1e15, nudged", FLAT_LATTICE, 1e15, 1, 4, 5000},
    {"coplanar lattice at offset 2^40", FLAT_LATTICE, 0x1p40, 1, 0, 2500},
    {"coplanar lattice at scale 2^-30, nudged", FLAT_LATTICE, 0, 0x1p-30, 2, 2500},
    {"coplanar lattice at scale 2^-1000, nudged", FLAT_LATTICE, 0, 0x1p-1000, 2, 1500},
    {"nearly coplanar, rounded", FLAT_ROUNDED, 0, 1, 0, 5000},
    {"nearly coplanar, rounded, offset 1e6, nudged", FLAT_ROUNDED, 1e6, 1, 1, 2500},
    {"cospherical lattice at offset 1e15, nudged", ROUND_LATTICE, 1e15, 1, 4, 5000},
    {"cospherical lattice at offset 2^40", ROUND_LATTICE, 0x1p40, 1, 0, 2500},
    {"cospherical lattice at scale 2^-20, nudged", ROUND_LATTICE, 0, 0x1p-20, 2, 2500},
    {"cospherical lattice at scale 2^-900, nudged", ROUND_LATTICE, 0, 0x1p-900, 1, 1500},
    {"nearly cospherical, rounded", ROUND_ROUNDED, 0, 1, 0, 5000},
    {"nearly cospherical, rounded, offset 3, nudged", ROUND_ROUNDED, 3, 1, 2, 2500},
};

} // namespace

// The premise: where the CPU has a fused multiply-add, this file's flags do
// contract. (1 + 2^-30)(1 - 2^-30) - 1 is -2^-60 fused and 0 rounded.
TEST(CallerFlags, ThisFileIsCompiledWithContraction) {
#if defined(__FMA__)
  EXPECT_EQ(mulAdd(1 + 0x1p-30, 1 - 0x1p-30, -1.0), -0x1p-60);
#else
  GTEST_SKIP() << "no fused multiply-add on this target";
#endif
}

// Orientation (by points and by facet) and the sphere test against GMP
// rationals, regime by regime.
TEST(CallerFlags, EverySignAgreesWithExactArithmetic) {
  const ExactTest t;
  BRIX_TOOLS::SimplePool<Tet3> pool;
  pool.init(4, 4);
  Tet3* pTet = pool.nextObject();
  Cases cases;
  for (const Regime& r : kRegimes) {
    int numWrong = 0, numTested = 0;
    for (int n = 0; n < r.count; ++n) {
      double q[5][3];
      cases.make(r, q);
      Point3 p[5];
      for (int i = 0; i < 5; ++i) p[i] = Point3(q[i][0], q[i][1], q[i][2]);
      const int ori = exactOrientation(p[0], p[1], p[2], p[3]);
      if (ori == 0) continue;
      if (ori < 0) std::swap(p[0], p[1]);
      pTet->setProperties(&p[0], &p[1], &p[2], &p[3]);
      ++numTested;

      const Point3* const corners[4] = {&p[0], &p[1], &p[2], &p[3]};
      const int lifted = sgn(exact::lifted<mpq_class>(corners, p[4], nullptr));
      const SphereInclusion sphere = lifted < 0 ? SIC_INSIDE : SIC_OUTSIDE;
      numWrong += t.sphereInclusionTest(pTet, &p[4]) != sphere;
      numWrong += t.getOrientation3(&p[0], &p[1], &p[2], &p[4]) !=
                  orientationOfSign(exactOrientation(p[0], p[1], p[2], p[4]));
      for (int ith = 0; ith < 4; ++ith) {
        static const int order[4][3] = {{1, 3, 2}, {0, 2, 3}, {0, 3, 1}, {0, 1, 2}};
        const Orientation3 expected = orientationOfSign(
            exactOrientation(p[order[ith][0]], p[order[ith][1]], p[order[ith][2]], p[4]));
        numWrong += t.getOrientation3(pTet, ith, &p[4]) != expected;
      }
    }
    EXPECT_EQ(numWrong, 0) << r.name;
    EXPECT_GT(numTested, r.count / 2) << r.name;
  }
}

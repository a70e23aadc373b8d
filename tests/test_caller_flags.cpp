// A caller that compiles with flags hostile to exact arithmetic: a GNU
// dialect with -march=native on g++ (whose default then contracts a*b+c into
// a fused multiply-add) and -ffp-contract=fast -march=native on clang; see
// tests/CMakeLists.txt. Whatever this file's flags, the predicates it calls
// through the public header must be the library's own evaluation: every
// sign agrees with exact rational arithmetic on near-degenerate input
// (coplanar and cospherical lattices nudged by a few units in the last place
// at a large offset, points rounded onto a plane or a sphere).
#include <gmpxx.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>
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

Orientation3 orientationOfSign(int s) {
  return s > 0 ? ORIENTATION3_POSITIVE : (s < 0 ? ORIENTATION3_NEGATIVE : ORI3_ZERO);
}

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

// Five points per case: a tetrahedron and a query near the plane of its
// first three corners or near its circumsphere: integer lattices at offset
// 1e15 with one coordinate nudged by up to 4 ulps (exact differences), and
// points rounded onto the unit sphere (differences with tails).
TEST(CallerFlags, EverySignAgreesWithExactArithmetic) {
  const ExactTest t;
  BRIX_TOOLS::SimplePool<Tet3> pool;
  pool.init(4, 4);
  Tet3* pTet = pool.nextObject();
  std::mt19937_64 rng(20240611);
  std::uniform_real_distribution<double> uni(-1.0, 1.0);
  auto irand = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
  static const int kSphere[6][3] = {{0, 0, 65}, {0, 16, 63}, {0, 25, 60}, {7, 24, 60}, {15, 20, 60}, {20, 39, 48}};
  int numWrong = 0, numTested = 0;
  for (int n = 0; n < 40000; ++n) {
    double q[5][3];
    for (int i = 0; i < 5; ++i) {
      const int* w = kSphere[irand(6)];
      const double v[3] = {uni(rng), uni(rng), uni(rng)}, len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
      for (int k = 0; k < 3; ++k) {
        if (n % 3 == 0) q[i][k] = v[k] / len;  // rounded onto the sphere
        else if (n % 3 == 1) q[i][k] = 1e15 + (irand(2) ? -w[(k + n) % 3] : w[(k + n) % 3]);
        else q[i][k] = i < 4 ? 1e15 + irand(101) - 50 : q[0][k] + 2 * (q[1][k] - q[0][k]) - (q[2][k] - q[0][k]);
      }
    }
    if (n % 3 != 0) {  // 0 to 4 ulps either way, on one coordinate
      double& v = q[irand(5)][irand(3)];
      const double dir = irand(2) ? INFINITY : -INFINITY;
      for (int k = irand(5); k > 0; --k) v = std::nextafter(v, dir);
    }
    Point3 p[5];
    for (int i = 0; i < 5; ++i) p[i] = Point3(q[i][0], q[i][1], q[i][2]);
    const int ori = exact::orient(p[0], p[1], p[2], p[3]);
    if (ori == 0) continue;
    if (ori < 0) std::swap(p[0], p[1]);
    pTet->setProperties(&p[0], &p[1], &p[2], &p[3]);
    ++numTested;
    const Point3* const corners[4] = {&p[0], &p[1], &p[2], &p[3]};
    const SphereInclusion sphere = exact::strictlyInsideSphere(corners, p[4]) ? SIC_INSIDE : SIC_OUTSIDE;
    numWrong += t.sphereInclusionTest(pTet, &p[4]) != sphere;
    numWrong += t.getOrientation3(&p[0], &p[1], &p[2], &p[4]) != orientationOfSign(exact::orient(p[0], p[1], p[2], p[4]));
    static const int order[4][3] = {{1, 3, 2}, {0, 2, 3}, {0, 3, 1}, {0, 1, 2}};
    for (int ith = 0; ith < 4; ++ith)
      numWrong += t.getOrientation3(pTet, ith, &p[4]) !=
                  orientationOfSign(exact::orient(p[order[ith][0]], p[order[ith][1]], p[order[ith][2]], p[4]));
  }
  EXPECT_EQ(numWrong, 0);
  EXPECT_GT(numTested, 30000);
}

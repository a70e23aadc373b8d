// Tests of the predicates: their sign conventions, the departures of the
// sphere test from the published routine, and differential runs against
// exact GMP integer determinants on random, near-degenerate and exactly
// degenerate input, which must agree in every case.
#include <gmpxx.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "BrixTest3.h"
#include "SimplePool.h"
#include "freeFunctions.h"

using namespace VELM3D;

namespace {

// Exact integer images of n doubles: all of them times one power of two, which
// keeps the sign of every homogeneous determinant of them.
void toIntegers(const double* v, int n, mpz_class* z) {
  int emin = INT_MAX, e;
  for (int i = 0; i < n; ++i) {
    if (v[i] == 0.0) continue;
    std::frexp(v[i], &e);
    emin = std::min(emin, e - 53);
  }
  for (int i = 0; i < n; ++i) {
    if (v[i] == 0.0) {
      z[i] = 0;
      continue;
    }
    z[i] = mpz_class(std::ldexp(std::frexp(v[i], &e), 53));
    mpz_mul_2exp(z[i].get_mpz_t(), z[i].get_mpz_t(), e - 53 - emin);
  }
}

using Pts = double[5][3];

// Sign of the published orient3d determinant (a-d).((b-d)x(c-d)) of p[0..3].
int orient3dSign(const Pts p) {
  mpz_class z[12], d[9];
  toIntegers(&p[0][0], 12, z);
  for (int i = 0; i < 9; ++i) d[i] = z[i] - z[9 + i % 3];
  return sgn(d[0] * (d[4] * d[8] - d[5] * d[7]) + d[3] * (d[7] * d[2] - d[8] * d[1]) +
             d[6] * (d[1] * d[5] - d[2] * d[4]));
}

// Sign of the published insphere determinant of p[0..4] (positive: p[4]
// inside the sphere of p[0..3] when their orient3d is positive).
int insphereSign(const Pts p) {
  mpz_class z[15], d[4][4];
  toIntegers(&p[0][0], 15, z);
  for (int i = 0; i < 4; ++i) {
    for (int k = 0; k < 3; ++k) d[i][k] = z[3 * i + k] - z[12 + k];
    d[i][3] = d[i][0] * d[i][0] + d[i][1] * d[i][1] + d[i][2] * d[i][2];
  }
  auto m3 = [&](int a, int b, int c) -> mpz_class {
    return d[a][0] * (d[b][1] * d[c][2] - d[b][2] * d[c][1]) -
           d[a][1] * (d[b][0] * d[c][2] - d[b][2] * d[c][0]) +
           d[a][2] * (d[b][0] * d[c][1] - d[b][1] * d[c][0]);
  };
  return sgn(-d[0][3] * m3(1, 2, 3) + d[1][3] * m3(0, 2, 3) - d[2][3] * m3(0, 1, 3) +
             d[3][3] * m3(0, 1, 2));
}

// Planar signs on the x and y of p[0..2] and p[0..3].
int orient2dSign(const Pts p) {
  mpz_class z[6];
  const double v[6] = {p[0][0], p[0][1], p[1][0], p[1][1], p[2][0], p[2][1]};
  toIntegers(v, 6, z);
  return sgn((z[0] - z[4]) * (z[3] - z[5]) - (z[1] - z[5]) * (z[2] - z[4]));
}
int incircleSign(const Pts p) {
  mpz_class z[8], d[3][3];
  const double v[8] = {p[0][0], p[0][1], p[1][0], p[1][1], p[2][0], p[2][1], p[3][0], p[3][1]};
  toIntegers(v, 8, z);
  for (int i = 0; i < 3; ++i) {
    d[i][0] = z[2 * i] - z[6];
    d[i][1] = z[2 * i + 1] - z[7];
    d[i][2] = d[i][0] * d[i][0] + d[i][1] * d[i][1];
  }
  return sgn(d[0][2] * (d[1][0] * d[2][1] - d[2][0] * d[1][1]) +
             d[1][2] * (d[2][0] * d[0][1] - d[0][0] * d[2][1]) +
             d[2][2] * (d[0][0] * d[1][1] - d[1][0] * d[0][1]));
}

int signOf(double v) { return (v > 0.0) - (v < 0.0); }

// Integer vectors of squared length n, with dim 2 or 3 components.
std::vector<std::array<int, 3>> latticeSphere(int n, int dim) {
  std::vector<std::array<int, 3>> v;
  const int r = static_cast<int>(std::sqrt(n));
  for (int x = -r; x <= r; ++x)
    for (int y = -r; y <= r; ++y)
      for (int z = (dim == 3 ? -r : 0); z <= (dim == 3 ? r : 0); ++z)
        if (x * x + y * y + z * z == n) v.push_back({x, y, z});
  return v;
}

// Generators of a case of n points in p; `dim` 2 leaves z at 0. The derived
// point of a kind (on the line, plane, circle or sphere, or a copy) is made
// last; all but a copy are then shuffled.
enum Kind { RANDOM, FLOAT_FLAT, LATTICE_FLAT, WIDE_FLAT, FLOAT_ROUND, LATTICE_ROUND, WIDE_ROUND, COINCIDENT };

class Cases {
public:
  explicit Cases(int dim) : dim(dim), rng(12345), sphere(latticeSphere(dim == 3 ? 4225 : 5525, dim)) {}

  // offset: added to all coordinates; scale: a power of two multiplying the
  // lattice; numUlps: largest perturbation of one coordinate (0: none).
  void make(Kind kind, Pts p, int n, double offset = 0.0, double scale = 1.0, int numUlps = 0) {
    std::fill(&p[0][0], &p[0][0] + 15, 0.0);
    if (kind == RANDOM || kind == COINCIDENT) {
      for (int i = 0; i < n; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = uni(rng);
      const int j = irand(n - 1);
      if (kind == COINCIDENT) std::copy(p[j], p[j] + 3, p[n - 1]);
    } else if (kind == FLOAT_FLAT) {  // last point on the line/plane, rounded
      const double s = uni(rng) * 2, t = dim == 3 ? uni(rng) * 2 : 0.0;
      for (int i = 0; i < dim; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = std::ldexp(uni(rng), irand(40) - 20);
      for (int k = 0; k < dim; ++k)
        p[n - 1][k] = p[0][k] + s * (p[1][k] - p[0][k]) + t * (p[2][k] - p[0][k]);
    } else if (kind == LATTICE_FLAT) {  // exactly on the line/plane
      const int s = irand(7) - 3, t = dim == 3 ? irand(7) - 3 : 0;
      for (int i = 0; i < dim; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = irand(101) - 50;
      for (int k = 0; k < dim; ++k)
        p[n - 1][k] = p[0][k] + s * (p[1][k] - p[0][k]) + t * (p[2][k] - p[0][k]);
    } else if (kind == WIDE_FLAT) {  // on the plane x = +-y (line y = +-x): wide magnitudes
      const double sign = (rng() & 1) ? 1.0 : -1.0;
      for (int i = 0; i < n; ++i) {
        p[i][0] = wide();
        p[i][1] = sign * p[i][0];
        if (dim == 3) p[i][2] = wide();
      }
    } else if (kind == WIDE_ROUND) {  // signed permutations of one point: wide magnitudes
      const double base[3] = {wide(), wide(), wide()};
      std::vector<int> vUsed;
      for (int i = 0; i < n; ++i) {
        int code, perm[3] = {0, 1, 2};
        do code = irand(dim == 3 ? 48 : 8);
        while (std::find(vUsed.begin(), vUsed.end(), code) != vUsed.end());
        vUsed.push_back(code);
        for (int r = code >> dim; r > 0; --r) std::next_permutation(perm, perm + dim);
        for (int k = 0; k < dim; ++k) p[i][k] = ((code >> k) & 1 ? -1.0 : 1.0) * base[perm[k]];
      }
    } else if (kind == FLOAT_ROUND) {  // on a circle/sphere, rounded
      const double c[3] = {uni(rng), uni(rng), uni(rng)};
      const double r = std::ldexp(1.5 + 0.5 * uni(rng), irand(8) - 4);
      for (int i = 0; i < n; ++i) {
        double u[3] = {gauss(rng), gauss(rng), dim == 3 ? gauss(rng) : 0.0};
        const double len = std::sqrt(u[0] * u[0] + u[1] * u[1] + u[2] * u[2]);
        for (int k = 0; k < dim; ++k) p[i][k] = c[k] + r * u[k] / len;
      }
    } else {  // LATTICE_ROUND: distinct lattice points of one sphere
      std::vector<int> idx;
      while (static_cast<int>(idx.size()) < n) {
        const int j = irand(static_cast<int>(sphere.size()));
        if (std::find(idx.begin(), idx.end(), j) == idx.end()) idx.push_back(j);
      }
      const int c[3] = {irand(201) - 100, irand(201) - 100, irand(201) - 100};
      for (int i = 0; i < n; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = c[k] + sphere[idx[i]][k];
    }
    if (kind == LATTICE_FLAT || kind == LATTICE_ROUND) {
      for (int i = 0; i < n; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = p[i][k] * scale + offset;
    }
    if (numUlps > 0) {  // a zero would become subnormal: pick a nonzero one
      double* pv;
      do pv = &p[irand(n)][irand(dim)];
      while (*pv == 0.0);
      double& v = *pv;
      const double dir = (rng() & 1) ? INFINITY : -INFINITY;
      for (int i = 1 + irand(numUlps); i > 0; --i) v = std::nextafter(v, dir);
    }
    if (kind != COINCIDENT) std::shuffle(p, p + n, rng);
  }

private:
  int irand(int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }
  double wide() { return std::ldexp(uni(rng), irand(61) - 30); }
  int dim;
  std::mt19937_64 rng;
  std::uniform_real_distribution<double> uni{-1.0, 1.0};
  std::normal_distribution<double> gauss;
  std::vector<std::array<int, 3>> sphere;
};

struct Regime {
  Kind kind;
  int count;
  double offset, scale;
  int numUlps;
};

// Random input for the filters; near-degenerate float and lattice input for
// the adaptive stages; exactly degenerate lattice input at large magnitude
// and at a small scale whose products stay normal; coincident points.
const std::vector<Regime> vRegimes3 = {
    {RANDOM, 300000, 0, 1, 0},           {FLOAT_FLAT, 150000, 0, 1, 0},
    {LATTICE_FLAT, 100000, 1e15, 1, 4},  {LATTICE_FLAT, 40000, 0, 0x1p-30, 4},
    {LATTICE_FLAT, 40000, 1e15, 1, 0},   {LATTICE_FLAT, 40000, 0, 0x1p-330, 0},
    {WIDE_FLAT, 20000, 0, 1, 0},         {WIDE_FLAT, 20000, 0, 1, 4},
    {COINCIDENT, 20000, 0, 1, 0}};
const std::vector<Regime> vRegimesSphere = {
    {RANDOM, 100000, 0, 1, 0},           {FLOAT_ROUND, 20000, 0, 1, 0},
    {LATTICE_ROUND, 60000, 1e15, 1, 4},  {LATTICE_ROUND, 30000, 0, 0x1p-20, 4},
    {LATTICE_ROUND, 20000, 1e15, 1, 0},  {LATTICE_ROUND, 20000, 0, 0x1p-180, 0},
    {WIDE_ROUND, 4000, 0, 1, 0},         {WIDE_ROUND, 4000, 0, 1, 4},
    {COINCIDENT, 10000, 0, 1, 0}};

Orientation3 expectedOrientation(int publishedSign) {
  return publishedSign < 0 ? ORIENTATION3_POSITIVE
                           : (publishedSign > 0 ? ORIENTATION3_NEGATIVE : ORI3_ZERO);
}

} // namespace

TEST(Orientation3, PositiveWhenDSeesAbcCounterclockwise) {
  ExactTest t;
  Point3 a(0, 0, 0), b(1, 0, 0), c(0, 1, 0), d(0, 0, 1), inPlane(0.3, 0.4, 0), dupA(a);
  EXPECT_EQ(t.getOrientation3(&a, &b, &c, &d), ORIENTATION3_POSITIVE);
  EXPECT_EQ(t.getOrientation3(&b, &a, &c, &d), ORIENTATION3_NEGATIVE);
  EXPECT_EQ(t.getOrientation3(&a, &b, &c, &inPlane), ORI3_ZERO);
  EXPECT_EQ(t.getOrientation3(&a, &b, &c, &dupA), ORI3_ZERO);
  double pa[3] = {0, 0, 0}, pb[3] = {1, 0, 0}, pc[3] = {0, 1, 0}, pd[3] = {0, 0, 1};
  EXPECT_LT(t.orient3d(pa, pb, pc, pd), 0.0);  // the published sign is the opposite
  EXPECT_LT(orient3dfast(pa, pb, pc, pd), 0.0);
  double pe[3] = {0.3, 0.4, 0.0};
  EXPECT_EQ(t.orient3d(pa, pb, pc, pe), 0.0);  // undecided by the filter, exact zero
}

TEST(Orientation3, EachFacetHasItsOppositeCornerOnThePositiveSide) {
  ExactTest t;
  BRIX_TOOLS::SimplePool<Tet3> pool;
  pool.init(4, 4);
  Point3 a(0, 0, 0), b(1, 0, 0), c(0, 1, 0), d(0, 0, 1), inside(0.1, 0.1, 0.1), below(0.1, 0.1, -1);
  Tet3* pTet = pool.nextObject();
  pTet->setProperties(&a, &b, &c, &d);
  for (int ith = 0; ith < 4; ++ith) {
    EXPECT_EQ(t.getOrientation3(pTet, ith, pTet->getCorner(ith)), ORIENTATION3_POSITIVE) << ith;
    EXPECT_EQ(t.getOrientation3(pTet, ith, &inside), ORIENTATION3_POSITIVE) << ith;
  }
  EXPECT_EQ(t.getOrientation3(pTet, 3, &below), ORIENTATION3_NEGATIVE);
  EXPECT_EQ(t.getOrientation3(pTet, 3, &a), ORI3_ZERO);
  EXPECT_EXIT(t.getOrientation3(pTet, 4, &a), ::testing::ExitedWithCode(1), "");
  EXPECT_DEATH(
      {
        dup2(2, 1);
        t.getOrientation3(static_cast<Tet3*>(nullptr), 0, &a);
      },
      "getOrientation3, pC==NULL");
}

TEST(Orientation3, OriStringsAndTheAssertionOutsideTheTable) {
  ExactTest t;
  EXPECT_EQ(t.getOriString(ORIENTATION3_POSITIVE), "ORI3_ORIENTATION3_POSITIVE");
  EXPECT_EQ(t.getOriString(ORIENTATION3_NEGATIVE), "ORI3_ORIENTATION3_NEGATIVE");
  EXPECT_EQ(t.getOriString(ORI3_ZERO), "ORI3_ZERO");
  testing::internal::CaptureStdout();
  EXPECT_THROW(t.getOriString(static_cast<Orientation3>(3)), VelmException);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("Condition [ false failed ]"), std::string::npos) << out;
  EXPECT_NE(out.find("dt3Library/BrixTest3.cpp:34"), std::string::npos) << out;
}

// A cube of side 2^50 at offset 2^51: corners a, b, c, d of a positive
// tetrahedron and the far corner lie on one sphere; a last-bit step of the
// far corner's z leaves the filter undecided.
class SphereTest : public ::testing::Test {
protected:
  void SetUp() override {
    pool.init(4, 4);
    pTet = pool.nextObject();
    pTet->setProperties(&a, &b, &c, &d);
  }
  static constexpr double O = 0x1p51, L = 0x1p51 + 0x1p50;
  ExactTest t;
  BRIX_TOOLS::SimplePool<Tet3> pool;
  Point3 a{O, O, O}, b{L, O, O}, c{O, L, O}, d{O, O, L};
  Point3 on{L, L, L}, in{L, L, std::nextafter(L, 0.0)}, out{L, L, std::nextafter(L, 2 * L)};
  Tet3* pTet = nullptr;
};

TEST_F(SphereTest, InsideOnlyWhenStrictlyInsideThePositiveTetsSphere) {
  ASSERT_EQ(t.getOrientation3(&a, &b, &c, &d), ORIENTATION3_POSITIVE);
  EXPECT_EQ(t.sphereInclusionTest(pTet, &in), SIC_INSIDE);
  EXPECT_EQ(t.sphereInclusionTest(pTet, &out), SIC_OUTSIDE);
  EXPECT_EQ(t.sphereInclusionTest(pTet, &on), SIC_OUTSIDE);  // cospherical: class 2
  Point3 centre(O + 0x1p49, O + 0x1p49, O + 0x1p49), far(-L, -L, -L);
  EXPECT_EQ(t.sphereInclusionTest(pTet, &centre), SIC_INSIDE);
  EXPECT_EQ(t.sphereInclusionTest(pTet, &far), SIC_OUTSIDE);
}

TEST_F(SphereTest, CornerOnlyByPointer) {
  Point3 copyOfA(a);
  EXPECT_EQ(t.sphereInclusionTest(pTet, &a), SIC_CORNER);
  EXPECT_EQ(t.sphereInclusionTest(pTet, &d), SIC_CORNER);
  EXPECT_EQ(t.sphereInclusionTest(pTet, &copyOfA), SIC_OUTSIDE);
}

// In the published order (b, a, c, d has a positive orient3d) the adaptive
// stages answer classes: 1 inside, 0 outside, 2 on the sphere.
TEST_F(SphereTest, AdaptiveStagesAnswerClassesNotSigns) {
  double pa[3], pb[3], pc[3], pd[3], pOn[3], pIn[3], pOut[3];
  a.xyz(pa[0], pa[1], pa[2]);
  b.xyz(pb[0], pb[1], pb[2]);
  c.xyz(pc[0], pc[1], pc[2]);
  d.xyz(pd[0], pd[1], pd[2]);
  on.xyz(pOn[0], pOn[1], pOn[2]);
  in.xyz(pIn[0], pIn[1], pIn[2]);
  out.xyz(pOut[0], pOut[1], pOut[2]);
  const double permanent = 1.0;  // any bound will do: these differences are exact
  EXPECT_EQ(t.insphereadapt(pb, pa, pc, pd, pIn, permanent), 1u);
  EXPECT_EQ(t.insphereadapt(pb, pa, pc, pd, pOut, permanent), 0u);
  EXPECT_EQ(t.insphereadapt(pb, pa, pc, pd, pOn, permanent), 2u);
  EXPECT_EQ(t.insphereexact(pb, pa, pc, pd, pIn), 1u);
  EXPECT_EQ(t.insphereexact(pb, pa, pc, pd, pOut), 0u);
  EXPECT_EQ(t.insphereexact(pb, pa, pc, pd, pOn), 2u);
  EXPECT_EQ(t.insphere(pb, pa, pc, pd, pIn), 1.0);
  EXPECT_EQ(t.insphere(pb, pa, pc, pd, pOut), 0.0);
  EXPECT_EQ(t.insphere(pb, pa, pc, pd, pOn), 2.0);
  double far[3] = {-O, -O, -O};
  EXPECT_LT(t.insphere(pb, pa, pc, pd, far), 0.0);  // the filter decides: a signed value
  EXPECT_LT(inspherefast(pb, pa, pc, pd, far), 0.0);
  EXPECT_EQ(inspherefast(pb, pa, pc, pd, pOn), 0.0);
}

TEST(PlanarPredicates, SignsInGeometricWords) {
  ExactTest t;
  double a[2] = {0, 0}, b[2] = {1, 0}, c[2] = {0, 1}, mid[2] = {0.5, 0.5}, on[2] = {1, 1};
  double far[2] = {5, 5};
  EXPECT_GT(t.orient2d(a, b, c), 0.0);  // counterclockwise
  EXPECT_LT(t.orient2d(b, a, c), 0.0);
  EXPECT_EQ(t.orient2d(b, c, mid), 0.0);
  EXPECT_GT(orient2dfast(a, b, c), 0.0);
  EXPECT_GT(t.incircle(a, b, c, mid), 0.0);  // inside the ccw circle
  EXPECT_LT(t.incircle(a, b, c, far), 0.0);
  EXPECT_LT(t.incircle(b, a, c, mid), 0.0);  // clockwise order flips the sign
  EXPECT_EQ(t.incircle(a, b, c, on), 0.0);
  EXPECT_GT(incirclefast(a, b, c, mid), 0.0);
}

TEST(Differential, OrientationAgreesWithExactDeterminants) {
  ExactTest t;
  Cases cases(3);
  Pts p;
  for (const Regime& r : vRegimes3) {
    int numWrong = 0;
    for (int i = 0; i < r.count; ++i) {
      cases.make(r.kind, p, 4, r.offset, r.scale, r.numUlps);
      Point3 q[4] = {{p[0][0], p[0][1], p[0][2]}, {p[1][0], p[1][1], p[1][2]},
                     {p[2][0], p[2][1], p[2][2]}, {p[3][0], p[3][1], p[3][2]}};
      if (t.getOrientation3(&q[0], &q[1], &q[2], &q[3]) != expectedOrientation(orient3dSign(p)))
        ++numWrong;
    }
    EXPECT_EQ(numWrong, 0) << "kind " << r.kind << " offset " << r.offset << " scale " << r.scale;
  }
}

TEST(Differential, SphereInclusionAgreesWithExactDeterminants) {
  ExactTest t;
  Cases cases(3);
  BRIX_TOOLS::SimplePool<Tet3> pool;
  pool.init(4, 4);
  Tet3* pTet = pool.nextObject();
  Pts p;
  for (const Regime& r : vRegimesSphere) {
    int numWrong = 0, numTested = 0;
    for (int i = 0; i < r.count; ++i) {
      cases.make(r.kind, p, 5, r.offset, r.scale, r.numUlps);
      const int ori = orient3dSign(p);
      if (ori == 0) continue;
      if (ori > 0) std::swap(p[0], p[1]);  // corners in positive order
      Point3 q[5];
      for (int k = 0; k < 5; ++k) q[k] = Point3(p[k][0], p[k][1], p[k][2]);
      pTet->setProperties(&q[0], &q[1], &q[2], &q[3]);
      const SphereInclusion want = insphereSign(p) < 0 ? SIC_INSIDE : SIC_OUTSIDE;
      if (t.sphereInclusionTest(pTet, &q[4]) != want) ++numWrong;
      ++numTested;
    }
    EXPECT_EQ(numWrong, 0) << "kind " << r.kind << " offset " << r.offset << " scale " << r.scale;
    EXPECT_GT(numTested, r.count / 2);
  }
}

TEST(Differential, PlanarPredicatesAgreeWithExactDeterminants) {
  ExactTest t;
  Cases cases(2);
  Pts p;
  for (const Regime& r : vRegimes3) {
    int numWrong = 0;
    for (int i = 0; i < r.count / 4; ++i) {
      cases.make(r.kind, p, 3, r.offset, r.scale, r.numUlps);
      if (signOf(t.orient2d(p[0], p[1], p[2])) != orient2dSign(p)) ++numWrong;
    }
    EXPECT_EQ(numWrong, 0) << "orient2d kind " << r.kind << " offset " << r.offset;
  }
  for (const Regime& r : vRegimesSphere) {
    int numWrong = 0;
    for (int i = 0; i < r.count / 2; ++i) {
      cases.make(r.kind, p, 4, r.offset, r.scale, r.numUlps);
      if (signOf(t.incircle(p[0], p[1], p[2], p[3])) != incircleSign(p)) ++numWrong;
    }
    EXPECT_EQ(numWrong, 0) << "incircle kind " << r.kind << " offset " << r.offset;
  }
}

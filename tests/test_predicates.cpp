// Tests of the predicates: their sign conventions, the departures of the
// sphere test from the published routine, and differential runs against
// exact GMP integer determinants on random, near-degenerate and exactly
// degenerate input, which must agree in every case.
#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <cmath>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "BrixTest3Inline.h"
#include "test_support.h"

using namespace VELM3D;

namespace {

// Exact integer images of n finite doubles: all of them times one power of
// two, 2^-emin (emin is returned), which keeps the sign of every homogeneous
// determinant of them. Each is its 53-bit mantissa shifted in GMP, so any
// mix of magnitudes fits.
int toIntegers(const double* v, int n, mpz_class* z) {
  int emin = INT_MAX;
  for (int i = 0; i < n; ++i)
    if (v[i] != 0.0) emin = std::min(emin, std::ilogb(v[i]) - 52);
  for (int i = 0; i < n; ++i) {
    int e;
    z[i] = mpz_class(std::ldexp(std::frexp(v[i], &e), 53));
    if (v[i] != 0.0) mpz_mul_2exp(z[i].get_mpz_t(), z[i].get_mpz_t(), e - 53 - emin);
  }
  return emin;
}

using Pts = double[5][3];

// The determinant of the rows p[i] - p[n-1], i < n-1, of dim coordinates,
// each row extended by its squared length when bLift, on the integer images:
// the published orient2d, orient3d, incircle and insphere determinant for
// (n, dim, bLift) = (3,2,0), (4,3,0), (4,2,1), (5,3,1) times 2^(-emin
// degree). Bareiss elimination.
mpz_class scaledDet(const Pts p, int n, int dim, bool bLift, int* pEmin = nullptr) {
  mpz_class z[15], m[4][4], prev = 1;
  const int emin = toIntegers(&p[0][0], 15, z);
  if (pEmin != nullptr) *pEmin = emin;
  const int size = n - 1;
  for (int i = 0; i < size; ++i) {
    m[i][dim] = 0;
    for (int k = 0; k < dim; ++k) {
      m[i][k] = z[3 * i + k] - z[3 * (n - 1) + k];
      if (bLift) m[i][dim] += m[i][k] * m[i][k];
    }
  }
  int sign = 1;
  for (int k = 0; k + 1 < size; ++k) {
    int piv = k;
    while (piv < size && m[piv][k] == 0) ++piv;
    if (piv == size) return 0;
    if (piv != k) {
      std::swap(m[piv], m[k]);
      sign = -sign;
    }
    for (int i = k + 1; i < size; ++i)
      for (int j = k + 1; j < size; ++j) m[i][j] = (m[i][j] * m[k][k] - m[i][k] * m[k][j]) / prev;
    prev = m[k][k];
  }
  return sign * m[size - 1][size - 1];
}

int exactSign(const Pts p, int n, int dim, bool bLift) { return sgn(scaledDet(p, n, dim, bLift)); }

// The determinant itself, as a rational; its degree is n - 1, plus 1 for the lift.
mpq_class exactDet(const Pts p, int n, int dim, bool bLift) {
  int emin = 0;
  mpq_class det(scaledDet(p, n, dim, bLift, &emin));
  if (det == 0) return det;
  const long shift = static_cast<long>(emin) * (n - 1 + bLift);
  if (shift >= 0) mpq_mul_2exp(det.get_mpq_t(), det.get_mpq_t(), shift);
  else mpq_div_2exp(det.get_mpq_t(), det.get_mpq_t(), -shift);
  return det;
}

// The sign of a predicate's value; NaN is no sign at all.
int signOf(double v) { return v > 0.0 ? 1 : (v < 0.0 ? -1 : (v == 0.0 ? 0 : 2)); }

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
enum Kind {
  RANDOM, FLOAT_FLAT, LATTICE_FLAT, WIDE_FLAT, LATTICE_ROUND, WIDE_ROUND, FLOAT_ROUND, COINCIDENT,
  STEEP_FLAT, EXTREME
};

class Cases {
public:
  explicit Cases(int dim) : dim(dim), rng(12345), sphere(latticeSphere(dim == 3 ? 4225 : 5525, dim)) {}

  // Binary exponents of the WIDE kinds' magnitudes, lowest and highest.
  void setWideExponents(int low, int high) {
    wideLow = low;
    wideHigh = high;
  }

  // offset: added to all coordinates; scale: a power of two multiplying the
  // lattice; numUlps: largest perturbation of one coordinate (0: none), a
  // zero one too when bNudgeZeros (it becomes subnormal).
  void make(Kind kind, Pts p, int n, double offset = 0.0, double scale = 1.0, int numUlps = 0,
            bool bNudgeZeros = false) {
    std::fill(&p[0][0], &p[0][0] + 15, 0.0);
    if (kind == RANDOM || kind == COINCIDENT) {
      for (int i = 0; i < n; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = uni(rng);
      const int j = irand(n - 1);
      if (kind == COINCIDENT) std::copy(p[j], p[j] + 3, p[n - 1]);
    } else if (kind == FLOAT_FLAT || kind == LATTICE_FLAT) {  // last point on the line/plane
      const bool bLattice = kind == LATTICE_FLAT;  // exactly; otherwise rounded
      auto factor = [&] { return bLattice ? irand(7) - 3.0 : 2.0 * uni(rng); };
      const double s = factor(), t = dim == 3 ? factor() : 0.0;
      for (int i = 0; i < n - 1; ++i)
        for (int k = 0; k < dim; ++k)
          p[i][k] = bLattice ? irand(101) - 50 : std::ldexp(uni(rng), irand(40) - 20);
      for (int k = 0; k < dim; ++k)
        p[n - 1][k] = p[0][k] + s * (p[1][k] - p[0][k]) + t * (p[2][k] - p[0][k]);
    } else if (kind == WIDE_FLAT) {  // on the plane x = +-y (line y = +-x): wide magnitudes
      const double sign = (rng() & 1) ? 1.0 : -1.0;
      for (int i = 0; i < n; ++i) {
        p[i][0] = wide();
        p[i][1] = sign * p[i][0];
        if (dim == 3) p[i][2] = wide();
      }
    } else if (kind == EXTREME) {  // 0, +-DBL_MAX and its halves and quarters: differences overflow
      const double big = std::numeric_limits<double>::max();
      const double values[7] = {-big, -big / 2, -big / 4, 0.0, big / 4, big / 2, big};
      for (int i = 0; i < n; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = values[irand(7)];
    } else if (kind == STEEP_FLAT) {  // on z = 2^800 (x + 3y): x y products subnormal, z huge
      for (int i = 0; i < n; ++i) {
        const int u = irand(127) - 63, v = irand(127) - 63;
        p[i][0] = std::ldexp(u, -540);
        p[i][1] = std::ldexp(v, -540);
        if (dim == 3) p[i][2] = std::ldexp(u + 3 * v, 260);
      }
    } else if (kind == WIDE_ROUND) {  // signed permutations of one point: wide magnitudes
      const double base[3] = {wide(), wide(), wide()};
      std::vector<int> vCodes(dim == 3 ? 48 : 8);  // sign bits, then permutation number
      std::iota(vCodes.begin(), vCodes.end(), 0);
      std::shuffle(vCodes.begin(), vCodes.end(), rng);
      for (int i = 0; i < n; ++i) {
        const int code = vCodes[i];
        int perm[3] = {0, 1, 2};
        for (int r = code >> dim; r > 0; --r) std::next_permutation(perm, perm + dim);
        for (int k = 0; k < dim; ++k) p[i][k] = ((code >> k) & 1 ? -1.0 : 1.0) * base[perm[k]];
      }
    } else if (kind == FLOAT_ROUND) {  // one sphere, rounded: differences carry tails
      const double radius = std::ldexp(1.0 + uni(rng), irand(21) - 10);
      const double c[3] = {offset * uni(rng), offset * uni(rng), offset * uni(rng)};
      for (int i = 0; i < n; ++i) {
        double v[3], len = 0.0;
        for (int k = 0; k < dim; ++k) {
          v[k] = uni(rng);
          len += v[k] * v[k];
        }
        for (int k = 0; k < dim; ++k) p[i][k] = c[k] + radius * v[k] / std::sqrt(len);
      }
    } else {  // LATTICE_ROUND: distinct lattice points of one sphere
      std::array<int, 3> v[5];
      std::sample(sphere.begin(), sphere.end(), v, n, rng);
      const int c[3] = {irand(201) - 100, irand(201) - 100, irand(201) - 100};
      for (int i = 0; i < n; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = c[k] + v[i][k];
    }
    if (kind == LATTICE_FLAT || kind == LATTICE_ROUND) {
      for (int i = 0; i < n; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = p[i][k] * scale + offset;
    }
    if (numUlps > 0) {  // a zero becomes subnormal: only when asked for
      double* pv;
      do pv = &p[irand(n)][irand(dim)];
      while (*pv == 0.0 && !bNudgeZeros);
      double& v = *pv;
      double dir = (rng() & 1) ? INFINITY : -INFINITY;  // at random, but never past the largest double
      if (std::fabs(v) == std::numeric_limits<double>::max()) dir = -v;
      for (int i = 1 + irand(numUlps); i > 0; --i) v = std::nextafter(v, dir);
    }
    if (kind != COINCIDENT) std::shuffle(p, p + n, rng);
  }

private:
  int irand(int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }
  double wide() { return std::ldexp(uni(rng), wideLow + irand(wideHigh - wideLow + 1)); }
  int dim, wideLow = -30, wideHigh = 30;
  std::mt19937_64 rng;
  std::uniform_real_distribution<double> uni{-1.0, 1.0};
  std::vector<std::array<int, 3>> sphere;
};

struct Regime {
  Kind kind;
  int count;
  double offset, scale;
  int numUlps;
  bool bNudgeZeros = false;
};

// Random input for the filters; near-degenerate float and lattice input for
// the adaptive stages; exactly degenerate lattice input at large magnitude
// and at a small scale whose products stay normal; points rounded onto a
// sphere (centre within `offset` of the origin), whose differences carry
// tails; coincident points.
const std::vector<Regime> vRegimes3 = {
    {RANDOM, 300000, 0, 1, 0},           {FLOAT_FLAT, 150000, 0, 1, 0},
    {LATTICE_FLAT, 100000, 1e15, 1, 4},  {LATTICE_FLAT, 40000, 0, 0x1p-30, 4},
    {LATTICE_FLAT, 40000, 1e15, 1, 0},   {LATTICE_FLAT, 40000, 0, 0x1p-330, 0},
    {WIDE_FLAT, 20000, 0, 1, 0},         {WIDE_FLAT, 20000, 0, 1, 4},
    {COINCIDENT, 20000, 0, 1, 0}};
const std::vector<Regime> vRegimesSphere = {
    {RANDOM, 100000, 0, 1, 0},
    {LATTICE_ROUND, 60000, 1e15, 1, 4},  {LATTICE_ROUND, 30000, 0, 0x1p-20, 4},
    {LATTICE_ROUND, 20000, 1e15, 1, 0},  {LATTICE_ROUND, 20000, 0, 0x1p-180, 0},
    {WIDE_ROUND, 4000, 0, 1, 0},         {WIDE_ROUND, 4000, 0, 1, 4},
    {FLOAT_ROUND, 60000, 0, 1, 0},       {FLOAT_ROUND, 60000, 3, 1, 2},
    {COINCIDENT, 10000, 0, 1, 0}};

// The orientation that a published orient3d sign stands for.
const Orientation3 oriOfSign[3] = {ORIENTATION3_POSITIVE, ORI3_ZERO, ORIENTATION3_NEGATIVE};

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
  EXPECT_FATAL(t.getOrientation3(pTet, 4, &a), "");
  // The report comes first; the null record is read afterwards (stdout to stderr for the regex).
  EXPECT_DEATH({ dup2(2, 1); t.getOrientation3(static_cast<Tet3*>(nullptr), 0, &a); },
               "getOrientation3, pC==NULL");
}

TEST(Orientation3, OriStringsAndTheAssertionOutsideTheTable) {
  ExactTest t;
  EXPECT_EQ(t.getOriString(ORIENTATION3_POSITIVE), "ORI3_ORIENTATION3_POSITIVE");
  EXPECT_EQ(t.getOriString(ORIENTATION3_NEGATIVE), "ORI3_ORIENTATION3_NEGATIVE");
  EXPECT_EQ(t.getOriString(ORI3_ZERO), "ORI3_ZERO");
  EXPECT_TRUE(support::failsAssertion([&] { t.getOriString(static_cast<Orientation3>(3)); }, "false"));
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
  double pa[3] = {O, O, O}, pb[3] = {L, O, O}, pc[3] = {O, L, O}, pd[3] = {O, O, L};
  double pOn[3] = {L, L, L}, pIn[3] = {L, L, in.z()}, pOut[3] = {L, L, out.z()};
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

// An isosceles trapezoid is cocircular. Of the differences to d = (q, 1) of
// (-q, 1), (p, 0) and (-p, 0), p = 3 * 2^52 and q = 2^52 + 1, only -p - q
// is inexact, so the last stage works with the tails of one point, which
// goes first, second and third in turn; d also moves by an ulp.
TEST(PlanarPredicates, CocircularWithTheTailsOfOnePoint) {
  const ExactTest t;
  const double p = 0x3p52, q = 0x1p52 + 1;
  double exact1[2] = {-q, 1}, exact2[2] = {p, 0}, tailed[2] = {-p, 0};
  double* order[3][3] = {{tailed, exact1, exact2}, {exact1, tailed, exact2}, {exact1, exact2, tailed}};
  for (auto& o : order)
    for (double dy : {1.0, std::nextafter(1.0, 2.0), std::nextafter(1.0, 0.0)}) {
      double d[2] = {q, dy};
      Pts pts = {{o[0][0], o[0][1], 0}, {o[1][0], o[1][1], 0}, {o[2][0], o[2][1], 0}, {q, dy, 0}, {0, 0, 0}};
      EXPECT_EQ(signOf(t.incircle(o[0], o[1], o[2], d)), exactSign(pts, 4, 2, true)) << dy;
    }
}

// The plain determinants (the filters' first evaluation) are exact on small
// integers: each must then be the published determinant to the last bit.
TEST(PlainDeterminants, EqualTheExactValueOnSmallIntegers) {
  std::mt19937_64 rng(21);
  for (int n = 0; n < 5000; ++n) {
    Pts p;
    for (auto& q : p)
      for (double& c : q) c = static_cast<double>(static_cast<int>(rng() % 129) - 64);
    ASSERT_EQ(mpq_class(orient2dfast(p[0], p[1], p[2])), exactDet(p, 3, 2, false)) << n;
    ASSERT_EQ(mpq_class(incirclefast(p[0], p[1], p[2], p[3])), exactDet(p, 4, 2, true)) << n;
    ASSERT_EQ(mpq_class(orient3dfast(p[0], p[1], p[2], p[3])), exactDet(p, 4, 3, false)) << n;
    ASSERT_EQ(mpq_class(inspherefast(p[0], p[1], p[2], p[3], p[4])), exactDet(p, 5, 3, true)) << n;
  }
}

// With e at the coordinates of a (a copy, not the corner) the determinant is
// exactly 0, so the class is 2, though the differences are not exact and the
// first stage's bound is 0 (a zero permanent). The corner itself, by pointer,
// is SIC_CORNER; its copy is on the sphere, which the mesh counts as outside.
TEST(SphereClasses, ACopyOfACornerIsOnTheSphere) {
  const ExactTest t;
  double a[3] = {0.1, 0.2, 0.3}, b[3] = {1.3, 0.7, 0.11}, c[3] = {0.77, 1.9, 0.5}, d[3] = {0.3, 0.41, 1.7};
  for (const double* corner : {a, b, c, d}) {
    double copy[3] = {corner[0], corner[1], corner[2]};
    EXPECT_EQ(t.insphereexact(a, b, c, d, copy), 2u);
    EXPECT_EQ(t.insphereadapt(a, b, c, d, copy, 0.0), 2u);
    EXPECT_EQ(t.insphere(a, b, c, d, copy), 2.0);
  }
}

namespace {

enum Predicate { ORIENT3, SPHERE, ORIENT2, INCIRCLE };

struct Verdict {
  int numWrong = 0, numTested = 0;
};

// Runs `count` cases of a regime through one predicate against the exact sign.
// The sphere test is asked only of cases whose first four points are not
// coplanar, put into positive order.
Verdict run(Predicate what, Cases& cases, const Regime& r, int count) {
  static const ExactTest t;
  BRIX_TOOLS::SimplePool<Tet3> pool;
  pool.init(4, 4);
  Tet3* pTet = pool.nextObject();
  const int n = what == ORIENT2 ? 3 : (what == SPHERE ? 5 : 4);
  Verdict v;
  Pts p;
  for (int i = 0; i < count; ++i) {
    cases.make(r.kind, p, n, r.offset, r.scale, r.numUlps, r.bNudgeZeros);
    double* g[5]; // the same points, each ending where an unreadable page begins
    for (int k = 0; k < n; ++k) g[k] = support::guardedCopy(k, p[k], what == ORIENT2 || what == INCIRCLE ? 2 : 3);
    bool bRight = true;
    if (what == ORIENT3) {
      Point3 q[4] = {{p[0][0], p[0][1], p[0][2]}, {p[1][0], p[1][1], p[1][2]},
                     {p[2][0], p[2][1], p[2][2]}, {p[3][0], p[3][1], p[3][2]}};
      const int exact = exactSign(p, 4, 3, false);
      bRight = t.getOrientation3(&q[0], &q[1], &q[2], &q[3]) == oriOfSign[1 + exact] &&
               signOf(t.orient3d(g[0], g[1], g[2], g[3])) == exact;
    } else if (what == SPHERE) {
      const int ori = exactSign(p, 4, 3, false);
      if (ori == 0) continue;
      if (ori > 0) std::swap(p[0], p[1]), std::swap(g[0], g[1]);  // corners in positive order
      Point3 q[5];
      for (int k = 0; k < 5; ++k) q[k] = Point3(p[k][0], p[k][1], p[k][2]);
      pTet->setProperties(&q[0], &q[1], &q[2], &q[3]);
      const int lifted = exactSign(p, 5, 3, true);
      bRight = t.sphereInclusionTest(pTet, &q[4]) == (lifted < 0 ? SIC_INSIDE : SIC_OUTSIDE);
      if (i % 16 == 0)  // the exact stage alone, in the published order (class 1: inside)
        bRight &= t.insphereexact(g[1], g[0], g[2], g[3], g[4]) == (lifted == 0 ? 2u : (lifted < 0 ? 1u : 0u));
    } else if (what == ORIENT2) {
      bRight = signOf(t.orient2d(g[0], g[1], g[2])) == exactSign(p, 3, 2, false);
    } else {
      bRight = signOf(t.incircle(g[0], g[1], g[2], g[3])) == exactSign(p, 4, 2, true);
    }
    v.numWrong += !bRight;
    ++v.numTested;
  }
  return v;
}

std::string describe(const Regime& r) {
  return "kind " + std::to_string(r.kind) + " offset " + std::to_string(r.offset) + " scale 2^" +
         std::to_string(std::ilogb(r.scale)) + " ulps " + std::to_string(r.numUlps);
}

// Every regime through the predicates of one dimension: orientation and
// sphere in space, or orient2d and incircle in the plane (count / divisor).
void expectAgreement(const std::vector<Regime>& vFlat, const std::vector<Regime>& vRound, int dim,
                     int divisor = 1, int wideLow = -30, int wideHigh = 30) {
  Cases cases(dim);
  cases.setWideExponents(wideLow, wideHigh);
  const Predicate flat = dim == 3 ? ORIENT3 : ORIENT2, round = dim == 3 ? SPHERE : INCIRCLE;
  for (const Regime& r : vFlat)
    EXPECT_EQ(run(flat, cases, r, r.count / divisor).numWrong, 0) << "flat, dim " << dim << ", " << describe(r);
  for (const Regime& r : vRound) {
    const Verdict v = run(round, cases, r, r.count / divisor);
    EXPECT_EQ(v.numWrong, 0) << "round, dim " << dim << ", " << describe(r);
    EXPECT_GT(v.numTested, r.count / divisor / 2) << describe(r);
  }
}

} // namespace

TEST(Differential, SpacePredicatesAgreeWithExactDeterminants) {
  expectAgreement(vRegimes3, vRegimesSphere, 3);
}

TEST(Differential, PlanarPredicatesAgreeWithExactDeterminants) {
  expectAgreement(vRegimes3, vRegimesSphere, 2, 3);
}

// The published stages hold only while no product leaves the normal range.
// Lattices scaled by every 26th power of two from 2^-1074 (subnormal) to
// 2^1012 (differences overflow), exact and nudged by a few units in the last
// place: flat ones through the orientation tests, round ones through the
// sphere and circle tests.
TEST(AnyFiniteDouble, LatticesScaledAcrossTheWholeExponentRange) {
  std::vector<Regime> vFlat, vRound;
  for (int e = -1074; e <= 1012; e += 26) {
    const double scale = std::ldexp(1.0, e);
    vFlat.push_back({LATTICE_FLAT, 400, 0.0, scale, (e / 26) % 2 == 0 ? 0 : 4});
    vRound.push_back({LATTICE_ROUND, 300, 0.0, scale, (e / 26) % 2 == 0 ? 0 : 4});
  }
  expectAgreement(vFlat, vRound, 3);
  expectAgreement(vFlat, vRound, 2, 2);
}

// Subnormal-only lattices, and zeros moved a few units in the last place
// (subnormal coordinates beside ordinary ones).
TEST(AnyFiniteDouble, SubnormalLatticesAndNudgedZeros) {
  const std::vector<Regime> vFlat = {{LATTICE_FLAT, 20000, 0.0, 0x1p-1074, 4, true},
                                     {LATTICE_FLAT, 20000, 0.0, 0x1p-1064, 0},
                                     {LATTICE_FLAT, 20000, 0.0, 1.0, 3, true},
                                     {WIDE_FLAT, 20000, 0.0, 1.0, 3, true}};
  const std::vector<Regime> vRound = {{LATTICE_ROUND, 20000, 0.0, 0x1p-1074, 4, true},
                                      {LATTICE_ROUND, 20000, 0.0, 0x1p-1066, 0},
                                      {LATTICE_ROUND, 20000, 0.0, 1.0, 3, true},
                                      {WIDE_ROUND, 4000, 0.0, 1.0, 3, true}};
  expectAgreement(vFlat, vRound, 3);
  expectAgreement(vFlat, vRound, 2, 2);
}

// Magnitudes from 2^-1074 to 2^1000 within one test: exactly flat and exactly
// round sets, points whose differences overflow, and points on a steep plane whose x y products fall below the
// normal range while z is huge (a filter that trusted its bound there would
// call them off the plane).
TEST(AnyFiniteDouble, MagnitudesMixedWithinOneTest) {
  const std::vector<Regime> vFlat = {{WIDE_FLAT, 20000, 0.0, 1.0, 0},
                                     {WIDE_FLAT, 20000, 0.0, 1.0, 4},
                                     {STEEP_FLAT, 20000, 0.0, 1.0, 0},
                                     {STEEP_FLAT, 20000, 0.0, 1.0, 2},
                                     {EXTREME, 20000, 0.0, 1.0, 0},
                                     {EXTREME, 20000, 0.0, 1.0, 3}};
  const std::vector<Regime> vRound = {{WIDE_ROUND, 3000, 0.0, 1.0, 0}, {WIDE_ROUND, 3000, 0.0, 1.0, 4},
                                      {EXTREME, 3000, 0.0, 1.0, 0}, {EXTREME, 3000, 0.0, 1.0, 3}};
  expectAgreement(vFlat, vRound, 3, 1, -1074, 1000);
  expectAgreement(vFlat, vRound, 2, 2, -1074, 1000);
}

#if defined(__SSE2__)
// The paired form of the sphere filter must give the very bits of the scalar
// form: its error bound is the published one only for that evaluation.
TEST(SphereFilter, PairedFormGivesTheScalarBits) {
  std::mt19937_64 rng(11);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::uniform_int_distribution<int> e(-60, 60);
  for (int n = 0; n < 200000; ++n) {
    double p[5][3];
    const int scale = e(rng);
    for (auto& q : p)
      for (double& c : q) c = std::ldexp(u(rng), scale + (n % 7 == 0 ? e(rng) / 4 : 0));
    double det1, perm1, floor1, det2, perm2, floor2;
    kernels::insphereFilter(p[0], p[1], p[2], p[3], p[4], det1, perm1, floor1);
    kernels::insphereFilterSse2(p[0], p[1], p[2], p[3], p[4], det2, perm2, floor2);
    ASSERT_EQ(std::memcmp(&det1, &det2, sizeof det1), 0) << n;
    ASSERT_EQ(std::memcmp(&perm1, &perm2, sizeof perm1), 0) << n;
    ASSERT_EQ(std::memcmp(&floor1, &floor2, sizeof floor1), 0) << n;
  }
}
#endif

// Huge and tiny coordinates in one test: the plane through a, b, c rises by
// 27 * 2^-176 over 2^1000, and d lies 2^-177 below it. Scaled to the
// filter's working range, c's and d's tiny z round to 3 and 2 units of
// 2^-1074, which would put d above the plane: the filter on rounded
// coordinates must leave such a case to exact arithmetic.
TEST(AnyFiniteDouble, TinyCoordinatesThatRoundingWouldFlip) {
  const ExactTest t;
  Point3 a(0, 0, 0), b(0x1p1000, 0, 0), c(0, 0x1p1000, std::ldexp(27, -176));
  Point3 d(0x1p999, 0x1p999, std::ldexp(13, -176)), onPlane(0x1p999, 0x1p999, std::ldexp(27, -177));
  EXPECT_EQ(t.getOrientation3(&a, &b, &c, &d), ORIENTATION3_NEGATIVE);
  EXPECT_EQ(t.getOrientation3(&b, &a, &c, &d), ORIENTATION3_POSITIVE);
  EXPECT_EQ(t.getOrientation3(&a, &b, &c, &onPlane), ORI3_ZERO);
}

// The forms without the underflow floor, which the insertion uses while all
// coordinates are 0 or in [2^-150, 2^199): their range, and exact answers on
// near-degenerate lattices at both of its ends.
TEST(AnyFiniteDouble, FloorFreeFormsHoldOverTheirWholeRange) {
  auto in = [](double c) { return kernels::inFloorFreeRange(Point3(1.0, c, -1.0)); };
  EXPECT_TRUE(in(0.0) && in(-0.0) && in(0x1p-150) && in(-0x1p-150) && in(std::nextafter(0x1p199, 0.0)));
  EXPECT_FALSE(in(std::nextafter(0x1p-150, 0.0)) || in(0x1p199) || in(-0x1p199) || in(0x1p-1074));
  const ExactTest t;
  BRIX_TOOLS::SimplePool<Tet3> pool;
  pool.init(4, 4);
  Tet3* pTet = pool.nextObject();
  Cases flat(3), round(3);
  int numWrong = 0, numTested = 0;
  for (const double scale : {0x1p-150, 0x1p188})
    for (int i = 0; i < 40000; ++i) {
      Pts p;
      (i % 2 ? round : flat).make(i % 2 ? LATTICE_ROUND : LATTICE_FLAT, p, 5, 0.0, scale, i % 4 < 2 ? 0 : 3);
      if (exactSign(p, 4, 3, false) == 0) continue;
      if (exactSign(p, 4, 3, false) > 0) std::swap(p[0], p[1]);
      Point3 q[5];
      for (int k = 0; k < 5; ++k) q[k] = Point3(p[k][0], p[k][1], p[k][2]);
      pTet->setProperties(&q[0], &q[1], &q[2], &q[3]);
      const int lifted = exactSign(p, 5, 3, true);
      numWrong += sphereInclusionOf<true>(t, pTet, &q[4]) != (lifted < 0 ? SIC_INSIDE : SIC_OUTSIDE);
      for (int ith = 0; ith < 4; ++ith) {
        Pts f;  // the facet's corners in the order getOrientation3 takes them, then the query
        const int order[4][3] = {{1, 3, 2}, {0, 2, 3}, {0, 3, 1}, {0, 1, 2}};
        for (int k = 0; k < 3; ++k) std::copy(p[order[ith][k]], p[order[ith][k]] + 3, f[k]);
        std::copy(p[4], p[4] + 3, f[3]);
        numWrong += orientationOfFacet<true>(t, pTet, ith, &q[4]) != oriOfSign[1 + exactSign(f, 4, 3, false)];
      }
      ++numTested;
    }
  EXPECT_EQ(numWrong, 0);
  EXPECT_GT(numTested, 40000);
}

// Tests of the predicates: their sign conventions, the departures of the
// sphere test from the published routine, and differential runs against
// exact GMP integer determinants on random, near-degenerate and exactly
// degenerate input of every magnitude, which must agree in every case.
#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <utility>
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
// degree).
mpz_class scaledDet(const Pts p, int n, int dim, bool bLift, int* pEmin = nullptr) {
  mpz_class z[15], w[4];
  exact::Row<mpz_class> r[4];
  const int emin = toIntegers(&p[0][0], 15, z);
  if (pEmin != nullptr) *pEmin = emin;
  for (int i = 0; i + 1 < n; ++i) {
    for (int k = 0; k < dim; ++k) r[i][k] = z[3 * i + k] - z[3 * (n - 1) + k];
    w[i] = r[i][0] * r[i][0] + r[i][1] * r[i][1] + r[i][2] * r[i][2];
    if (dim == 2) r[i][2] = w[i];  // incircle: the lift is the third column
  }
  if (n == 3) return r[0][0] * r[1][1] - r[0][1] * r[1][0];
  return bLift && dim == 3 ? exact::liftedRows(r, w) : exact::det3(r[0], r[1], r[2]);
}

int exactSign(const Pts p, int n, int dim, bool bLift) { return sgn(scaledDet(p, n, dim, bLift)); }

// The determinant itself, as a rational; its degree is n - 1, plus 1 for the lift.
mpq_class exactDet(const Pts p, int n, int dim, bool bLift) {
  int emin = 0;
  mpq_class det(scaledDet(p, n, dim, bLift, &emin));
  const long shift = static_cast<long>(emin) * (n - 1 + bLift);
  if (shift >= 0) mpq_mul_2exp(det.get_mpq_t(), det.get_mpq_t(), shift);
  else mpq_div_2exp(det.get_mpq_t(), det.get_mpq_t(), -shift);
  return det;
}

// The sign of a predicate's value; NaN is no sign at all.
int signOf(double v) { return v > 0.0 ? 1 : (v < 0.0 ? -1 : (v == 0.0 ? 0 : 2)); }

// The same bits, or both not-a-number (whose sign and payload are free).
bool sameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b)); }

// Kinds of case of n points; `dim` 2 leaves z at 0. The derived point of a
// kind (on the line, plane, circle or sphere, or a copy) is made last; all
// but a copy are then shuffled. RANDOM: uniform in [-1, 1]. FLAT: on the
// line or plane of the first points, FLOAT rounded, LATTICE exactly
// (integers times `scale` plus `offset`), WIDE on x = +-y or on
// z = x + 3y (x and y of 49 bits) with magnitudes spread over the wide
// exponents, so that differences carry tails in every coordinate and no
// symmetry cancels their products; STEEP on z = 2^800 (x + 3y), where x y
// products are subnormal and z huge. EXTREME: 0, +-DBL_MAX, its halves and
// quarters (differences overflow). ROUND: on one sphere or circle, LATTICE
// distinct lattice points, WIDE signed permutations of one point, FLOAT
// rounded onto it (radius `scale` times 2^-10 to 2^10, centre within
// `offset` of 0; differences carry tails).
// COINCIDENT: the last point a copy of another.
enum Kind { RANDOM, FLOAT_FLAT, LATTICE_FLAT, WIDE_FLAT, STEEP_FLAT, EXTREME, LATTICE_ROUND, WIDE_ROUND,
            FLOAT_ROUND, COINCIDENT };

struct Regime {
  Kind kind;
  int count;
  double offset = 0, scale = 1;
  int numUlps = 0;           // largest nudge of one coordinate (0: none)
  bool bNudgeZeros = false;  // a zero may be nudged too (it becomes subnormal)
};

class Cases {
public:
  Cases(int dim, int wideLow = -30, int wideHigh = 30) : dim(dim), wideLow(wideLow), wideHigh(wideHigh) {
    const int r2 = dim == 3 ? 4225 : 5525;  // integer vectors of this squared length
    for (int x = -75; x <= 75; ++x)
      for (int y = -75; y <= 75; ++y)
        for (int z = (dim == 3 ? -75 : 0); z <= (dim == 3 ? 75 : 0); ++z)
          if (x * x + y * y + z * z == r2) sphere.push_back({x, y, z});
  }

  void make(const Regime& r, Pts p, int n) {
    std::fill(&p[0][0], &p[0][0] + 15, 0.0);
    const Kind kind = r.kind;
    if (kind == RANDOM || kind == COINCIDENT) {
      for (int i = 0; i < n; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = uni(rng);
      const int j = irand(n - 1);
      if (kind == COINCIDENT) std::copy(p[j], p[j] + 3, p[n - 1]);
    } else if (kind == FLOAT_FLAT || kind == LATTICE_FLAT) {
      const bool bLattice = kind == LATTICE_FLAT;
      auto factor = [&] { return bLattice ? irand(7) - 3.0 : 2.0 * uni(rng); };
      const double s = factor(), t = dim == 3 ? factor() : 0.0;
      for (int i = 0; i < n - 1; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = bLattice ? irand(101) - 50 : std::ldexp(uni(rng), irand(40) - 20);
      for (int k = 0; k < dim; ++k) p[n - 1][k] = p[0][k] + s * (p[1][k] - p[0][k]) + t * (p[2][k] - p[0][k]);
    } else if (kind == WIDE_FLAT) {
      const double sign = irand(2) ? 1.0 : -1.0;
      const bool bSlanted = dim == 3 && irand(2);
      auto slanted = [&](double unit) {  // below 2^48 units: z = x + 3y is exact
        return static_cast<double>(static_cast<long long>(rng() >> 15) - (1LL << 48)) * unit;
      };
      for (int i = 0; i < n; ++i) {
        const double unit = std::ldexp(1.0, std::max(-1074, wideLow + irand(wideHigh - wideLow - 1) - 50));
        p[i][0] = bSlanted ? slanted(unit) : wide();
        p[i][1] = bSlanted ? slanted(unit) : sign * p[i][0];
        if (dim == 3) p[i][2] = bSlanted ? p[i][0] + 3 * p[i][1] : wide();
      }
    } else if (kind == EXTREME) {
      const double big = std::numeric_limits<double>::max();
      const double values[7] = {-big, -big / 2, -big / 4, 0.0, big / 4, big / 2, big};
      for (int i = 0; i < n; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = values[irand(7)];
    } else if (kind == STEEP_FLAT) {
      for (int i = 0; i < n; ++i) {
        const int u = irand(127) - 63, v = irand(127) - 63;
        p[i][0] = std::ldexp(u, -540);
        p[i][1] = std::ldexp(v, -540);
        if (dim == 3) p[i][2] = std::ldexp(u + 3 * v, 260);
      }
    } else if (kind == WIDE_ROUND) {
      const double base[3] = {wide(), wide(), wide()};
      std::vector<int> vCodes(dim == 3 ? 48 : 8);  // sign bits, then permutation number
      std::iota(vCodes.begin(), vCodes.end(), 0);
      std::shuffle(vCodes.begin(), vCodes.end(), rng);
      for (int i = 0; i < n; ++i) {
        int perm[3] = {0, 1, 2};
        for (int m = vCodes[i] >> dim; m > 0; --m) std::next_permutation(perm, perm + dim);
        for (int k = 0; k < dim; ++k) p[i][k] = ((vCodes[i] >> k) & 1 ? -1.0 : 1.0) * base[perm[k]];
      }
    } else if (kind == FLOAT_ROUND) {
      const double radius = std::ldexp(1.0 + uni(rng), irand(21) - 10) * r.scale;
      const double c[3] = {r.offset * uni(rng), r.offset * uni(rng), r.offset * uni(rng)};
      for (int i = 0; i < n; ++i) {
        double v[3] = {uni(rng), uni(rng), dim == 3 ? uni(rng) : 0.0};
        const double len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        for (int k = 0; k < dim; ++k) p[i][k] = c[k] + radius * v[k] / len;
      }
    } else {  // LATTICE_ROUND
      std::array<int, 3> v[5];
      std::sample(sphere.begin(), sphere.end(), v, n, rng);
      const int c[3] = {irand(201) - 100, irand(201) - 100, irand(201) - 100};
      for (int i = 0; i < n; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = c[k] + v[i][k];
    }
    if (kind == LATTICE_FLAT || kind == LATTICE_ROUND)
      for (int i = 0; i < n; ++i)
        for (int k = 0; k < dim; ++k) p[i][k] = p[i][k] * r.scale + r.offset;
    if (r.numUlps > 0) {
      double* pv;
      do pv = &p[irand(n)][irand(dim)];
      while (*pv == 0.0 && !r.bNudgeZeros);
      double dir = irand(2) ? INFINITY : -INFINITY;  // never past the largest double
      if (std::fabs(*pv) == std::numeric_limits<double>::max()) dir = -*pv;
      for (int i = 1 + irand(r.numUlps); i > 0; --i) *pv = std::nextafter(*pv, dir);
    }
    if (kind != COINCIDENT) std::shuffle(p, p + n, rng);
  }

private:
  int irand(int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); }
  double wide() { return std::ldexp(uni(rng), wideLow + irand(wideHigh - wideLow + 1)); }
  int dim, wideLow, wideHigh;
  std::mt19937_64 rng{12345};
  std::uniform_real_distribution<double> uni{-1.0, 1.0};
  std::vector<std::array<int, 3>> sphere;
};

// The orientation that a published orient3d sign stands for.
const Orientation3 oriOfSign[3] = {ORIENTATION3_POSITIVE, ORI3_ZERO, ORIENTATION3_NEGATIVE};

enum Predicate { ORIENT3, SPHERE, ORIENT2, INCIRCLE };

// Runs the cases of a regime (count / divisor) through the predicates of one
// kind against the exact sign; returns the number of wrong answers. Every
// predicate reads its points where an unreadable page begins. Besides the
// sign: a filtered predicate whose filter is clear of its bound (by a factor
// of 2) returns the filter's determinant to the bit; the floor-free forms
// agree where all points are floor-free; the paired sphere filter gives the
// scalar one's bits. The sphere test is asked only of cases whose first four
// points are not coplanar, put into positive order.
int numWrong(Predicate what, Cases& cases, const Regime& r, int divisor, int* pNumTested = nullptr) {
  static const ExactTest t;
  BRIX_TOOLS::SimplePool<Tet3> pool;
  pool.init(4, 4);
  Tet3* pTet = pool.nextObject();
  const int n = what == ORIENT2 ? 3 : (what == SPHERE ? 5 : 4);
  int numWrong = 0, numTested = 0;
  for (int i = 0; i < r.count / divisor; ++i) {
    Pts p;
    cases.make(r, p, n);
    if (what == SPHERE) {
      const int ori = exactSign(p, 4, 3, false);
      if (ori == 0) continue;
      if (ori > 0) std::swap(p[0], p[1]);
    }
    double* g[5];
    for (int k = 0; k < n; ++k) g[k] = support::guardedCopy(k, p[k], what == ORIENT2 || what == INCIRCLE ? 2 : 3);
    Point3 q[5];
    for (int k = 0; k < n; ++k) q[k] = Point3(p[k][0], p[k][1], p[k][2]);
    const bool bFloorFree = std::all_of(q, q + n, [](const Point3& v) { return kernels::inFloorFreeRange(v); });
    double det, permanent, floor;
    bool bRight = true;
    if (what == ORIENT3) {
      const int exact = exactSign(p, 4, 3, false);
      const Orientation3 want = oriOfSign[1 + exact];
      bRight = t.getOrientation3(&q[0], &q[1], &q[2], &q[3]) == want && signOf(t.orient3d(g[0], g[1], g[2], g[3])) == exact &&
               (!bFloorFree || orientationOf<true>(t, &q[0], &q[1], &q[2], &q[3]) == want);
      kernels::orient3dFilter(g[0], g[1], g[2], g[3], det, permanent, floor);
      if (kernels::filterDecides(det, 2 * (t.o3derrboundA * permanent + floor)))
        bRight &= sameBits(det, t.orient3d(g[0], g[1], g[2], g[3]));
    } else if (what == SPHERE) {
      pTet->setProperties(&q[0], &q[1], &q[2], &q[3]);
      const int lifted = exactSign(p, 5, 3, true);
      const SphereInclusion want = lifted < 0 ? SIC_INSIDE : SIC_OUTSIDE;
      bRight = t.sphereInclusionTest(pTet, &q[4]) == want && (!bFloorFree || sphereInclusionOf<true>(t, pTet, &q[4]) == want);
      if (i % 16 == 0)  // the exact stage alone, in the published order (class 1: inside)
        bRight &= t.insphereexact(g[1], g[0], g[2], g[3], g[4]) == (lifted == 0 ? 2u : (lifted < 0 ? 1u : 0u));
      kernels::insphereFilter(g[0], g[1], g[2], g[3], g[4], det, permanent, floor);
      if (kernels::filterDecides(det, 2 * (t.isperrboundA * permanent + floor)))
        bRight &= sameBits(det, t.insphere(g[0], g[1], g[2], g[3], g[4]));
#if defined(__SSE2__)
      double det2, permanent2, floor2;
      kernels::insphereFilterSse2(g[0], g[1], g[2], g[3], g[4], det2, permanent2, floor2);
      bRight &= sameBits(det, det2) && sameBits(permanent, permanent2) && sameBits(floor, floor2);
#endif
    } else if (what == ORIENT2) {
      bRight = signOf(t.orient2d(g[0], g[1], g[2])) == exactSign(p, 3, 2, false);
      const double fast = orient2dfast(g[0], g[1], g[2]);
      if (std::fabs(fast) > 1e-12 * (std::fabs((p[0][0] - p[2][0]) * (p[1][1] - p[2][1])) +
                                     std::fabs((p[0][1] - p[2][1]) * (p[1][0] - p[2][0]))) + 0x1p-900)
        bRight &= sameBits(fast, t.orient2d(g[0], g[1], g[2]));
    } else {
      bRight = signOf(t.incircle(g[0], g[1], g[2], g[3])) == exactSign(p, 4, 2, true);
    }
    numWrong += !bRight;
    ++numTested;
  }
  if (pNumTested != nullptr) *pNumTested = numTested;
  return numWrong;
}

std::string describe(const Regime& r, int dim) {
  return "dim " + std::to_string(dim) + " kind " + std::to_string(r.kind) + " offset " + std::to_string(r.offset) +
         " scale 2^" + std::to_string(std::ilogb(r.scale)) + " ulps " + std::to_string(r.numUlps);
}

// Every regime through the predicates of both dimensions: orientation and
// sphere in space, orient2d and incircle (count / 2) in the plane.
void expectAgreement(const std::vector<Regime>& vFlat, const std::vector<Regime>& vRound, int wideLow = -30,
                     int wideHigh = 30) {
  for (const int dim : {3, 2}) {
    Cases cases(dim, wideLow, wideHigh);
    const int divisor = dim == 3 ? 1 : 2;
    for (const Regime& r : vFlat)
      EXPECT_EQ(numWrong(dim == 3 ? ORIENT3 : ORIENT2, cases, r, divisor), 0) << describe(r, dim);
    for (const Regime& r : vRound) {
      int numTested = 0;
      EXPECT_EQ(numWrong(dim == 3 ? SPHERE : INCIRCLE, cases, r, divisor, &numTested), 0) << describe(r, dim);
      EXPECT_GT(numTested, r.count / divisor / 2) << describe(r, dim);
    }
  }
}

} // namespace

TEST(Orientation3, PositiveWhenDSeesAbcCounterclockwise) {
  ExactTest t;
  Point3 a(0, 0, 0), b(1, 0, 0), c(0, 1, 0), d(0, 0, 1), inPlane(0.3, 0.4, 0), dupA(a);
  EXPECT_EQ(t.getOrientation3(&a, &b, &c, &d), ORIENTATION3_POSITIVE);
  EXPECT_EQ(t.getOrientation3(&b, &a, &c, &d), ORIENTATION3_NEGATIVE);
  EXPECT_EQ(t.getOrientation3(&a, &b, &c, &inPlane), ORI3_ZERO);
  EXPECT_EQ(t.getOrientation3(&a, &b, &c, &dupA), ORI3_ZERO);
  EXPECT_EQ(t.getOriString(ORIENTATION3_POSITIVE), "ORI3_ORIENTATION3_POSITIVE");
  EXPECT_EQ(t.getOriString(ORIENTATION3_NEGATIVE), "ORI3_ORIENTATION3_NEGATIVE");
  EXPECT_EQ(t.getOriString(ORI3_ZERO), "ORI3_ZERO");
  EXPECT_TRUE(support::failsAssertion([&] { t.getOriString(static_cast<Orientation3>(3)); }, "false"));
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

// A cube of side 2^50 at offset 2^51: corners a, b, c, d of a positive
// tetrahedron and the far corner lie on one sphere; a last-bit step of the
// far corner's z leaves the filter undecided. A corner is SIC_CORNER only by
// pointer; a copy of it is on the sphere. In the published order (b, a, c, d
// has a positive orient3d) the adaptive stages answer classes: 1 inside,
// 0 outside, 2 on the sphere.
TEST(SphereTest, InsideOnlyWhenStrictlyInsideThePositiveTetsSphereAndStagesAnswerClasses) {
  constexpr double O = 0x1p51, L = 0x1p51 + 0x1p50;
  const ExactTest t;
  BRIX_TOOLS::SimplePool<Tet3> pool;
  pool.init(4, 4);
  Point3 a{O, O, O}, b{L, O, O}, c{O, L, O}, d{O, O, L}, copyOfA(a), far(-L, -L, -L);
  Point3 on{L, L, L}, in{L, L, std::nextafter(L, 0.0)}, out{L, L, std::nextafter(L, 2 * L)}, centre(O + 0x1p49, O + 0x1p49, O + 0x1p49);
  Tet3* pTet = pool.nextObject();
  pTet->setProperties(&a, &b, &c, &d);
  ASSERT_EQ(t.getOrientation3(&a, &b, &c, &d), ORIENTATION3_POSITIVE);
  const std::pair<Point3*, SphereInclusion> vCases[] = {{&in, SIC_INSIDE}, {&out, SIC_OUTSIDE}, {&on, SIC_OUTSIDE},
                                                        {&centre, SIC_INSIDE}, {&far, SIC_OUTSIDE}, {&a, SIC_CORNER},
                                                        {&b, SIC_CORNER}, {&c, SIC_CORNER}, {&d, SIC_CORNER},
                                                        {&copyOfA, SIC_OUTSIDE}};
  for (const auto& [p, want] : vCases) EXPECT_EQ(t.sphereInclusionTest(pTet, p), want) << *p;  // on: class 2, outside
  EXPECT_EQ((std::vector<int>{SIC_INSIDE, SIC_OUTSIDE, SIC_CORNER}), (std::vector<int>{0, 1, 2})); // the published numbers
  double pa[3] = {O, O, O}, pb[3] = {L, O, O}, pc[3] = {O, L, O}, pd[3] = {O, O, L};
  double pOn[3] = {L, L, L}, pIn[3] = {L, L, in.z()}, pOut[3] = {L, L, out.z()}, pFar[3] = {-O, -O, -O};
  const double permanent = 1.0;  // any bound will do: these differences are exact
  for (const auto& [pe, cls] : {std::pair<double*, unsigned>{pIn, 1u}, {pOut, 0u}, {pOn, 2u}}) {
    EXPECT_EQ(t.insphereadapt(pb, pa, pc, pd, pe, permanent), cls);
    EXPECT_EQ(t.insphereexact(pb, pa, pc, pd, pe), cls);
    EXPECT_EQ(t.insphere(pb, pa, pc, pd, pe), static_cast<double>(cls));
  }
  EXPECT_LT(t.insphere(pb, pa, pc, pd, pFar), 0.0);  // the filter decides: a signed value
  // A copy of a corner makes the determinant exactly 0, though the
  // differences are not exact and a zero permanent makes the bound 0.
  double ga[3] = {0.1, 0.2, 0.3}, gb[3] = {1.3, 0.7, 0.11}, gc[3] = {0.77, 1.9, 0.5}, gd[3] = {0.3, 0.41, 1.7};
  for (const double* corner : {ga, gb, gc, gd}) {
    double copy[3] = {corner[0], corner[1], corner[2]};
    EXPECT_EQ(t.insphereexact(ga, gb, gc, gd, copy), 2u);
    EXPECT_EQ(t.insphereadapt(ga, gb, gc, gd, copy, 0.0), 2u);
    EXPECT_EQ(t.insphere(ga, gb, gc, gd, copy), 2.0);
  }
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

// Random input for the filters; near-degenerate float and lattice input for
// the adaptive stages; exactly degenerate lattice input at large magnitude
// and at small scales whose products stay normal; points rounded onto a
// sphere, whose differences carry tails (large ones too, beyond the range of
// the double-double shortcut, so that the expansions' own stages decide);
// coincident points.
TEST(Differential, PredicatesAgreeWithExactDeterminants) {
  expectAgreement({{RANDOM, 300000}, {FLOAT_FLAT, 150000}, {LATTICE_FLAT, 100000, 1e15, 1, 4},
                   {LATTICE_FLAT, 40000, 0, 0x1p-30, 4}, {LATTICE_FLAT, 40000, 1e15}, {LATTICE_FLAT, 40000, 0, 0x1p-330},
                   {WIDE_FLAT, 20000}, {WIDE_FLAT, 20000, 0, 1, 4}, {COINCIDENT, 20000}},
                  {{RANDOM, 100000}, {LATTICE_ROUND, 60000, 1e15, 1, 4}, {LATTICE_ROUND, 30000, 0, 0x1p-20, 4},
                   {LATTICE_ROUND, 20000, 1e15}, {LATTICE_ROUND, 20000, 0, 0x1p-180}, {WIDE_ROUND, 4000},
                   {WIDE_ROUND, 4000, 0, 1, 4}, {FLOAT_ROUND, 60000}, {FLOAT_ROUND, 60000, 3, 1, 2}, {COINCIDENT, 10000},
                   {FLOAT_ROUND, 30000, 0x1p185, 0x1p175}});
}

// The floor-free forms hold for coordinates 0 or of magnitude in
// [2^-150, 2^199): the range, and lattices at both of its ends.
TEST(AnyFiniteDouble, FloorFreeFormsHoldOverTheirWholeRange) {
  auto in = [](double c) { return kernels::inFloorFreeRange(Point3(1.0, c, -1.0)); };
  EXPECT_TRUE(in(0.0) && in(-0.0) && in(0x1p-150) && in(-0x1p-150) && in(std::nextafter(0x1p199, 0.0)));
  EXPECT_FALSE(in(std::nextafter(0x1p-150, 0.0)) || in(0x1p199) || in(-0x1p199) || in(0x1p-1074));
  std::vector<Regime> vFlat, vRound;
  for (const double scale : {0x1p-150, 0x1p188})
    for (const int numUlps : {0, 3}) {
      vFlat.push_back({LATTICE_FLAT, 20000, 0, scale, numUlps});
      vRound.push_back({LATTICE_ROUND, 20000, 0, scale, numUlps});
    }
  expectAgreement(vFlat, vRound);
}

// The published stages hold only while no product leaves the normal range.
// Lattices scaled by every 26th power of two from 2^-1074 (subnormal) to
// 2^1012 (differences overflow), exact and nudged by a few units in the last
// place; subnormal-only lattices, and zeros nudged to subnormals beside
// ordinary coordinates.
TEST(AnyFiniteDouble, LatticesScaledAcrossTheWholeExponentRange) {
  std::vector<Regime> vFlat, vRound;
  for (int e = -1074; e <= 1012; e += 26) {
    vFlat.push_back({LATTICE_FLAT, 400, 0, std::ldexp(1.0, e), (e / 26) % 2 == 0 ? 0 : 4});
    vRound.push_back({LATTICE_ROUND, 300, 0, std::ldexp(1.0, e), (e / 26) % 2 == 0 ? 0 : 4});
  }
  vFlat.insert(vFlat.end(), {{LATTICE_FLAT, 20000, 0, 0x1p-1074, 4, true}, {LATTICE_FLAT, 20000, 0, 1, 4, true},
                             {LATTICE_FLAT, 20000, 0, 0x1p-1064}, {WIDE_FLAT, 20000, 0, 1, 3, true}});
  vRound.insert(vRound.end(), {{LATTICE_ROUND, 20000, 0, 0x1p-1074, 4, true}, {LATTICE_ROUND, 20000, 0, 1, 4, true},
                               {LATTICE_ROUND, 20000, 0, 0x1p-1066}, {WIDE_ROUND, 4000, 0, 1, 3, true}});
  expectAgreement(vFlat, vRound);
}

// Magnitudes from 2^-1074 to 2^1000 within one test: exactly flat and
// exactly round sets, points whose differences overflow, and points on a
// steep plane whose x y products fall below the normal range while z is
// huge (a filter that trusted its bound there would call them off the plane).
TEST(AnyFiniteDouble, MagnitudesMixedWithinOneTest) {
  expectAgreement({{WIDE_FLAT, 20000}, {WIDE_FLAT, 20000, 0, 1, 4}, {STEEP_FLAT, 20000}, {STEEP_FLAT, 20000, 0, 1, 2},
                   {EXTREME, 20000}, {EXTREME, 20000, 0, 1, 3}},
                  {{WIDE_ROUND, 3000}, {WIDE_ROUND, 3000, 0, 1, 4}, {EXTREME, 3000}, {EXTREME, 3000, 0, 1, 3}},
                  -1074, 1000);
}

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

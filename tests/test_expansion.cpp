// Tests of the expansion arithmetic beneath the predicates: the measured
// constants, the error-free building blocks and the expansion routines, all
// checked against GMP rationals, never against the library itself.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "BrixTest3Inline.h"
#include "test_support.h"

using namespace VELM3D;

namespace {

mpq_class exactSum(int n, const double* e) {
  mpq_class s = 0;
  for (int i = 0; i < n; ++i) s += mpq_class(e[i]);
  return s;
}

// Exponent of the lowest set bit of a nonzero double.
int lowBit(double x) {
  int exp;
  const double m = std::frexp(std::fabs(x), &exp);
  const auto bits = static_cast<uint64_t>(std::ldexp(m, 53));
  return exp - 53 + __builtin_ctzll(bits);
}

// Nonzero components grow in magnitude and do not overlap: the highest bit of
// each lies below the lowest bit of the next.
bool isNonoverlapping(int n, const double* e) {
  double prev = 0.0;
  for (int i = 0; i < n; ++i) {
    if (e[i] == 0.0) continue;
    if (prev != 0.0 && std::ilogb(prev) >= lowBit(e[i])) return false;
    prev = e[i];
  }
  return true;
}

bool hasZero(int n, const double* e) { return std::find(e, e + n, 0.0) != e + n; }

// A random nonadjacent expansion of 1 to maxLen components: random signs,
// random mantissas with random runs of trailing zeros, gaps of 2 to 40 bits.
int randomExpansion(std::mt19937_64& rng, double* e, int maxLen) {
  const int len = 1 + static_cast<int>(rng() % maxLen);
  int top = static_cast<int>(rng() % 81) - 40;
  for (int k = len - 1; k >= 0; --k) {
    uint64_t m = (uint64_t(1) << 52) | (rng() & ((uint64_t(1) << 52) - 1));
    m &= ~((uint64_t(1) << (rng() % 53)) - 1);
    e[k] = std::ldexp(static_cast<double>(m), top - 52) * ((rng() & 1) ? 1.0 : -1.0);
    top = lowBit(e[k]) - 2 - static_cast<int>(rng() % 39);
  }
  return len;
}

// A sum routine and whether it promises no zero components.
using SumRoutine = std::pair<int (*)(int, double*, int, double*, double*), bool>;

} // namespace

// The inline blocks as a caller of the header compiles them; those that the
// predicates do not use are checked here only.
TEST(BuildingBlocks, ResultsEqualTheExactValue) {
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> mant(-1.0, 1.0);
  std::uniform_int_distribution<int> expo(-60, 60);
  const double s = 134217729.0;
  auto r = [&] { return std::ldexp(mant(rng), expo(rng)); };
  for (int i = 0; i < 20000; ++i) {
    const double a1 = r(), b1 = r(), a0 = std::ldexp(a1, -60) * mant(rng);
    const double b0 = std::ldexp(b1, -60) * mant(rng);
    const mpq_class A1(a1), A0(a0), B1(b1), B0(b0);
    double x[12];
    Two_Product(a1, b1, x[1], x[0], s);
    ASSERT_EQ(exactSum(2, x), A1 * B1);
    Fast_Two_Diff(b1, b0, x[1], x[0]);
    ASSERT_EQ(exactSum(2, x), B1 - B0);
    Two_Two_Sum(a1, a0, b1, b0, x[3], x[2], x[1], x[0]);
    ASSERT_EQ(exactSum(4, x), A1 + A0 + B1 + B0);
    ASSERT_TRUE(isNonoverlapping(4, x));
    const double y3 = x[3], y2 = x[2], y1 = x[1], y0 = x[0];
    Four_One_Product(y3, y2, y1, y0, a1, x[7], x[6], x[5], x[4], x[3], x[2], x[1], x[0], s);
    ASSERT_EQ(exactSum(8, x), (A1 + A0 + B1 + B0) * A1);
    Eight_Four_Sum(y3, y2, y1, y0, a1, a0, b1, b0, a1, a0, b1, b0, x[11], x[10], x[9], x[8], x[7],
                   x[6], x[5], x[4], x[3], x[2], x[1], x[0]);
    ASSERT_EQ(exactSum(12, x), 3 * (A1 + A0 + B1 + B0));
    Two_One_Product(a1, a0, b1, x[3], x[2], x[1], x[0], s);
    ASSERT_EQ(exactSum(4, x), (A1 + A0) * B1);
    Two_Two_Product(a1, a0, b1, b0, x[7], x[6], x[5], x[4], x[3], x[2], x[1], x[0], s);
    ASSERT_EQ(exactSum(8, x), (A1 + A0) * (B1 + B0));
    Two_Square(a1, a0, x[5], x[4], x[3], x[2], x[1], x[0], s);
    ASSERT_EQ(exactSum(6, x), (A1 + A0) * (A1 + A0));
  }
}

// Would fail if the library were built with contracted multiply-adds or
// excess precision. Both cases run inside the shared library: the error term
// of one product must be the exact difference between the true and the
// rounded product, and a two-component scale_expansion (found to go wrong
// with -mfma -ffp-contract=fast) must be exact.
TEST(BuildingBlocks, LibraryProductTailIsExactUnderItsFlags) {
  ExactTest t;
  double h[4];
  double c = 1.0 + 0x1p-30, d = 1.0 + 0x1p-29;  // 1 + 3*2^-30, tail 2^-59
  ASSERT_EQ(t.scale_expansion_zeroelim(1, &c, d, h), 2);
  EXPECT_EQ(h[1], 1.0 + 0x3p-30);
  EXPECT_EQ(h[0], 0x1p-59);
  double e[2] = {0x1.165814314p-76, -0x1.014b499588p-19};
  const double f = 0x1.b665e889b758p-29;
  const int n = t.scale_expansion(2, e, f, h);
  EXPECT_EQ(exactSum(n, h), (mpq_class(e[0]) + mpq_class(e[1])) * mpq_class(f));
}

// Sums of two random expansions, half of them cancelling, and grow,
// compress and scale on the first: exact, nonoverlapping, of length at least
// 1, and without zero components where the routine promises it. Inputs end
// at an unreadable page: every routine stops at each end.
TEST(ExpansionSums, MatchRationalArithmeticOnRandomExpansions) {
  const ExactTest t;
  const SumRoutine vSums[] = {{expansion_sum, false},        {expansion_sum_zeroelim1, true},
                              {expansion_sum_zeroelim2, false}, {fast_expansion_sum, false},
                              {fast_expansion_sum_zeroelim, true}, {linear_expansion_sum, false},
                              {linear_expansion_sum_zeroelim, true}};
  std::mt19937_64 rng(11);
  double e[12], f[12], h[24];
  int numWrong = 0;
  for (int i = 0; i < 20000; ++i) {
    const int elen = randomExpansion(rng, e, 12);
    int flen = randomExpansion(rng, f, 12);
    if (i % 2 == 1) {  // f = -e, or all but the smallest component
      flen = elen;
      for (int k = 0; k < elen; ++k) f[k] = -e[k];
      if (i % 4 == 3) f[0] = 0.5 * e[0];
    }
    const mpq_class sumE = exactSum(elen, e), b = f[flen - 1];
    auto wrong = [&](int n, const mpq_class& want, bool bNoZeros) {
      return exactSum(n, h) != want || n < 1 || !isNonoverlapping(n, h) || (bNoZeros && n > 1 && hasZero(n, h));
    };
    double* ge = support::guardedCopy(0, e, elen);
    double* gf = support::guardedCopy(1, f, flen);
    for (const auto& [sum, bDropsZeros] : vSums)
      numWrong += wrong(sum(elen, ge, flen, gf, h), sumE + exactSum(flen, f), bDropsZeros);
    numWrong += grow_expansion(elen, ge, f[flen - 1], h) != elen + 1 || wrong(elen + 1, sumE + b, false);
    numWrong += wrong(grow_expansion_zeroelim(elen, ge, f[flen - 1], h), sumE + b, true);
    numWrong += wrong(compress(elen, ge, h), sumE, false);
    numWrong += t.scale_expansion(elen, ge, f[flen - 1], h) != 2 * elen || wrong(2 * elen, sumE * b, false);
    numWrong += wrong(t.scale_expansion_zeroelim(elen, ge, f[flen - 1], h), sumE * b, true);
  }
  EXPECT_EQ(numWrong, 0);
}

TEST(ExpansionSums, CancellationLeavesZerosOrASingleZero) {
  double e[2] = {0x1p-40, 3.0}, f[2] = {-0x1p-40, -3.0}, h[4];
  // b cancels the small component: the plain grow keeps the zeros.
  EXPECT_TRUE(grow_expansion(2, e, -0x1p-40, h) == 3 && h[0] == 0.0 && h[1] == 0.0 && h[2] == 3.0);
  EXPECT_TRUE(grow_expansion_zeroelim(2, e, -0x1p-40, h) == 1 && h[0] == 3.0);
  EXPECT_TRUE(fast_expansion_sum_zeroelim(2, e, 2, f, h) == 1 && h[0] == 0.0);
  EXPECT_TRUE(ExactTest().scale_expansion_zeroelim(2, e, 0.0, h) == 1 && h[0] == 0.0);
  EXPECT_TRUE(estimate(1, e + 1) == 3.0 && estimate(2, e) == 3.0 + 0x1p-40);
}

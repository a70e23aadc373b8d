// BrixTest3Inline.h: the inline half of the predicates, private to the
// library. Not installed; included only by the library's own sources and by
// code compiled with the library's floating-point flags (-ffp-contract=off,
// no unsafe math, SSE2 rather than x87), because everything here is exact
// only under those flags: a multiply-add contracted into a fused one breaks
// the error-free transformations, and the filters' bounds are stated for the
// plain evaluation whose bits the paired SSE2 form repeats.
//
// It holds the error-free building blocks of the expansion arithmetic, the
// filters of the orientation and sphere tests as inline kernels, and the
// inline forms of the two tests (orientationOfFacet<bFloorFree> and
// sphereInclusionOf<bFloorFree>) that the insertion's walk and cavity loops
// call. The public getOrientation3 and sphereInclusionTest of BrixTest3.h
// are the floored forms, instantiated out of line in BrixTest3.cpp.
//
// Floor-free: every coordinate involved is 0 or of magnitude in
// [2^-150, 2^199), as kernels::inFloorFreeRange says of a point. Every value
// the filters compute is then a multiple of 2^-1010 (a coordinate's lowest
// bit is at least 2^-202, and rounding keeps multiples) and below 2^1010, so
// no product leaves the normal range and the published bound alone holds:
// the filters need no floor for underflow. The insertion uses the floor-free
// forms while all its vertices are floor-free.
#pragma once

#include <algorithm>
#include <cmath>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "BrixTest3.h"

#if defined(__FAST_MATH__)
#error "BrixTest3Inline.h needs exact IEEE arithmetic: compile without -ffast-math"
#endif

namespace VELM3D {

// ---------------------------------------------------------------------------
// Error-free building blocks, one inline function per published macro. Inputs
// are taken by value and outputs by reference, so a caller may pass the same
// variable as an input and an output. x is the rounded result and y its exact
// error (the tail): x + y equals the exact value. Multi-word results are
// listed from the most significant word down, like the macros' arguments.
// The routines that split take the splitter (2^27 + 1 on IEEE doubles) as
// their last argument.

// |a| >= |b| (or a == 0) is required.
inline void Fast_Two_Sum_Tail(double a, double b, double x, double& y) {
  const double bvirt = x - a;
  y = b - bvirt;
}
inline void Fast_Two_Sum(double a, double b, double& x, double& y) {
  x = a + b;
  Fast_Two_Sum_Tail(a, b, x, y);
}
inline void Fast_Two_Diff_Tail(double a, double b, double x, double& y) {
  const double bvirt = a - x;
  y = bvirt - b;
}
inline void Fast_Two_Diff(double a, double b, double& x, double& y) {
  x = a - b;
  Fast_Two_Diff_Tail(a, b, x, y);
}

inline void Two_Sum_Tail(double a, double b, double x, double& y) {
  const double bvirt = x - a;
  const double avirt = x - bvirt;
  const double bround = b - bvirt;
  const double around = a - avirt;
  y = around + bround;
}
inline void Two_Sum(double a, double b, double& x, double& y) {
  x = a + b;
  Two_Sum_Tail(a, b, x, y);
}
inline void Two_Diff_Tail(double a, double b, double x, double& y) {
  const double bvirt = a - x;
  const double avirt = x + bvirt;
  const double bround = bvirt - b;
  const double around = a - avirt;
  y = around + bround;
}
inline void Two_Diff(double a, double b, double& x, double& y) {
  x = a - b;
  Two_Diff_Tail(a, b, x, y);
}

// Dekker's split: a = ahi + alo, each half with at most 26 significant bits.
inline void Split(double a, double& ahi, double& alo, double splitter) {
  const double c = splitter * a;
  const double abig = c - a;
  ahi = c - abig;
  alo = a - ahi;
}
inline void Two_Product_Tail(double a, double b, double x, double& y, double splitter) {
  double ahi, alo, bhi, blo;
  Split(a, ahi, alo, splitter);
  Split(b, bhi, blo, splitter);
  const double err1 = x - (ahi * bhi);
  const double err2 = err1 - (alo * bhi);
  const double err3 = err2 - (ahi * blo);
  y = (alo * blo) - err3;
}
inline void Two_Product(double a, double b, double& x, double& y, double splitter) {
  x = a * b;
  Two_Product_Tail(a, b, x, y, splitter);
}
// Two_Product with b already split into bhi + blo.
inline void Two_Product_Presplit(double a, double b, double bhi, double blo, double& x, double& y,
                                 double splitter) {
  x = a * b;
  double ahi, alo;
  Split(a, ahi, alo, splitter);
  const double err1 = x - (ahi * bhi);
  const double err2 = err1 - (alo * bhi);
  const double err3 = err2 - (ahi * blo);
  y = (alo * blo) - err3;
}
// Two_Product with both factors already split.
inline void Two_Product_2Presplit(double a, double ahi, double alo, double b, double bhi,
                                  double blo, double& x, double& y) {
  x = a * b;
  const double err1 = x - (ahi * bhi);
  const double err2 = err1 - (alo * bhi);
  const double err3 = err2 - (ahi * blo);
  y = (alo * blo) - err3;
}
inline void Square_Tail(double a, double x, double& y, double splitter) {
  double ahi, alo;
  Split(a, ahi, alo, splitter);
  const double err1 = x - (ahi * ahi);
  const double err3 = err1 - ((ahi + ahi) * alo);
  y = (alo * alo) - err3;
}
inline void Square(double a, double& x, double& y, double splitter) {
  x = a * a;
  Square_Tail(a, x, y, splitter);
}

// (a1, a0) + b = (x2, x1, x0), and the like for longer operands.
inline void Two_One_Sum(double a1, double a0, double b, double& x2, double& x1, double& x0) {
  double i;
  Two_Sum(a0, b, i, x0);
  Two_Sum(a1, i, x2, x1);
}
inline void Two_One_Diff(double a1, double a0, double b, double& x2, double& x1, double& x0) {
  double i;
  Two_Diff(a0, b, i, x0);
  Two_Sum(a1, i, x2, x1);
}
inline void Two_Two_Sum(double a1, double a0, double b1, double b0, double& x3, double& x2,
                        double& x1, double& x0) {
  double j, t0;
  Two_One_Sum(a1, a0, b0, j, t0, x0);
  Two_One_Sum(j, t0, b1, x3, x2, x1);
}
inline void Two_Two_Diff(double a1, double a0, double b1, double b0, double& x3, double& x2,
                         double& x1, double& x0) {
  double j, t0;
  Two_One_Diff(a1, a0, b0, j, t0, x0);
  Two_One_Diff(j, t0, b1, x3, x2, x1);
}
inline void Four_One_Sum(double a3, double a2, double a1, double a0, double b, double& x4,
                         double& x3, double& x2, double& x1, double& x0) {
  double j;
  Two_One_Sum(a1, a0, b, j, x1, x0);
  Two_One_Sum(a3, a2, j, x4, x3, x2);
}
inline void Four_Two_Sum(double a3, double a2, double a1, double a0, double b1, double b0,
                         double& x5, double& x4, double& x3, double& x2, double& x1, double& x0) {
  double k, t2, t1, t0;
  Four_One_Sum(a3, a2, a1, a0, b0, k, t2, t1, t0, x0);
  Four_One_Sum(k, t2, t1, t0, b1, x5, x4, x3, x2, x1);
}
inline void Four_Four_Sum(double a3, double a2, double a1, double a0, double b4, double b3,
                          double b1, double b0, double& x7, double& x6, double& x5, double& x4,
                          double& x3, double& x2, double& x1, double& x0) {
  double l, t2, t1, t0;
  Four_Two_Sum(a3, a2, a1, a0, b1, b0, l, t2, t1, t0, x1, x0);
  Four_Two_Sum(l, t2, t1, t0, b4, b3, x7, x6, x5, x4, x3, x2);
}
inline void Eight_One_Sum(double a7, double a6, double a5, double a4, double a3, double a2,
                          double a1, double a0, double b, double& x8, double& x7, double& x6,
                          double& x5, double& x4, double& x3, double& x2, double& x1, double& x0) {
  double j;
  Four_One_Sum(a3, a2, a1, a0, b, j, x3, x2, x1, x0);
  Four_One_Sum(a7, a6, a5, a4, j, x8, x7, x6, x5, x4);
}
inline void Eight_Two_Sum(double a7, double a6, double a5, double a4, double a3, double a2,
                          double a1, double a0, double b1, double b0, double& x9, double& x8,
                          double& x7, double& x6, double& x5, double& x4, double& x3, double& x2,
                          double& x1, double& x0) {
  double k, t6, t5, t4, t3, t2, t1, t0;
  Eight_One_Sum(a7, a6, a5, a4, a3, a2, a1, a0, b0, k, t6, t5, t4, t3, t2, t1, t0, x0);
  Eight_One_Sum(k, t6, t5, t4, t3, t2, t1, t0, b1, x9, x8, x7, x6, x5, x4, x3, x2, x1);
}
inline void Eight_Four_Sum(double a7, double a6, double a5, double a4, double a3, double a2,
                           double a1, double a0, double b4, double b3, double b1, double b0,
                           double& x11, double& x10, double& x9, double& x8, double& x7,
                           double& x6, double& x5, double& x4, double& x3, double& x2, double& x1,
                           double& x0) {
  double l, t6, t5, t4, t3, t2, t1, t0;
  Eight_Two_Sum(a7, a6, a5, a4, a3, a2, a1, a0, b1, b0, l, t6, t5, t4, t3, t2, t1, t0, x1, x0);
  Eight_Two_Sum(l, t6, t5, t4, t3, t2, t1, t0, b4, b3, x11, x10, x9, x8, x7, x6, x5, x4, x3, x2);
}

// (a1, a0) * b = (x3, x2, x1, x0), and the like for longer operands.
inline void Two_One_Product(double a1, double a0, double b, double& x3, double& x2, double& x1,
                            double& x0, double splitter) {
  double bhi, blo, i, j, k, t0;
  Split(b, bhi, blo, splitter);
  Two_Product_Presplit(a0, b, bhi, blo, i, x0, splitter);
  Two_Product_Presplit(a1, b, bhi, blo, j, t0, splitter);
  Two_Sum(i, t0, k, x1);
  Fast_Two_Sum(j, k, x3, x2);
}
inline void Four_One_Product(double a3, double a2, double a1, double a0, double b, double& x7,
                             double& x6, double& x5, double& x4, double& x3, double& x2,
                             double& x1, double& x0, double splitter) {
  double bhi, blo, i, j, k, t0;
  Split(b, bhi, blo, splitter);
  Two_Product_Presplit(a0, b, bhi, blo, i, x0, splitter);
  Two_Product_Presplit(a1, b, bhi, blo, j, t0, splitter);
  Two_Sum(i, t0, k, x1);
  Fast_Two_Sum(j, k, i, x2);
  Two_Product_Presplit(a2, b, bhi, blo, j, t0, splitter);
  Two_Sum(i, t0, k, x3);
  Fast_Two_Sum(j, k, i, x4);
  Two_Product_Presplit(a3, b, bhi, blo, j, t0, splitter);
  Two_Sum(i, t0, k, x5);
  Fast_Two_Sum(j, k, x7, x6);
}
inline void Two_Two_Product(double a1, double a0, double b1, double b0, double& x7, double& x6,
                            double& x5, double& x4, double& x3, double& x2, double& x1,
                            double& x0, double splitter) {
  double a0hi, a0lo, a1hi, a1lo, bhi, blo;
  double i, j, k, l, m, n, t0, t1, t2;
  Split(a0, a0hi, a0lo, splitter);
  Split(b0, bhi, blo, splitter);
  Two_Product_2Presplit(a0, a0hi, a0lo, b0, bhi, blo, i, x0);
  Split(a1, a1hi, a1lo, splitter);
  Two_Product_2Presplit(a1, a1hi, a1lo, b0, bhi, blo, j, t0);
  Two_Sum(i, t0, k, t1);
  Fast_Two_Sum(j, k, l, t2);
  Split(b1, bhi, blo, splitter);
  Two_Product_2Presplit(a0, a0hi, a0lo, b1, bhi, blo, i, t0);
  Two_Sum(t1, t0, k, x1);
  Two_Sum(t2, k, j, t1);
  Two_Sum(l, j, m, t2);
  Two_Product_2Presplit(a1, a1hi, a1lo, b1, bhi, blo, j, t0);
  Two_Sum(i, t0, n, t0);
  Two_Sum(t1, t0, i, x2);
  Two_Sum(t2, i, k, t1);
  Two_Sum(m, k, l, t2);
  Two_Sum(j, n, k, t0);
  Two_Sum(t1, t0, j, x3);
  Two_Sum(t2, j, i, t1);
  Two_Sum(l, i, m, t2);
  Two_Sum(t1, k, i, x4);
  Two_Sum(t2, i, k, x5);
  Two_Sum(m, k, x7, x6);
}
// (a1, a0)^2 = (x5, x4, x3, x2, x1, x0).
inline void Two_Square(double a1, double a0, double& x5, double& x4, double& x3, double& x2,
                       double& x1, double& x0, double splitter) {
  double j, k, l, t0, t1, t2;
  Square(a0, j, x0, splitter);
  t0 = a0 + a0;
  Two_Product(a1, t0, k, t1, splitter);
  Two_One_Sum(k, t1, j, l, t2, x1);
  Square(a1, j, t1, splitter);
  Two_Two_Sum(j, t1, l, t2, x5, x4, x3, x2);
}

// ---------------------------------------------------------------------------
// The filters, as inline kernels. They stand in this header so that the
// insertion's hot loops inline them; only the undecided cases leave for the
// adaptive stages; the predicates of BrixTest3.cpp use the same kernels.
// The filters are always inlined: called as functions they return their
// three results through memory, and a compiler that sees many calls of the
// sphere filter in one file would otherwise keep one shared copy.
namespace kernels {

// Whether the n values are 0 or of magnitude in [low, 2^199).
inline bool allWithin(const double* v, int n, double low) {
  bool ok = true;
  for (int i = 0; i < n; i++) {
    const double a = std::fabs(v[i]);
    ok &= (a == 0.0) | ((a >= low) & (a < 0x1p199));
  }
  return ok;
}

// Whether the point x, y, z is floor-free: every coordinate 0 or of
// magnitude in [2^-150, 2^199).
inline bool inFloorFreeRange(const double* xyz) { return allWithin(xyz, 3, 0x1p-150); }
inline bool inFloorFreeRange(const Point3& p) {
  const double c[3] = {p.x(), p.y(), p.z()};
  return inFloorFreeRange(c);
}

// The coordinates of a, b, c, d, rows 0..3 of p: the orientation test's
// pa, pb, pc, pd.
[[gnu::always_inline]]
inline void orientationTestCoordinates(const Point3* a, const Point3* b, const Point3* c,
                                       const Point3* d, double (&p)[4][3]) {
  a->xyz(p[0][0], p[0][1], p[0][2]);
  b->xyz(p[1][0], p[1][1], p[1][2]);
  c->xyz(p[2][0], p[2][1], p[2][2]);
  d->xyz(p[3][0], p[3][1], p[3][2]);
}

// The coordinates of corners 0..3 of pTet and of pQ, rows 0..4 of p: the
// sphere test's pa, pb, pc, pd, pe.
[[gnu::always_inline]]
inline void sphereTestCoordinates(const Tet3* pTet, const Point3* pQ, double (&p)[5][3]) {
  for (int i = 0; i < 4; ++i) pTet->getCorner(i)->xyz(p[i][0], p[i][1], p[i][2]);
  pQ->xyz(p[4][0], p[4][1], p[4][2]);
}

// Whether a filter's det has a certain sign: |det| beyond errbound, the
// published bound plus the floor. Overflow needs no test of its own: a
// product or lift that overflowed makes the permanent infinite or NaN (the
// permanent sums the absolute values of the same products in the same
// groups), so errbound is too and nothing is decided; and a det that
// overflows only in its last sum carries the sign of the whole.
[[gnu::always_inline]]
inline bool filterDecides(double det, double errbound) {
  return det > errbound || -det > errbound;
}

// The published orient3d determinant and its permanent, in double. A product
// that falls below the normal range errs by up to 2^-1075 absolutely, beyond
// the relative bound of the publication; carried through the products that
// follow, the six two-fold products cost at most 2^-1074 |z| each and the
// three three-fold ones 2^-1075 each. The floor, 2^-1000 (|z| sums + 2),
// covers that with room to spare and stays a normal number; for input of
// ordinary magnitude it is far below the published bound.
[[gnu::always_inline]]
inline void orient3dFilter(const double* pa, const double* pb, const double* pc,
                           const double* pd, double& det, double& permanent, double& floor) {
  const double adx = pa[0] - pd[0], bdx = pb[0] - pd[0], cdx = pc[0] - pd[0];
  const double ady = pa[1] - pd[1], bdy = pb[1] - pd[1], cdy = pc[1] - pd[1];
  const double adz = pa[2] - pd[2], bdz = pb[2] - pd[2], cdz = pc[2] - pd[2];
  const double bdxcdy = bdx * cdy, cdxbdy = cdx * bdy;
  const double cdxady = cdx * ady, adxcdy = adx * cdy;
  const double adxbdy = adx * bdy, bdxady = bdx * ady;
  det = adz * (bdxcdy - cdxbdy) + bdz * (cdxady - adxcdy) + cdz * (adxbdy - bdxady);
  permanent = (std::fabs(bdxcdy) + std::fabs(cdxbdy)) * std::fabs(adz) +
              (std::fabs(cdxady) + std::fabs(adxcdy)) * std::fabs(bdz) +
              (std::fabs(adxbdy) + std::fabs(bdxady)) * std::fabs(cdz);
  floor = (((std::fabs(adz) + std::fabs(bdz)) + std::fabs(cdz)) + 2.0) * 0x1p-1000;
}

// The published insphere determinant and its permanent, in double, and the
// floor for products below the normal range. With M the largest difference
// and L the largest lift (M^2 <= L <= 3 M^2), underflow costs at most
// 2^-1075 (96 L^1.5 + 12 L + 4) <= 2^-1075 * 112 (1 + L^2): twelve two-fold
// products carried through a z and a lift twice each, twelve three-fold
// ones through a lift, twelve squares through a three-fold minor, and the
// four last products. The floor, 2^-1000 (1 + L^2), has room to spare and
// is a normal number: arithmetic on subnormal ones is slow on many CPUs.
[[gnu::always_inline]]
inline void insphereFilter(const double* pa, const double* pb, const double* pc,
                           const double* pd, const double* pe, double& det, double& permanent,
                           double& floor) {
  const double aex = pa[0] - pe[0], bex = pb[0] - pe[0], cex = pc[0] - pe[0], dex = pd[0] - pe[0];
  const double aey = pa[1] - pe[1], bey = pb[1] - pe[1], cey = pc[1] - pe[1], dey = pd[1] - pe[1];
  const double aez = pa[2] - pe[2], bez = pb[2] - pe[2], cez = pc[2] - pe[2], dez = pd[2] - pe[2];

  const double aexbey = aex * bey, bexaey = bex * aey, ab = aexbey - bexaey;
  const double bexcey = bex * cey, cexbey = cex * bey, bc = bexcey - cexbey;
  const double cexdey = cex * dey, dexcey = dex * cey, cd = cexdey - dexcey;
  const double dexaey = dex * aey, aexdey = aex * dey, da = dexaey - aexdey;
  const double aexcey = aex * cey, cexaey = cex * aey, ac = aexcey - cexaey;
  const double bexdey = bex * dey, dexbey = dex * bey, bd = bexdey - dexbey;

  const double abc = aez * bc - bez * ac + cez * ab;
  const double bcd = bez * cd - cez * bd + dez * bc;
  const double cda = cez * da + dez * ac + aez * cd;
  const double dab = dez * ab + aez * bd + bez * da;

  const double alift = aex * aex + aey * aey + aez * aez;
  const double blift = bex * bex + bey * bey + bez * bez;
  const double clift = cex * cex + cey * cey + cez * cez;
  const double dlift = dex * dex + dey * dey + dez * dez;

  det = (dlift * abc - clift * dab) + (blift * cda - alift * bcd);

  const double aezplus = std::fabs(aez), bezplus = std::fabs(bez);
  const double cezplus = std::fabs(cez), dezplus = std::fabs(dez);
  const double aexbeyplus = std::fabs(aexbey), bexaeyplus = std::fabs(bexaey);
  const double bexceyplus = std::fabs(bexcey), cexbeyplus = std::fabs(cexbey);
  const double cexdeyplus = std::fabs(cexdey), dexceyplus = std::fabs(dexcey);
  const double dexaeyplus = std::fabs(dexaey), aexdeyplus = std::fabs(aexdey);
  const double aexceyplus = std::fabs(aexcey), cexaeyplus = std::fabs(cexaey);
  const double bexdeyplus = std::fabs(bexdey), dexbeyplus = std::fabs(dexbey);
  permanent = ((cexdeyplus + dexceyplus) * bezplus + (dexbeyplus + bexdeyplus) * cezplus +
               (bexceyplus + cexbeyplus) * dezplus) * alift +
              ((dexaeyplus + aexdeyplus) * cezplus + (aexceyplus + cexaeyplus) * dezplus +
               (cexdeyplus + dexceyplus) * aezplus) * blift +
              ((aexbeyplus + bexaeyplus) * dezplus + (bexdeyplus + dexbeyplus) * aezplus +
               (dexaeyplus + aexdeyplus) * bezplus) * clift +
              ((bexceyplus + cexbeyplus) * aezplus + (cexaeyplus + aexceyplus) * bezplus +
               (aexbeyplus + bexaeyplus) * cezplus) * dlift;
  const double maxLift = std::max(std::max(alift, blift), std::max(clift, dlift));
  floor = (maxLift * maxLift + 1.0) * 0x1p-1000;
}

#if defined(__SSE2__)
// The same determinant and permanent, two terms at a time. Every lane does
// exactly the operations of insphereFilter in the same order, so the results
// are the same bits; only IEEE commutativity (a+b == b+a, a*b == b*a) is
// used to pair the terms.
[[gnu::always_inline]]
inline void insphereFilterSse2(const double* pa, const double* pb, const double* pc,
                               const double* pd, const double* pe, double& det,
                               double& permanent, double& floor) {
  const __m128d ex = _mm_set1_pd(pe[0]), ey = _mm_set1_pd(pe[1]), ez = _mm_set1_pd(pe[2]);
  // Lanes (a,b) and (c,d) of the differences to e.
  const __m128d xAB = _mm_sub_pd(_mm_set_pd(pb[0], pa[0]), ex);
  const __m128d xCD = _mm_sub_pd(_mm_set_pd(pd[0], pc[0]), ex);
  const __m128d yAB = _mm_sub_pd(_mm_set_pd(pb[1], pa[1]), ey);
  const __m128d yCD = _mm_sub_pd(_mm_set_pd(pd[1], pc[1]), ey);
  const __m128d zAB = _mm_sub_pd(_mm_set_pd(pb[2], pa[2]), ez);
  const __m128d zCD = _mm_sub_pd(_mm_set_pd(pd[2], pc[2]), ez);
  // Rotated lanes: (b,c) and (d,a).
  const __m128d xBC = _mm_shuffle_pd(xAB, xCD, 1), xDA = _mm_shuffle_pd(xCD, xAB, 1);
  const __m128d yBC = _mm_shuffle_pd(yAB, yCD, 1), yDA = _mm_shuffle_pd(yCD, yAB, 1);
  const __m128d zBC = _mm_shuffle_pd(zAB, zCD, 1), zDA = _mm_shuffle_pd(zCD, zAB, 1);

  // (aexbey, bexcey) - (bexaey, cexbey) = (ab, bc)
  const __m128d p1 = _mm_mul_pd(xAB, yBC), q1 = _mm_mul_pd(xBC, yAB);
  // (cexdey, dexaey) - (dexcey, aexdey) = (cd, da)
  const __m128d p2 = _mm_mul_pd(xCD, yDA), q2 = _mm_mul_pd(xDA, yCD);
  // (aexcey, bexdey) - (cexaey, dexbey) = (ac, bd)
  const __m128d p3 = _mm_mul_pd(xAB, yCD), q3 = _mm_mul_pd(xCD, yAB);
  const __m128d abBC = _mm_sub_pd(p1, q1), cdDA = _mm_sub_pd(p2, q2), acBD = _mm_sub_pd(p3, q3);
  const __m128d bcCD = _mm_shuffle_pd(abBC, cdDA, 1); // (bc, cd)
  const __m128d daAB = _mm_shuffle_pd(cdDA, abBC, 1); // (da, ab)

  // (abc, bcd) = (aez,bez)*(bc,cd) - (bez,cez)*(ac,bd) + (cez,dez)*(ab,bc)
  const __m128d abcBCD = _mm_add_pd(_mm_sub_pd(_mm_mul_pd(zAB, bcCD), _mm_mul_pd(zBC, acBD)),
                                    _mm_mul_pd(zCD, abBC));
  // (cda, dab) = (cez,dez)*(da,ab) + (dez,aez)*(ac,bd) + (aez,bez)*(cd,da)
  const __m128d cdaDAB = _mm_add_pd(_mm_add_pd(_mm_mul_pd(zCD, daAB), _mm_mul_pd(zDA, acBD)),
                                    _mm_mul_pd(zAB, cdDA));
  // (alift, blift) and (clift, dlift)
  const __m128d liftAB =
      _mm_add_pd(_mm_add_pd(_mm_mul_pd(xAB, xAB), _mm_mul_pd(yAB, yAB)), _mm_mul_pd(zAB, zAB));
  const __m128d liftCD =
      _mm_add_pd(_mm_add_pd(_mm_mul_pd(xCD, xCD), _mm_mul_pd(yCD, yCD)), _mm_mul_pd(zCD, zCD));
  // (dlift*abc - clift*dab, blift*cda - alift*bcd)
  const __m128d halves =
      _mm_sub_pd(_mm_mul_pd(_mm_unpackhi_pd(liftCD, liftAB), _mm_unpacklo_pd(abcBCD, cdaDAB)),
                 _mm_mul_pd(_mm_unpacklo_pd(liftCD, liftAB), _mm_unpackhi_pd(cdaDAB, abcBCD)));
  det = _mm_cvtsd_f64(halves) + _mm_cvtsd_f64(_mm_unpackhi_pd(halves, halves));

  const __m128d absMask = _mm_castsi128_pd(_mm_set1_epi64x(0x7fffffffffffffffLL));
  // (s_ab, s_bc), (s_cd, s_da), (s_ac, s_bd): sums of absolute products
  const __m128d sAB = _mm_add_pd(_mm_and_pd(p1, absMask), _mm_and_pd(q1, absMask));
  const __m128d sCD = _mm_add_pd(_mm_and_pd(p2, absMask), _mm_and_pd(q2, absMask));
  const __m128d sAC = _mm_add_pd(_mm_and_pd(p3, absMask), _mm_and_pd(q3, absMask));
  const __m128d zpAB = _mm_and_pd(zAB, absMask), zpCD = _mm_and_pd(zCD, absMask);
  const __m128d zpBC = _mm_shuffle_pd(zpAB, zpCD, 1), zpDA = _mm_shuffle_pd(zpCD, zpAB, 1);
  const __m128d sBDAC = _mm_shuffle_pd(sAC, sAC, 1);      // (s_bd, s_ac)
  const __m128d sBCCD = _mm_shuffle_pd(sAB, sCD, 1);      // (s_bc, s_cd)
  const __m128d sDAAB = _mm_shuffle_pd(sCD, sAB, 1);      // (s_da, s_ab)
  // (A, B) = (s_cd,s_da)*(bez+,cez+) + (s_bd,s_ac)*(cez+,dez+) + (s_bc,s_cd)*(dez+,aez+)
  const __m128d termAB = _mm_add_pd(_mm_add_pd(_mm_mul_pd(sCD, zpBC), _mm_mul_pd(sBDAC, zpCD)),
                                    _mm_mul_pd(sBCCD, zpDA));
  // (C, D) = (s_ab,s_bc)*(dez+,aez+) + (s_bd,s_ac)*(aez+,bez+) + (s_da,s_ab)*(bez+,cez+)
  const __m128d termCD = _mm_add_pd(_mm_add_pd(_mm_mul_pd(sAB, zpDA), _mm_mul_pd(sBDAC, zpAB)),
                                    _mm_mul_pd(sDAAB, zpBC));
  const __m128d pAB = _mm_mul_pd(termAB, liftAB), pCD = _mm_mul_pd(termCD, liftCD);
  permanent = ((_mm_cvtsd_f64(pAB) + _mm_cvtsd_f64(_mm_unpackhi_pd(pAB, pAB))) + _mm_cvtsd_f64(pCD)) +
              _mm_cvtsd_f64(_mm_unpackhi_pd(pCD, pCD));
  // Lifts are never NaN (sums of squares), so the order of max is free.
  const __m128d lifts = _mm_max_pd(liftAB, liftCD);
  const double maxLift = _mm_cvtsd_f64(_mm_max_sd(lifts, _mm_unpackhi_pd(lifts, lifts)));
  floor = (maxLift * maxLift + 1.0) * 0x1p-1000;
}
#endif

// The paired form where SSE2 is there, else the scalar one: the same bits.
[[gnu::always_inline]]
inline void insphereFilterFastest(const double* pa, const double* pb, const double* pc,
                                  const double* pd, const double* pe, double& det,
                                  double& permanent, double& floor) {
#if defined(__SSE2__)
  insphereFilterSse2(pa, pb, pc, pd, pe, det, permanent, floor);
#else
  insphereFilter(pa, pb, pc, pd, pe, det, permanent, floor);
#endif
}

} // namespace kernels

// ---------------------------------------------------------------------------
// The inline forms of the orientation and sphere tests. With bFloorFree the
// filters leave out their floor for underflow, which holds only while every
// coordinate is floor-free (see above); without it they are the public
// getOrientation3 and sphereInclusionTest, for any finite coordinates.

// What the two inline forms do when their filter leaves the sign open, out of
// line and reading the coordinates again, so that the inline forms hand no
// array to the adaptive stages and keep their coordinates in registers: the
// exact orientation determinant (0 at once for an exactly zero permanent,
// else orient3dadapt); for the sphere the corner test by pointer, then the
// class of insphereadapt.
double orientationUndecided(const ExactTest& t, const Point3* a, const Point3* b,
                            const Point3* c, const Point3* d, double permanent);
SphereInclusion sphereInclusionUndecided(const ExactTest& t, Tet3* pTet, const Point3* pQ,
                                         double permanent);
// goToHell("getOrientation3, pC==NULL"); the caller then goes on.
void reportNullFacetTet();
// A facet index above 3 ends the process with status 1, without a message.
[[noreturn]] void badFacetIndex();

template <bool bFloorFree>
[[gnu::always_inline]] inline Orientation3 orientationOf(const ExactTest& t, const Point3* a, const Point3* b,
                                  const Point3* c, const Point3* d) {
  double p[4][3];
  kernels::orientationTestCoordinates(a, b, c, d, p);
  double det, permanent, floor;
  kernels::orient3dFilter(p[0], p[1], p[2], p[3], det, permanent, floor);
  const double errbound = t.o3derrboundA * permanent + (bFloorFree ? 0.0 : floor);
  // Without underflow a zero permanent is an exact zero of every term.
  if (!kernels::filterDecides(det, errbound) && (!bFloorFree || permanent != 0.0))
    det = orientationUndecided(t, a, b, c, d, permanent);
  // The published determinant is negative when d sees a, b, c counterclockwise.
  if (det < 0.0) return ORIENTATION3_POSITIVE;
  if (det > 0.0) return ORIENTATION3_NEGATIVE;
  return ORI3_ZERO;
}

template <bool bFloorFree>
[[gnu::always_inline]] inline Orientation3 orientationOfFacet(const ExactTest& t, Tet3* pC, int ith, const Point3* pQ) {
  if (pC == nullptr) reportNullFacetTet();
  switch (ith) {
  case 0: return orientationOf<bFloorFree>(t, pC->getCorner(1), pC->getCorner(3), pC->getCorner(2), pQ);
  case 1: return orientationOf<bFloorFree>(t, pC->getCorner(0), pC->getCorner(2), pC->getCorner(3), pQ);
  case 2: return orientationOf<bFloorFree>(t, pC->getCorner(0), pC->getCorner(3), pC->getCorner(1), pQ);
  case 3: return orientationOf<bFloorFree>(t, pC->getCorner(0), pC->getCorner(1), pC->getCorner(2), pQ);
  default: badFacetIndex();
  }
}

template <bool bFloorFree>
inline SphereInclusion sphereInclusionOf(const ExactTest& t, Tet3* pTet, const Point3* pQ) {
  double p[5][3];
  kernels::sphereTestCoordinates(pTet, pQ, p);
  double det, permanent, floor;
  kernels::insphereFilterFastest(p[0], p[1], p[2], p[3], p[4], det, permanent, floor);
  const double errbound = t.isperrboundA * permanent + (bFloorFree ? 0.0 : floor);
  // Decided only when |det| exceeds the bound, as published.
  if (!kernels::filterDecides(det, errbound)) return sphereInclusionUndecided(t, pTet, pQ, permanent);
  // A positively oriented Tet3 has a negative published orientation, so a
  // negative published insphere determinant means strictly inside.
  return det > 0.0 ? SIC_OUTSIDE : SIC_INSIDE;
}

} // namespace VELM3D

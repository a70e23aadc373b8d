// BrixTest3.cpp: the published stages of the exact predicates, by
// adaptive-precision expansion arithmetic after J. R. Shewchuk, "Adaptive
// Precision Floating-Point Arithmetic and Fast Robust Geometric Predicates",
// Discrete & Computational Geometry 18 (1997). In this order:
//  - exactinit and the expansion routines. An expansion: doubles,
//    nonoverlapping, by increasing magnitude, whose exact sum is the value;
//    its length travels beside it.
//  - The planar predicates, orient2d and incircle.
//  - The orientation in space, orient3d.
//  - The sphere test, insphere. Its adaptive stage tries two shortcuts before
//    its expansions, exact small-integer differences and a double-double
//    evaluation; each answers only when its answer is the exact sign.
//  - The undecided paths of the two tests the mesh uses and their public
//    entries (the inline forms are in BrixTest3Inline.h).
// Precondition: IEEE double, round-to-nearest, no fused multiply-add, no
// excess precision, no re-association (-ffp-contract=off). The adaptive and
// exact stages run the published arithmetic only on coordinates in the
// published range (BrixTest3AnyDouble.h) and hand any other finite input to
// BrixTest3AnyDouble.cpp. NAMEfast is the plain determinant, NAME the
// filtered predicate, NAMEadapt its adaptive stages, NAMEexact the exact sum;
// a _zeroelim routine drops zeros (a zero result is length 1 holding 0).
// Signs: orient2d > 0 when a, b, c run counterclockwise; incircle > 0 when d
// is inside the circle through a, b, c (counterclockwise); orient3d > 0 when d
// is below the plane of a, b, c (counterclockwise from above); insphere > 0
// when e is inside the sphere of a, b, c, d (orient3d > 0). The adaptive and
// exact sphere stages answer classes: 1 positive, 0 negative, 2 zero. A Tet3
// is POSITIVE in getOrientation3, so a negative orient3d; INSIDE is a negative
// insphere.
#include "BrixTest3AnyDouble.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "freeFunctions.h"

namespace VELM3D {

std::string ExactTest::getOriString(Orientation3 ori) const {
  if (ori == ORIENTATION3_POSITIVE) return "ORI3_ORIENTATION3_POSITIVE";
  if (ori == ORIENTATION3_NEGATIVE) return "ORI3_ORIENTATION3_NEGATIVE";
  if (ori == ORI3_ZERO) return "ORI3_ZERO";
  // The report names this line; the lines above keep their count.
  VELM_ASSERT(false);
}

void reportNullFacetTet() { goToHell("getOrientation3, pC==NULL"); }

void badFacetIndex() { exit(1); }

// Measures epsilon (half an ulp of 1) and the splitter on this machine, then
// derives the error bounds of the filters and adaptive stages from epsilon.
void ExactTest::exactinit() {
  bool bEveryOther = true;
  double check = 1.0, lastcheck;
  splitter = 1.0;
  epsilon = 1.0;
  do {
    lastcheck = check;
    epsilon *= 0.5;
    if (bEveryOther) splitter *= 2.0;
    bEveryOther = !bEveryOther;
    check = 1.0 + epsilon;
  } while ((check != 1.0) && (check != lastcheck));
  splitter += 1.0;

  resulterrbound = (3.0 + 8.0 * epsilon) * epsilon;
  ccwerrboundA = (3.0 + 16.0 * epsilon) * epsilon;
  ccwerrboundB = (2.0 + 12.0 * epsilon) * epsilon;
  ccwerrboundC = (9.0 + 64.0 * epsilon) * epsilon * epsilon;
  o3derrboundA = (7.0 + 56.0 * epsilon) * epsilon;
  o3derrboundB = (3.0 + 28.0 * epsilon) * epsilon;
  o3derrboundC = (26.0 + 288.0 * epsilon) * epsilon * epsilon;
  iccerrboundA = (10.0 + 96.0 * epsilon) * epsilon;
  iccerrboundB = (4.0 + 48.0 * epsilon) * epsilon;
  iccerrboundC = (44.0 + 576.0 * epsilon) * epsilon * epsilon;
  isperrboundA = (16.0 + 224.0 * epsilon) * epsilon;
  isperrboundB = (5.0 + 72.0 * epsilon) * epsilon;
  isperrboundC = (71.0 + 1408.0 * epsilon) * epsilon * epsilon;
}

// ---------------------------------------------------------------------------
// Expansion sums. The output may not alias an input, except where the
// publication allows it (h may be e in grow_expansion and expansion_sum).

int grow_expansion(int elen, double* e, double b, double* h) {
  double Q = b;
  int eindex;
  for (eindex = 0; eindex < elen; eindex++) {
    double Qnew;
    Two_Sum(Q, e[eindex], Qnew, h[eindex]);
    Q = Qnew;
  }
  h[eindex] = Q;
  return eindex + 1;
}

int grow_expansion_zeroelim(int elen, double* e, double b, double* h) {
  double Q = b, Qnew, hh;
  int hindex = 0;
  for (int eindex = 0; eindex < elen; eindex++) {
    Two_Sum(Q, e[eindex], Qnew, hh);
    Q = Qnew;
    if (hh != 0.0) h[hindex++] = hh;
  }
  if ((Q != 0.0) || (hindex == 0)) h[hindex++] = Q;
  return hindex;
}

int expansion_sum(int elen, double* e, int flen, double* f, double* h) {
  double Q = f[0], Qnew;
  int hindex;
  for (hindex = 0; hindex < elen; hindex++) {
    Two_Sum(Q, e[hindex], Qnew, h[hindex]);
    Q = Qnew;
  }
  h[hindex] = Q;
  int hlast = hindex;
  for (int findex = 1; findex < flen; findex++) {
    Q = f[findex];
    for (hindex = findex; hindex <= hlast; hindex++) {
      Two_Sum(Q, h[hindex], Qnew, h[hindex]);
      Q = Qnew;
    }
    h[++hlast] = Q;
  }
  return hlast + 1;
}

int expansion_sum_zeroelim1(int elen, double* e, int flen, double* f, double* h) {
  const int hlast = expansion_sum(elen, e, flen, f, h) - 1;
  int hindex = -1;
  for (int index = 0; index <= hlast; index++) {
    if (h[index] != 0.0) h[++hindex] = h[index];
  }
  return (hindex == -1) ? 1 : hindex + 1;
}

int expansion_sum_zeroelim2(int elen, double* e, int flen, double* f, double* h) {
  double Q = f[0], Qnew, hh;
  int hindex = 0;
  for (int eindex = 0; eindex < elen; eindex++) {
    Two_Sum(Q, e[eindex], Qnew, hh);
    Q = Qnew;
    if (hh != 0.0) h[hindex++] = hh;
  }
  h[hindex] = Q;
  int hlast = hindex;
  for (int findex = 1; findex < flen; findex++) {
    hindex = 0;
    Q = f[findex];
    for (int eindex = 0; eindex <= hlast; eindex++) {
      Two_Sum(Q, h[eindex], Qnew, hh);
      Q = Qnew;
      if (hh != 0.0) h[hindex++] = hh;
    }
    h[hindex] = Q;
    hlast = hindex;
  }
  return hlast + 1;
}

namespace {

// The merge order of the fast and linear sums: f's next component goes first
// unless it is larger in magnitude than e's. Reads stop at each end, so that
// no component past an input is touched.
inline bool eFirst(double enow, double fnow) { return (fnow > enow) == (fnow > -enow); }

} // namespace

int fast_expansion_sum(int elen, double* e, int flen, double* f, double* h) {
  double enow = e[0], fnow = f[0], Q, Qnew;
  int eindex = 0, findex = 0, hindex = 0;
  if (eFirst(enow, fnow)) {
    Q = enow;
    if (++eindex < elen) enow = e[eindex];
  } else {
    Q = fnow;
    if (++findex < flen) fnow = f[findex];
  }
  if ((eindex < elen) && (findex < flen)) {
    if (eFirst(enow, fnow)) {
      Fast_Two_Sum(enow, Q, Qnew, h[0]);
      if (++eindex < elen) enow = e[eindex];
    } else {
      Fast_Two_Sum(fnow, Q, Qnew, h[0]);
      if (++findex < flen) fnow = f[findex];
    }
    Q = Qnew;
    hindex = 1;
    while ((eindex < elen) && (findex < flen)) {
      if (eFirst(enow, fnow)) {
        Two_Sum(Q, enow, Qnew, h[hindex]);
        if (++eindex < elen) enow = e[eindex];
      } else {
        Two_Sum(Q, fnow, Qnew, h[hindex]);
        if (++findex < flen) fnow = f[findex];
      }
      Q = Qnew;
      hindex++;
    }
  }
  while (eindex < elen) {
    Two_Sum(Q, enow, Qnew, h[hindex]);
    if (++eindex < elen) enow = e[eindex];
    Q = Qnew;
    hindex++;
  }
  while (findex < flen) {
    Two_Sum(Q, fnow, Qnew, h[hindex]);
    if (++findex < flen) fnow = f[findex];
    Q = Qnew;
    hindex++;
  }
  h[hindex] = Q;
  return hindex + 1;
}

int fast_expansion_sum_zeroelim(int elen, double* e, int flen, double* f, double* h) {
  double enow = e[0], fnow = f[0], Q, Qnew, hh;
  int eindex = 0, findex = 0, hindex = 0;
  if (eFirst(enow, fnow)) {
    Q = enow;
    if (++eindex < elen) enow = e[eindex];
  } else {
    Q = fnow;
    if (++findex < flen) fnow = f[findex];
  }
  if ((eindex < elen) && (findex < flen)) {
    if (eFirst(enow, fnow)) {
      Fast_Two_Sum(enow, Q, Qnew, hh);
      if (++eindex < elen) enow = e[eindex];
    } else {
      Fast_Two_Sum(fnow, Q, Qnew, hh);
      if (++findex < flen) fnow = f[findex];
    }
    Q = Qnew;
    if (hh != 0.0) h[hindex++] = hh;
    while ((eindex < elen) && (findex < flen)) {
      if (eFirst(enow, fnow)) {
        Two_Sum(Q, enow, Qnew, hh);
        if (++eindex < elen) enow = e[eindex];
      } else {
        Two_Sum(Q, fnow, Qnew, hh);
        if (++findex < flen) fnow = f[findex];
      }
      Q = Qnew;
      if (hh != 0.0) h[hindex++] = hh;
    }
  }
  while (eindex < elen) {
    Two_Sum(Q, enow, Qnew, hh);
    if (++eindex < elen) enow = e[eindex];
    Q = Qnew;
    if (hh != 0.0) h[hindex++] = hh;
  }
  while (findex < flen) {
    Two_Sum(Q, fnow, Qnew, hh);
    if (++findex < flen) fnow = f[findex];
    Q = Qnew;
    if (hh != 0.0) h[hindex++] = hh;
  }
  if ((Q != 0.0) || (hindex == 0)) h[hindex++] = Q;
  return hindex;
}

namespace {

// The first two steps of both linear sums: g0 is the smallest component of
// all, then q + Q the running sum of it and the next one.
inline void linearSumStart(int elen, double* e, int flen, double* f, double& enow, double& fnow,
                           int& eindex, int& findex, double& Q, double& q) {
  enow = e[0];
  fnow = f[0];
  eindex = findex = 0;
  double g0;
  if (eFirst(enow, fnow)) {
    g0 = enow;
    if (++eindex < elen) enow = e[eindex];
  } else {
    g0 = fnow;
    if (++findex < flen) fnow = f[findex];
  }
  if ((eindex < elen) && ((findex >= flen) || eFirst(enow, fnow))) {
    Fast_Two_Sum(enow, g0, Q, q);
    if (++eindex < elen) enow = e[eindex];
  } else {
    Fast_Two_Sum(fnow, g0, Q, q);
    if (++findex < flen) fnow = f[findex];
  }
}

// One merge step of the linear sums: adds the next component g to (Q, q) and
// gives the finished component hh.
inline void linearSumStep(int elen, double* e, int flen, double* f, double& enow, double& fnow,
                          int& eindex, int& findex, double& Q, double& q, double& hh) {
  double R, Qnew;
  if ((eindex < elen) && ((findex >= flen) || eFirst(enow, fnow))) {
    Fast_Two_Sum(enow, q, R, hh);
    if (++eindex < elen) enow = e[eindex];
  } else {
    Fast_Two_Sum(fnow, q, R, hh);
    if (++findex < flen) fnow = f[findex];
  }
  Two_Sum(Q, R, Qnew, q);
  Q = Qnew;
}

} // namespace

int linear_expansion_sum(int elen, double* e, int flen, double* f, double* h) {
  double enow, fnow, Q, q;
  int eindex, findex, hindex;
  linearSumStart(elen, e, flen, f, enow, fnow, eindex, findex, Q, q);
  for (hindex = 0; hindex < elen + flen - 2; hindex++)
    linearSumStep(elen, e, flen, f, enow, fnow, eindex, findex, Q, q, h[hindex]);
  h[hindex] = q;
  h[hindex + 1] = Q;
  return hindex + 2;
}

int linear_expansion_sum_zeroelim(int elen, double* e, int flen, double* f, double* h) {
  double enow, fnow, Q, q, hh;
  int eindex, findex, hindex = 0;
  linearSumStart(elen, e, flen, f, enow, fnow, eindex, findex, Q, q);
  for (int count = 2; count < elen + flen; count++) {
    linearSumStep(elen, e, flen, f, enow, fnow, eindex, findex, Q, q, hh);
    if (hh != 0.0) h[hindex++] = hh;
  }
  if (q != 0.0) h[hindex++] = q;
  if ((Q != 0.0) || (hindex == 0)) h[hindex++] = Q;
  return hindex;
}

int ExactTest::scale_expansion(int elen, double* e, double b, double* h) const {
  double bhi, blo, Q, sum, product1, product0;
  Split(b, bhi, blo, splitter);
  Two_Product_Presplit(e[0], b, bhi, blo, Q, h[0], splitter);
  int hindex = 1;
  for (int eindex = 1; eindex < elen; eindex++) {
    Two_Product_Presplit(e[eindex], b, bhi, blo, product1, product0, splitter);
    Two_Sum(Q, product0, sum, h[hindex]);
    hindex++;
    Two_Sum(product1, sum, Q, h[hindex]);
    hindex++;
  }
  h[hindex] = Q;
  return elen + elen;
}

int ExactTest::scale_expansion_zeroelim(int elen, double* e, double b, double* h) const {
  double bhi, blo, Q, sum, hh, product1, product0;
  Split(b, bhi, blo, splitter);
  Two_Product_Presplit(e[0], b, bhi, blo, Q, hh, splitter);
  int hindex = 0;
  if (hh != 0.0) h[hindex++] = hh;
  for (int eindex = 1; eindex < elen; eindex++) {
    Two_Product_Presplit(e[eindex], b, bhi, blo, product1, product0, splitter);
    Two_Sum(Q, product0, sum, hh);
    if (hh != 0.0) h[hindex++] = hh;
    Fast_Two_Sum(product1, sum, Q, hh);
    if (hh != 0.0) h[hindex++] = hh;
  }
  if ((Q != 0.0) || (hindex == 0)) h[hindex++] = Q;
  return hindex;
}

int compress(int elen, double* e, double* h) {
  int bottom = elen - 1;
  double Q = e[bottom], Qnew, q;
  for (int eindex = elen - 2; eindex >= 0; eindex--) {
    Fast_Two_Sum(Q, e[eindex], Qnew, q);
    if (q != 0.0) {
      h[bottom--] = Qnew;
      Q = q;
    } else {
      Q = Qnew;
    }
  }
  int top = 0;
  for (int hindex = bottom + 1; hindex < elen; hindex++) {
    Fast_Two_Sum(h[hindex], Q, Qnew, q);
    if (q != 0.0) h[top++] = q;
    Q = Qnew;
  }
  h[top] = Q;
  return top + 1;
}

double estimate(int elen, double* e) {
  double Q = e[0];
  for (int eindex = 1; eindex < elen; eindex++) Q += e[eindex];
  return Q;
}

namespace {

// fin := fin + (len, e), with the two final buffers trading places.
inline void addToFinal(int& finlength, double*& finnow, double*& finother, int len, double* e) {
  finlength = fast_expansion_sum_zeroelim(finlength, finnow, len, e, finother);
  std::swap(finnow, finother);
}

} // namespace

// ---------------------------------------------------------------------------
// Planar predicates.

double orient2dfast(double* pa, double* pb, double* pc) {
  const double acx = pa[0] - pc[0], bcx = pb[0] - pc[0];
  const double acy = pa[1] - pc[1], bcy = pb[1] - pc[1];
  return acx * bcy - acy * bcx;
}

double ExactTest::orient2dadapt(double* pa, double* pb, double* pc, double detsum) const {
  const double coords[6] = {pa[0], pa[1], pb[0], pb[1], pc[0], pc[1]};
  if (!inPublishedRange(coords, 6)) {
    double* const pts[3] = {pa, pb, pc};
    return anyRangeSign(*this, PredicateKind::ORIENT2D, pts);
  }
  const double acx = pa[0] - pc[0], bcx = pb[0] - pc[0];
  const double acy = pa[1] - pc[1], bcy = pb[1] - pc[1];
  double detleft, detlefttail, detright, detrighttail;
  double B[4], C1[8], C2[12], D[16], u[4];
  double s1, s0, t1, t0;

  Two_Product(acx, bcy, detleft, detlefttail, splitter);
  Two_Product(acy, bcx, detright, detrighttail, splitter);
  Two_Two_Diff(detleft, detlefttail, detright, detrighttail, B[3], B[2], B[1], B[0]);

  double det = estimate(4, B);
  double errbound = ccwerrboundB * detsum;
  if ((det >= errbound) || (-det >= errbound)) return det;

  double acxtail, acytail, bcxtail, bcytail;
  Two_Diff_Tail(pa[0], pc[0], acx, acxtail);
  Two_Diff_Tail(pb[0], pc[0], bcx, bcxtail);
  Two_Diff_Tail(pa[1], pc[1], acy, acytail);
  Two_Diff_Tail(pb[1], pc[1], bcy, bcytail);
  if ((acxtail == 0.0) && (acytail == 0.0) && (bcxtail == 0.0) && (bcytail == 0.0)) return det;

  errbound = ccwerrboundC * detsum + resulterrbound * std::fabs(det);
  det += (acx * bcytail + bcy * acxtail) - (acy * bcxtail + bcx * acytail);
  if ((det >= errbound) || (-det >= errbound)) return det;

  Two_Product(acxtail, bcy, s1, s0, splitter);
  Two_Product(acytail, bcx, t1, t0, splitter);
  Two_Two_Diff(s1, s0, t1, t0, u[3], u[2], u[1], u[0]);
  const int C1length = fast_expansion_sum_zeroelim(4, B, 4, u, C1);

  Two_Product(acx, bcytail, s1, s0, splitter);
  Two_Product(acy, bcxtail, t1, t0, splitter);
  Two_Two_Diff(s1, s0, t1, t0, u[3], u[2], u[1], u[0]);
  const int C2length = fast_expansion_sum_zeroelim(C1length, C1, 4, u, C2);

  Two_Product(acxtail, bcytail, s1, s0, splitter);
  Two_Product(acytail, bcxtail, t1, t0, splitter);
  Two_Two_Diff(s1, s0, t1, t0, u[3], u[2], u[1], u[0]);
  const int Dlength = fast_expansion_sum_zeroelim(C2length, C2, 4, u, D);

  return D[Dlength - 1];
}

double ExactTest::orient2d(double* pa, double* pb, double* pc) const {
  const double acx = pa[0] - pc[0], bcy = pb[1] - pc[1];
  const double acy = pa[1] - pc[1], bcx = pb[0] - pc[0];
  const double detleft = acx * bcy;
  const double detright = acy * bcx;
  const double det = detleft - detright;
  double detsum;
  if (detleft > 0.0) {
    if (detright <= 0.0) return det;
    detsum = detleft + detright;
  } else if (detleft < 0.0) {
    if (detright >= 0.0) return det;
    detsum = -detleft - detright;
  } else {
    // detleft is 0, or NaN: 0 times a difference that overflowed. A product
    // rounds to 0 from nonzero factors only below 2^-1075; a nonzero other
    // product is then larger and its sign decides. Two zeros decide only
    // when each is an exact one. Anything else is for the adaptive stages.
    if (detleft == 0.0 && (detright > 0.0 || detright < 0.0)) return det;
    // Two exact zeros; one of them may be 0 times an overflowed difference.
    if ((acx == 0.0 || bcy == 0.0) && (acy == 0.0 || bcx == 0.0)) return 0.0;
    return orient2dadapt(pa, pb, pc, std::fabs(detleft) + std::fabs(detright));
  }
  // Two products below the normal range cost at most 2^-1074.
  const double errbound = ccwerrboundA * detsum + 0x1p-1000;
  if ((det >= errbound) || (-det >= errbound)) return det;
  return orient2dadapt(pa, pb, pc, detsum);
}

double incirclefast(double* pa, double* pb, double* pc, double* pd) {
  const double adx = pa[0] - pd[0], ady = pa[1] - pd[1];
  const double bdx = pb[0] - pd[0], bdy = pb[1] - pd[1];
  const double cdx = pc[0] - pd[0], cdy = pc[1] - pd[1];
  const double abdet = adx * bdy - bdx * ady;
  const double bcdet = bdx * cdy - cdx * bdy;
  const double cadet = cdx * ady - adx * cdy;
  const double alift = adx * adx + ady * ady;
  const double blift = bdx * bdx + bdy * bdy;
  const double clift = cdx * cdx + cdy * cdy;
  return alift * bcdet + blift * cadet + clift * abdet;
}

namespace {

// The two-by-two minor x1*y2 - x2*y1 of heads as an exact 4-expansion.
inline void minor2(double x1, double y2, double x2, double y1, double* m, double splitter) {
  double p1, p0, q1, q0;
  Two_Product(x1, y2, p1, p0, splitter);
  Two_Product(x2, y1, q1, q0, splitter);
  Two_Two_Diff(p1, p0, q1, q0, m[3], m[2], m[1], m[0]);
}

} // namespace

double ExactTest::incircleadapt(double* pa, double* pb, double* pc, double* pd,
                                double permanent) const {
  const double coords[8] = {pa[0], pa[1], pb[0], pb[1], pc[0], pc[1], pd[0], pd[1]};
  if (!inPublishedRange(coords, 8)) {
    double* const pts[4] = {pa, pb, pc, pd};
    return anyRangeSign(*this, PredicateKind::INCIRCLE, pts);
  }
  const double adx = pa[0] - pd[0], bdx = pb[0] - pd[0], cdx = pc[0] - pd[0];
  const double ady = pa[1] - pd[1], bdy = pb[1] - pd[1], cdy = pc[1] - pd[1];

  double bc[4], ca[4], ab[4];
  double axbc[8], axxbc[16], aybc[8], ayybc[16], adet[32];
  double bxca[8], bxxca[16], byca[8], byyca[16], bdet[32];
  double cxab[8], cxxab[16], cyab[8], cyyab[16], cdet[32];
  double abdet[64];
  double fin1[1152], fin2[1152];

  minor2(bdx, cdy, cdx, bdy, bc, splitter);
  int axbclen = scale_expansion_zeroelim(4, bc, adx, axbc);
  int axxbclen = scale_expansion_zeroelim(axbclen, axbc, adx, axxbc);
  int aybclen = scale_expansion_zeroelim(4, bc, ady, aybc);
  int ayybclen = scale_expansion_zeroelim(aybclen, aybc, ady, ayybc);
  const int alen = fast_expansion_sum_zeroelim(axxbclen, axxbc, ayybclen, ayybc, adet);

  minor2(cdx, ady, adx, cdy, ca, splitter);
  int bxcalen = scale_expansion_zeroelim(4, ca, bdx, bxca);
  int bxxcalen = scale_expansion_zeroelim(bxcalen, bxca, bdx, bxxca);
  int bycalen = scale_expansion_zeroelim(4, ca, bdy, byca);
  int byycalen = scale_expansion_zeroelim(bycalen, byca, bdy, byyca);
  const int blen = fast_expansion_sum_zeroelim(bxxcalen, bxxca, byycalen, byyca, bdet);

  minor2(adx, bdy, bdx, ady, ab, splitter);
  int cxablen = scale_expansion_zeroelim(4, ab, cdx, cxab);
  int cxxablen = scale_expansion_zeroelim(cxablen, cxab, cdx, cxxab);
  int cyablen = scale_expansion_zeroelim(4, ab, cdy, cyab);
  int cyyablen = scale_expansion_zeroelim(cyablen, cyab, cdy, cyyab);
  const int clen = fast_expansion_sum_zeroelim(cxxablen, cxxab, cyyablen, cyyab, cdet);

  const int ablen = fast_expansion_sum_zeroelim(alen, adet, blen, bdet, abdet);
  int finlength = fast_expansion_sum_zeroelim(ablen, abdet, clen, cdet, fin1);

  double det = estimate(finlength, fin1);
  double errbound = iccerrboundB * permanent;
  if ((det >= errbound) || (-det >= errbound)) return det;

  double adxtail, adytail, bdxtail, bdytail, cdxtail, cdytail;
  Two_Diff_Tail(pa[0], pd[0], adx, adxtail);
  Two_Diff_Tail(pa[1], pd[1], ady, adytail);
  Two_Diff_Tail(pb[0], pd[0], bdx, bdxtail);
  Two_Diff_Tail(pb[1], pd[1], bdy, bdytail);
  Two_Diff_Tail(pc[0], pd[0], cdx, cdxtail);
  Two_Diff_Tail(pc[1], pd[1], cdy, cdytail);
  if ((adxtail == 0.0) && (bdxtail == 0.0) && (cdxtail == 0.0) && (adytail == 0.0) &&
      (bdytail == 0.0) && (cdytail == 0.0))
    return det;

  errbound = iccerrboundC * permanent + resulterrbound * std::fabs(det);
  det += ((adx * adx + ady * ady) *
              ((bdx * cdytail + cdy * bdxtail) - (bdy * cdxtail + cdx * bdytail)) +
          2.0 * (adx * adxtail + ady * adytail) * (bdx * cdy - bdy * cdx)) +
         ((bdx * bdx + bdy * bdy) *
              ((cdx * adytail + ady * cdxtail) - (cdy * adxtail + adx * cdytail)) +
          2.0 * (bdx * bdxtail + bdy * bdytail) * (cdx * ady - cdy * adx)) +
         ((cdx * cdx + cdy * cdy) *
              ((adx * bdytail + bdy * adxtail) - (ady * bdxtail + bdx * adytail)) +
          2.0 * (cdx * cdxtail + cdy * cdytail) * (adx * bdy - ady * bdx));
  if ((det >= errbound) || (-det >= errbound)) return det;

  // At this point only the exact sum of all tail terms decides.
  double* finnow = fin1;
  double* finother = fin2;
  double aa[4], bb[4], cc[4];
  double ti1, ti0, tj1, tj0;
  double u[4], v[4];
  double temp8[8], temp16a[16], temp16b[16], temp16c[16];
  double temp32a[32], temp32b[32], temp48[48], temp64[64];
  int temp8len, temp16alen, temp16blen, temp16clen, temp32alen, temp32blen, temp48len, temp64len;
  double axtbb[8], axtcc[8], aytbb[8], aytcc[8];
  double bxtaa[8], bxtcc[8], bytaa[8], bytcc[8];
  double cxtaa[8], cxtbb[8], cytaa[8], cytbb[8];
  double axtbc[8], aytbc[8], bxtca[8], bytca[8], cxtab[8], cytab[8];
  int axtbclen = 0, aytbclen = 0, bxtcalen = 0, bytcalen = 0, cxtablen = 0, cytablen = 0;
  double axtbct[16], aytbct[16], bxtcat[16], bytcat[16], cxtabt[16], cytabt[16];
  double axtbctt[8], aytbctt[8], bxtcatt[8], bytcatt[8], cxtabtt[8], cytabtt[8];
  double abt[8], bct[8], cat[8];
  int abtlen, bctlen, catlen;
  double abtt[4], bctt[4], catt[4];
  int abttlen, bcttlen, cattlen;

  const bool bATail = (adxtail != 0.0) || (adytail != 0.0);
  const bool bBTail = (bdxtail != 0.0) || (bdytail != 0.0);
  const bool bCTail = (cdxtail != 0.0) || (cdytail != 0.0);
  if (bBTail || bCTail) {
    double x1, x0, y1, y0;
    Square(adx, x1, x0, splitter);
    Square(ady, y1, y0, splitter);
    Two_Two_Sum(x1, x0, y1, y0, aa[3], aa[2], aa[1], aa[0]);
  }
  if (bCTail || bATail) {
    double x1, x0, y1, y0;
    Square(bdx, x1, x0, splitter);
    Square(bdy, y1, y0, splitter);
    Two_Two_Sum(x1, x0, y1, y0, bb[3], bb[2], bb[1], bb[0]);
  }
  if (bATail || bBTail) {
    double x1, x0, y1, y0;
    Square(cdx, x1, x0, splitter);
    Square(cdy, y1, y0, splitter);
    Two_Two_Sum(x1, x0, y1, y0, cc[3], cc[2], cc[1], cc[0]);
  }

  // Terms linear in one tail: 2 h t (minor) + lift (derivative of a minor).
  auto addLinear = [&](double* tminor, int& tminorlen, double* minor, double tail, double twice,
                       double* liftP, double* tliftP, double factorP, double* liftM,
                       double* tliftM, double factorM) {
    tminorlen = scale_expansion_zeroelim(4, minor, tail, tminor);
    temp16alen = scale_expansion_zeroelim(tminorlen, tminor, twice, temp16a);
    int len = scale_expansion_zeroelim(4, liftP, tail, tliftP);
    temp16blen = scale_expansion_zeroelim(len, tliftP, factorP, temp16b);
    len = scale_expansion_zeroelim(4, liftM, tail, tliftM);
    temp16clen = scale_expansion_zeroelim(len, tliftM, factorM, temp16c);
    temp32alen = fast_expansion_sum_zeroelim(temp16alen, temp16a, temp16blen, temp16b, temp32a);
    temp48len = fast_expansion_sum_zeroelim(temp16clen, temp16c, temp32alen, temp32a, temp48);
    addToFinal(finlength, finnow, finother, temp48len, temp48);
  };
  if (adxtail != 0.0)
    addLinear(axtbc, axtbclen, bc, adxtail, 2.0 * adx, cc, axtcc, bdy, bb, axtbb, -cdy);
  if (adytail != 0.0)
    addLinear(aytbc, aytbclen, bc, adytail, 2.0 * ady, bb, aytbb, cdx, cc, aytcc, -bdx);
  if (bdxtail != 0.0)
    addLinear(bxtca, bxtcalen, ca, bdxtail, 2.0 * bdx, aa, bxtaa, cdy, cc, bxtcc, -ady);
  if (bdytail != 0.0)
    addLinear(bytca, bytcalen, ca, bdytail, 2.0 * bdy, cc, bytcc, adx, aa, bytaa, -cdx);
  if (cdxtail != 0.0)
    addLinear(cxtab, cxtablen, ab, cdxtail, 2.0 * cdx, bb, cxtbb, ady, aa, cxtaa, -bdy);
  if (cdytail != 0.0)
    addLinear(cytab, cytablen, ab, cdytail, 2.0 * cdy, aa, cytaa, bdx, bb, cytbb, -adx);

  // The first- and second-order tail parts of a minor (x1 y2 - x2 y1).
  auto tailMinors = [&](double x1, double x1t, double y2, double y2t, double x2, double x2t,
                        double y1, double y1t, double* t, int& tlen, double* tt, int& ttlen) {
    Two_Product(x1t, y2, ti1, ti0, splitter);
    Two_Product(x1, y2t, tj1, tj0, splitter);
    Two_Two_Sum(ti1, ti0, tj1, tj0, u[3], u[2], u[1], u[0]);
    Two_Product(x2t, -y1, ti1, ti0, splitter);
    Two_Product(x2, -y1t, tj1, tj0, splitter);
    Two_Two_Sum(ti1, ti0, tj1, tj0, v[3], v[2], v[1], v[0]);
    tlen = fast_expansion_sum_zeroelim(4, u, 4, v, t);
    Two_Product(x1t, y2t, ti1, ti0, splitter);
    Two_Product(x2t, y1t, tj1, tj0, splitter);
    Two_Two_Diff(ti1, ti0, tj1, tj0, tt[3], tt[2], tt[1], tt[0]);
    ttlen = 4;
  };
  // Terms of a point's lift tail (2 h t + t^2) with its minor's tails, and
  // one second-order cross term per other tail, as published.
  auto addCross = [&](double* tminor, int tminorlen, double tail, double head, double* t,
                      int tlen, double* tt_) {
    temp16alen = scale_expansion_zeroelim(tminorlen, tminor, tail, temp16a);
    const int tlen2 = scale_expansion_zeroelim(tlen, t, tail, tt_);
    temp32alen = scale_expansion_zeroelim(tlen2, tt_, 2.0 * head, temp32a);
    temp48len = fast_expansion_sum_zeroelim(temp16alen, temp16a, temp32alen, temp32a, temp48);
    addToFinal(finlength, finnow, finother, temp48len, temp48);
    return tlen2;
  };
  auto addCrossSecond = [&](double* tt_, int tlen2, double tail, double head, double* tt,
                            int ttlen, double* ttt) {
    temp32alen = scale_expansion_zeroelim(tlen2, tt_, tail, temp32a);
    const int len = scale_expansion_zeroelim(ttlen, tt, tail, ttt);
    temp16alen = scale_expansion_zeroelim(len, ttt, 2.0 * head, temp16a);
    temp16blen = scale_expansion_zeroelim(len, ttt, tail, temp16b);
    temp32blen = fast_expansion_sum_zeroelim(temp16alen, temp16a, temp16blen, temp16b, temp32b);
    temp64len = fast_expansion_sum_zeroelim(temp32alen, temp32a, temp32blen, temp32b, temp64);
    addToFinal(finlength, finnow, finother, temp64len, temp64);
  };
  auto addTwoTails = [&](double* lift, double tail1, double tail2) {
    temp8len = scale_expansion_zeroelim(4, lift, tail1, temp8);
    temp16alen = scale_expansion_zeroelim(temp8len, temp8, tail2, temp16a);
    addToFinal(finlength, finnow, finother, temp16alen, temp16a);
  };

  if (bATail) {
    if (bBTail || bCTail) {
      tailMinors(bdx, bdxtail, cdy, cdytail, cdx, cdxtail, bdy, bdytail, bct, bctlen, bctt,
                 bcttlen);
    } else {
      bct[0] = 0.0;
      bctlen = 1;
      bctt[0] = 0.0;
      bcttlen = 1;
    }
    if (adxtail != 0.0) {
      const int len = addCross(axtbc, axtbclen, adxtail, adx, bct, bctlen, axtbct);
      if (bdytail != 0.0) addTwoTails(cc, adxtail, bdytail);
      if (cdytail != 0.0) addTwoTails(bb, -adxtail, cdytail);
      addCrossSecond(axtbct, len, adxtail, adx, bctt, bcttlen, axtbctt);
    }
    if (adytail != 0.0) {
      const int len = addCross(aytbc, aytbclen, adytail, ady, bct, bctlen, aytbct);
      addCrossSecond(aytbct, len, adytail, ady, bctt, bcttlen, aytbctt);
    }
  }
  if (bBTail) {
    if (bCTail || bATail) {
      tailMinors(cdx, cdxtail, ady, adytail, adx, adxtail, cdy, cdytail, cat, catlen, catt,
                 cattlen);
    } else {
      cat[0] = 0.0;
      catlen = 1;
      catt[0] = 0.0;
      cattlen = 1;
    }
    if (bdxtail != 0.0) {
      const int len = addCross(bxtca, bxtcalen, bdxtail, bdx, cat, catlen, bxtcat);
      if (cdytail != 0.0) addTwoTails(aa, bdxtail, cdytail);
      if (adytail != 0.0) addTwoTails(cc, -bdxtail, adytail);
      addCrossSecond(bxtcat, len, bdxtail, bdx, catt, cattlen, bxtcatt);
    }
    if (bdytail != 0.0) {
      const int len = addCross(bytca, bytcalen, bdytail, bdy, cat, catlen, bytcat);
      addCrossSecond(bytcat, len, bdytail, bdy, catt, cattlen, bytcatt);
    }
  }
  if (bCTail) {
    if (bATail || bBTail) {
      tailMinors(adx, adxtail, bdy, bdytail, bdx, bdxtail, ady, adytail, abt, abtlen, abtt,
                 abttlen);
    } else {
      abt[0] = 0.0;
      abtlen = 1;
      abtt[0] = 0.0;
      abttlen = 1;
    }
    if (cdxtail != 0.0) {
      const int len = addCross(cxtab, cxtablen, cdxtail, cdx, abt, abtlen, cxtabt);
      if (adytail != 0.0) addTwoTails(bb, cdxtail, adytail);
      if (bdytail != 0.0) addTwoTails(aa, -cdxtail, bdytail);
      addCrossSecond(cxtabt, len, cdxtail, cdx, abtt, abttlen, cxtabtt);
    }
    if (cdytail != 0.0) {
      const int len = addCross(cytab, cytablen, cdytail, cdy, abt, abtlen, cytabt);
      addCrossSecond(cytabt, len, cdytail, cdy, abtt, abttlen, cytabtt);
    }
  }
  return finnow[finlength - 1];
}

double ExactTest::incircle(double* pa, double* pb, double* pc, double* pd) const {
  const double adx = pa[0] - pd[0], bdx = pb[0] - pd[0], cdx = pc[0] - pd[0];
  const double ady = pa[1] - pd[1], bdy = pb[1] - pd[1], cdy = pc[1] - pd[1];
  const double bdxcdy = bdx * cdy, cdxbdy = cdx * bdy;
  const double alift = adx * adx + ady * ady;
  const double cdxady = cdx * ady, adxcdy = adx * cdy;
  const double blift = bdx * bdx + bdy * bdy;
  const double adxbdy = adx * bdy, bdxady = bdx * ady;
  const double clift = cdx * cdx + cdy * cdy;
  const double det =
      alift * (bdxcdy - cdxbdy) + blift * (cdxady - adxcdy) + clift * (adxbdy - bdxady);
  const double permanent = (std::fabs(bdxcdy) + std::fabs(cdxbdy)) * alift +
                           (std::fabs(cdxady) + std::fabs(adxcdy)) * blift +
                           (std::fabs(adxbdy) + std::fabs(bdxady)) * clift;
  // Underflow costs at most 2^-1075 (24 L + 3), L the largest lift: six
  // products through a lift, six squares through a minor, three last ones.
  const double maxLift = std::max(std::max(alift, blift), clift);
  const double errbound = iccerrboundA * permanent + (maxLift + 1.0) * 0x1p-1000;
  if (kernels::filterDecides(det, errbound)) return det;
  return incircleadapt(pa, pb, pc, pd, permanent);
}

// ---------------------------------------------------------------------------
// Orientation in space.

double orient3dfast(double* pa, double* pb, double* pc, double* pd) {
  const double adx = pa[0] - pd[0], bdx = pb[0] - pd[0], cdx = pc[0] - pd[0];
  const double ady = pa[1] - pd[1], bdy = pb[1] - pd[1], cdy = pc[1] - pd[1];
  const double adz = pa[2] - pd[2], bdz = pb[2] - pd[2], cdz = pc[2] - pd[2];
  return adx * (bdy * cdz - bdz * cdy) + bdx * (cdy * adz - cdz * ady) +
         cdx * (ady * bdz - adz * bdy);
}

double ExactTest::orient3dadapt(double* pa, double* pb, double* pc, double* pd,
                                double permanent) const {
  const double coords[12] = {pa[0], pa[1], pa[2], pb[0], pb[1], pb[2],
                             pc[0], pc[1], pc[2], pd[0], pd[1], pd[2]};
  if (!inPublishedRange(coords, 12)) {
    double* const pts[4] = {pa, pb, pc, pd};
    return anyRangeSign(*this, PredicateKind::ORIENT3D, pts);
  }
  const double adx = pa[0] - pd[0], bdx = pb[0] - pd[0], cdx = pc[0] - pd[0];
  const double ady = pa[1] - pd[1], bdy = pb[1] - pd[1], cdy = pc[1] - pd[1];
  const double adz = pa[2] - pd[2], bdz = pb[2] - pd[2], cdz = pc[2] - pd[2];

  double bc[4], ca[4], ab[4];
  double adet[8], bdet[8], cdet[8], abdet[16];
  double fin1[192], fin2[192];

  minor2(bdx, cdy, cdx, bdy, bc, splitter);
  const int alen = scale_expansion_zeroelim(4, bc, adz, adet);
  minor2(cdx, ady, adx, cdy, ca, splitter);
  const int blen = scale_expansion_zeroelim(4, ca, bdz, bdet);
  minor2(adx, bdy, bdx, ady, ab, splitter);
  const int clen = scale_expansion_zeroelim(4, ab, cdz, cdet);

  const int ablen = fast_expansion_sum_zeroelim(alen, adet, blen, bdet, abdet);
  int finlength = fast_expansion_sum_zeroelim(ablen, abdet, clen, cdet, fin1);

  double det = estimate(finlength, fin1);
  double errbound = o3derrboundB * permanent;
  if ((det >= errbound) || (-det >= errbound)) return det;

  double adxtail, bdxtail, cdxtail, adytail, bdytail, cdytail, adztail, bdztail, cdztail;
  Two_Diff_Tail(pa[0], pd[0], adx, adxtail);
  Two_Diff_Tail(pb[0], pd[0], bdx, bdxtail);
  Two_Diff_Tail(pc[0], pd[0], cdx, cdxtail);
  Two_Diff_Tail(pa[1], pd[1], ady, adytail);
  Two_Diff_Tail(pb[1], pd[1], bdy, bdytail);
  Two_Diff_Tail(pc[1], pd[1], cdy, cdytail);
  Two_Diff_Tail(pa[2], pd[2], adz, adztail);
  Two_Diff_Tail(pb[2], pd[2], bdz, bdztail);
  Two_Diff_Tail(pc[2], pd[2], cdz, cdztail);
  if ((adxtail == 0.0) && (bdxtail == 0.0) && (cdxtail == 0.0) && (adytail == 0.0) &&
      (bdytail == 0.0) && (cdytail == 0.0) && (adztail == 0.0) && (bdztail == 0.0) &&
      (cdztail == 0.0))
    return det;

  errbound = o3derrboundC * permanent + resulterrbound * std::fabs(det);
  det += (adz * ((bdx * cdytail + cdy * bdxtail) - (bdy * cdxtail + cdx * bdytail)) +
          adztail * (bdx * cdy - bdy * cdx)) +
         (bdz * ((cdx * adytail + ady * cdxtail) - (cdy * adxtail + adx * cdytail)) +
          bdztail * (cdx * ady - cdy * adx)) +
         (cdz * ((adx * bdytail + bdy * adxtail) - (ady * bdxtail + bdx * adytail)) +
          cdztail * (adx * bdy - ady * bdx));
  if ((det >= errbound) || (-det >= errbound)) return det;

  // At this point the tails of the differences enter exactly.
  double* finnow = fin1;
  double* finother = fin2;
  double at_b[4], at_c[4], bt_c[4], bt_a[4], ct_a[4], ct_b[4];
  int at_blen, at_clen, bt_clen, bt_alen, ct_alen, ct_blen;
  double bct[8], cat[8], abt[8];
  double u[4], v[12], w[16];
  double t1, t0;

  // The first-order tail terms of one point: its x and y tails against the
  // heads of the two others, as minors (positive with x, negative with y).
  auto firstOrder = [&](double xtail, double ytail, double yP, double xP, double* tP, int& lenP,
                        double yM, double xM, double* tM, int& lenM) {
    if (xtail == 0.0) {
      if (ytail == 0.0) {
        tP[0] = 0.0;
        lenP = 1;
        tM[0] = 0.0;
        lenM = 1;
      } else {
        Two_Product(-ytail, xP, tP[1], tP[0], splitter);
        lenP = 2;
        Two_Product(ytail, xM, tM[1], tM[0], splitter);
        lenM = 2;
      }
    } else if (ytail == 0.0) {
      Two_Product(xtail, yP, tP[1], tP[0], splitter);
      lenP = 2;
      Two_Product(-xtail, yM, tM[1], tM[0], splitter);
      lenM = 2;
    } else {
      double p1, p0, q1, q0;
      Two_Product(xtail, yP, p1, p0, splitter);
      Two_Product(ytail, xP, q1, q0, splitter);
      Two_Two_Diff(p1, p0, q1, q0, tP[3], tP[2], tP[1], tP[0]);
      lenP = 4;
      Two_Product(ytail, xM, p1, p0, splitter);
      Two_Product(xtail, yM, q1, q0, splitter);
      Two_Two_Diff(p1, p0, q1, q0, tM[3], tM[2], tM[1], tM[0]);
      lenM = 4;
    }
  };
  firstOrder(adxtail, adytail, bdy, bdx, at_b, at_blen, cdy, cdx, at_c, at_clen);
  firstOrder(bdxtail, bdytail, cdy, cdx, bt_c, bt_clen, ady, adx, bt_a, bt_alen);
  firstOrder(cdxtail, cdytail, ady, adx, ct_a, ct_alen, bdy, bdx, ct_b, ct_blen);

  const int bctlen = fast_expansion_sum_zeroelim(bt_clen, bt_c, ct_blen, ct_b, bct);
  int wlength = scale_expansion_zeroelim(bctlen, bct, adz, w);
  addToFinal(finlength, finnow, finother, wlength, w);
  const int catlen = fast_expansion_sum_zeroelim(ct_alen, ct_a, at_clen, at_c, cat);
  wlength = scale_expansion_zeroelim(catlen, cat, bdz, w);
  addToFinal(finlength, finnow, finother, wlength, w);
  const int abtlen = fast_expansion_sum_zeroelim(at_blen, at_b, bt_alen, bt_a, abt);
  wlength = scale_expansion_zeroelim(abtlen, abt, cdz, w);
  addToFinal(finlength, finnow, finother, wlength, w);

  if (adztail != 0.0) {
    const int vlength = scale_expansion_zeroelim(4, bc, adztail, v);
    addToFinal(finlength, finnow, finother, vlength, v);
  }
  if (bdztail != 0.0) {
    const int vlength = scale_expansion_zeroelim(4, ca, bdztail, v);
    addToFinal(finlength, finnow, finother, vlength, v);
  }
  if (cdztail != 0.0) {
    const int vlength = scale_expansion_zeroelim(4, ab, cdztail, v);
    addToFinal(finlength, finnow, finother, vlength, v);
  }

  // A product of two tails times a z head, and times the z tail if any.
  auto secondOrder = [&](double tail1, double tail2, double z, double ztail) {
    Two_Product(tail1, tail2, t1, t0, splitter);
    Two_One_Product(t1, t0, z, u[3], u[2], u[1], u[0], splitter);
    addToFinal(finlength, finnow, finother, 4, u);
    if (ztail != 0.0) {
      Two_One_Product(t1, t0, ztail, u[3], u[2], u[1], u[0], splitter);
      addToFinal(finlength, finnow, finother, 4, u);
    }
  };
  if (adxtail != 0.0) {
    if (bdytail != 0.0) secondOrder(adxtail, bdytail, cdz, cdztail);
    if (cdytail != 0.0) secondOrder(-adxtail, cdytail, bdz, bdztail);
  }
  if (bdxtail != 0.0) {
    if (cdytail != 0.0) secondOrder(bdxtail, cdytail, adz, adztail);
    if (adytail != 0.0) secondOrder(-bdxtail, adytail, cdz, cdztail);
  }
  if (cdxtail != 0.0) {
    if (adytail != 0.0) secondOrder(cdxtail, adytail, bdz, bdztail);
    if (bdytail != 0.0) secondOrder(-cdxtail, bdytail, adz, adztail);
  }

  if (adztail != 0.0) {
    wlength = scale_expansion_zeroelim(bctlen, bct, adztail, w);
    addToFinal(finlength, finnow, finother, wlength, w);
  }
  if (bdztail != 0.0) {
    wlength = scale_expansion_zeroelim(catlen, cat, bdztail, w);
    addToFinal(finlength, finnow, finother, wlength, w);
  }
  if (cdztail != 0.0) {
    wlength = scale_expansion_zeroelim(abtlen, abt, cdztail, w);
    addToFinal(finlength, finnow, finother, wlength, w);
  }
  return finnow[finlength - 1];
}

// A zero permanent is exact when each term has a zero z difference or both
// its products a zero factor (none underflowed to 0): the points lie on an
// axis-parallel plane, as in a grid's layers, and the answer is 0 at once.
namespace {

double orient3dUndecided(const ExactTest& t, double* pa, double* pb, double* pc, double* pd,
                         double permanent) {
  auto noProduct = [](double x1, double y2, double x2, double y1) {
    return (x1 == 0.0 || y2 == 0.0) && (x2 == 0.0 || y1 == 0.0);
  };
  const double adx = pa[0] - pd[0], bdx = pb[0] - pd[0], cdx = pc[0] - pd[0];
  const double ady = pa[1] - pd[1], bdy = pb[1] - pd[1], cdy = pc[1] - pd[1];
  if (permanent == 0.0 && (pa[2] == pd[2] || noProduct(bdx, cdy, cdx, bdy)) &&
      (pb[2] == pd[2] || noProduct(cdx, ady, adx, cdy)) &&
      (pc[2] == pd[2] || noProduct(adx, bdy, bdx, ady)))
    return 0.0;
  return t.orient3dadapt(pa, pb, pc, pd, permanent);
}

} // namespace

double ExactTest::orient3d(double* pa, double* pb, double* pc, double* pd) const {
  double det, permanent, floor;
  kernels::orient3dFilter(pa, pb, pc, pd, det, permanent, floor);
  if (kernels::filterDecides(det, o3derrboundA * permanent + floor)) return det;
  return orient3dUndecided(*this, pa, pb, pc, pd, permanent);
}

// ---------------------------------------------------------------------------
// The sphere test.

double inspherefast(double* pa, double* pb, double* pc, double* pd, double* pe) {
  // The filter's determinant is the plain one; its permanent is not needed.
  double det, permanent, floor;
  kernels::insphereFilter(pa, pb, pc, pd, pe, det, permanent, floor);
  return det;
}

namespace {

// Class of a sign: 1 positive, 0 negative, 2 zero (also for not-a-number).
inline unsigned int signClass(double v) { return v > 0.0 ? 1u : (v < 0.0 ? 0u : 2u); }

// Two shortcuts stand in front of the expansions of insphereadapt. Each one
// answers only when its answer is the exact sign, so the class returned is
// the one the expansions would return; they change the cost, not the result.
//
// 1. Integer differences. When every difference is exact and an integer of
//    magnitude at most 2^50, and the permanent is below 2^53, every product
//    and partial sum of the plain determinant is an integer of magnitude
//    below 2^53 (each is bounded by a partial sum of the permanent, or is
//    multiplied by an exact zero), so the double evaluation is exact, zero
//    included. Integer grids meet this on every cospherical quintuple.
//
// 2. Double-double evaluation. With the differences split into heads h (the
//    rounded differences) and tails t, the determinant is
//      det(h + t) = det(h) + D(h; t) + R,
//    D the first-order term (linear in t) and R the rest, |R| <= 10.1 eps^2
//    times the permanent P (every monomial has degree 5, |t| <= eps |h|).
//    det(h) is evaluated with error-free products and sums carried as pairs
//    hi + lo, losing at most 256 eps^2 P (rounding of the low words and the
//    dropped lo*lo products; about 6 eps^2 P is seen in practice); D is
//    evaluated in double from the heads of the pairs, losing at most 90
//    eps^2 P. Beyond 2048 eps^2 P the sign is therefore certain. Points on
//    a sphere produce such cases by the million, and the whole stage costs a
//    few hundred flops where the expansions cost thousands. Heads must be 0
//    or of magnitude in [1e-50, 1e50] and tails 0 or at least 1e-80: then no
//    product met here, nor the error term of one, leaves the normal range,
//    so the error-free transformations stay error free.

// Whether each of the n values is an integer of magnitude at most 2^50.
// Adding 1.5 * 2^52 rounds such a value to an integer, exactly.
inline bool allSmallIntegers(const double* v, int n) {
  const double magic = 6755399441055744.0, limit = 1125899906842624.0;
  bool ok = true;
  for (int i = 0; i < n; i++)
    ok &= (std::fabs(v[i]) <= limit) & (((v[i] + magic) - magic) == v[i]);
  return ok;
}

// Whether heads and tails lie in the ranges the double-double stage needs
// (not-a-number fails).
inline bool inPairRange(const double* heads, const double* tails, int n) {
  bool ok = true;
  for (int i = 0; i < n; i++) {
    const double h = std::fabs(heads[i]), t = std::fabs(tails[i]);
    ok &= (h <= 1e50) & ((h >= 1e-50) | (h == 0.0)) & ((t >= 1e-80) | (t == 0.0));
  }
  return ok;
}

// A value held as the unevaluated sum hi + lo, |lo| a few ulps of hi at most.
struct PairValue {
  double hi, lo;
};

// x1*y2 - x2*y1: the exact difference of the rounded products, and their
// three error terms summed (error <= 4.01 eps^2 (|x1 y2| + |x2 y1|)).
inline PairValue pairMinor2(double x1, double y2, double x2, double y1, double splitter) {
  double p, pe, q, qe, s, se;
  Two_Product(x1, y2, p, pe, splitter);
  Two_Product(x2, y1, q, qe, splitter);
  Two_Diff(p, q, s, se);
  return {s, (se + pe) - qe};
}

// z1 m1 + z2 m2 + z3 m3: exact products and sums of the heads; the error
// terms and the products of the low words summed in double (error <= 45 eps^2
// times the sum of |z_k| times the permanent of m_k).
inline PairValue pairMinor3(const PairValue& m1, double z1, const PairValue& m2, double z2,
                            const PairValue& m3, double z3, double splitter) {
  double t1, e1, t2, e2, t3, e3, s1, f1, s2, f2;
  Two_Product(z1, m1.hi, t1, e1, splitter);
  Two_Product(z2, m2.hi, t2, e2, splitter);
  Two_Product(z3, m3.hi, t3, e3, splitter);
  Two_Sum(t1, t2, s1, f1);
  Two_Sum(s1, t3, s2, f2);
  return {s2, ((f1 + f2) + ((e1 + e2) + e3)) + ((z1 * m1.lo + z2 * m2.lo) + z3 * m3.lo)};
}

// x^2 + y^2 + z^2 (error <= 12.1 eps^2 times the value).
inline PairValue pairLift(double x, double y, double z, double splitter) {
  double a, ae, b, be, c, ce, s1, f1, s2, f2;
  Square(x, a, ae, splitter);
  Square(y, b, be, splitter);
  Square(z, c, ce, splitter);
  Two_Sum(a, b, s1, f1);
  Two_Sum(s1, c, s2, f2);
  return {s2, (f1 + f2) + ((ae + be) + ce)};
}

// l * m as the exact product of the heads, t + te, and the cross terms: small
// holds te + l.hi m.lo + l.lo m.hi (l.lo m.lo is dropped).
inline void pairProduct(const PairValue& l, const PairValue& m, double& t, double& small,
                        double splitter) {
  double te;
  Two_Product(l.hi, m.hi, t, te, splitter);
  small = te + (l.hi * m.lo + l.lo * m.hi);
}

// First-order change of the minor x1*y2 - x2*y1 under the tails.
inline double minor2Change(double x1, double y2, double x2, double y1, double x1t, double y2t,
                           double x2t, double y1t) {
  return (x1 * y2t + y2 * x1t) - (y1 * x2t + x2 * y1t);
}

// The double-double stage: 1 positive, 0 negative, 2 undecided. Heads and
// tails are ordered ax bx cx dx ay by cy dy az bz cz dz (differences to e);
// bTails says whether any tail is nonzero.
unsigned int pairInsphere(const double* h, const double* t, bool bTails, double permanent,
                          double epsilon, double splitter) {
  const double aex = h[0], bex = h[1], cex = h[2], dex = h[3];
  const double aey = h[4], bey = h[5], cey = h[6], dey = h[7];
  const double aez = h[8], bez = h[9], cez = h[10], dez = h[11];
  const PairValue ab = pairMinor2(aex, bey, bex, aey, splitter);
  const PairValue bc = pairMinor2(bex, cey, cex, bey, splitter);
  const PairValue cd = pairMinor2(cex, dey, dex, cey, splitter);
  const PairValue da = pairMinor2(dex, aey, aex, dey, splitter);
  const PairValue ac = pairMinor2(aex, cey, cex, aey, splitter);
  const PairValue bd = pairMinor2(bex, dey, dex, bey, splitter);
  const PairValue abc = pairMinor3(bc, aez, ac, -bez, ab, cez, splitter);
  const PairValue bcd = pairMinor3(cd, bez, bd, -cez, bc, dez, splitter);
  const PairValue cda = pairMinor3(da, cez, ac, dez, cd, aez, splitter);
  const PairValue dab = pairMinor3(ab, dez, bd, aez, da, bez, splitter);
  const PairValue alift = pairLift(aex, aey, aez, splitter);
  const PairValue blift = pairLift(bex, bey, bez, splitter);
  const PairValue clift = pairLift(cex, cey, cez, splitter);
  const PairValue dlift = pairLift(dex, dey, dez, splitter);
  // (dlift abc - clift dab) + (blift cda - alift bcd), heads summed exactly.
  double t1, w1, t2, w2, t3, w3, t4, w4, s1, f1, s2, f2, s3, f3;
  pairProduct(dlift, abc, t1, w1, splitter);
  pairProduct(clift, dab, t2, w2, splitter);
  pairProduct(blift, cda, t3, w3, splitter);
  pairProduct(alift, bcd, t4, w4, splitter);
  Two_Diff(t1, t2, s1, f1);
  Two_Sum(s1, t3, s2, f2);
  Two_Diff(s2, t4, s3, f3);
  double low = ((f1 + f2) + f3) + ((w1 - w2) + (w3 - w4));

  if (bTails) {
    const double aext = t[0], bext = t[1], cext = t[2], dext = t[3];
    const double aeyt = t[4], beyt = t[5], ceyt = t[6], deyt = t[7];
    const double aezt = t[8], bezt = t[9], cezt = t[10], dezt = t[11];
    const double abt = minor2Change(aex, bey, bex, aey, aext, beyt, bext, aeyt);
    const double bct = minor2Change(bex, cey, cex, bey, bext, ceyt, cext, beyt);
    const double cdt = minor2Change(cex, dey, dex, cey, cext, deyt, dext, ceyt);
    const double dat = minor2Change(dex, aey, aex, dey, dext, aeyt, aext, deyt);
    const double act = minor2Change(aex, cey, cex, aey, aext, ceyt, cext, aeyt);
    const double bdt = minor2Change(bex, dey, dex, bey, bext, deyt, dext, beyt);
    const double abct = (aez * bct - bez * act + cez * abt) +
                        (aezt * bc.hi - bezt * ac.hi + cezt * ab.hi);
    const double bcdt = (bez * cdt - cez * bdt + dez * bct) +
                        (bezt * cd.hi - cezt * bd.hi + dezt * bc.hi);
    const double cdat = (cez * dat + dez * act + aez * cdt) +
                        (cezt * da.hi + dezt * ac.hi + aezt * cd.hi);
    const double dabt = (dez * abt + aez * bdt + bez * dat) +
                        (dezt * ab.hi + aezt * bd.hi + bezt * da.hi);
    const double aliftt = 2.0 * ((aex * aext + aey * aeyt) + aez * aezt);
    const double bliftt = 2.0 * ((bex * bext + bey * beyt) + bez * bezt);
    const double cliftt = 2.0 * ((cex * cext + cey * ceyt) + cez * cezt);
    const double dliftt = 2.0 * ((dex * dext + dey * deyt) + dez * dezt);
    low += ((dliftt * abc.hi + dlift.hi * abct) - (cliftt * dab.hi + clift.hi * dabt)) +
           ((bliftt * cda.hi + blift.hi * cdat) - (aliftt * bcd.hi + alift.hi * bcdt));
  }
  const double value = s3 + low;
  const double bound = 2048.0 * epsilon * epsilon * permanent;
  if (value > bound) return 1;
  if (-value > bound) return 0;
  return 2;
}

} // namespace

unsigned int ExactTest::insphereexact(double* pa, double* pb, double* pc, double* pd,
                                      double* pe) const {
  const double coords[15] = {pa[0], pa[1], pa[2], pb[0], pb[1], pb[2], pc[0], pc[1],
                             pc[2], pd[0], pd[1], pd[2], pe[0], pe[1], pe[2]};
  if (!inPublishedRange(coords, 15)) {
    double* const pts[5] = {pa, pb, pc, pd, pe};
    return signClass(anyRangeSign(*this, PredicateKind::INSPHERE, pts));
  }
  // Two-by-two minors of the absolute coordinates, x of the first point.
  double ab[4], bc[4], cd[4], de[4], ea[4], ac[4], bd[4], ce[4], da[4], eb[4];
  minor2(pa[0], pb[1], pb[0], pa[1], ab, splitter);
  minor2(pb[0], pc[1], pc[0], pb[1], bc, splitter);
  minor2(pc[0], pd[1], pd[0], pc[1], cd, splitter);
  minor2(pd[0], pe[1], pe[0], pd[1], de, splitter);
  minor2(pe[0], pa[1], pa[0], pe[1], ea, splitter);
  minor2(pa[0], pc[1], pc[0], pa[1], ac, splitter);
  minor2(pb[0], pd[1], pd[0], pb[1], bd, splitter);
  minor2(pc[0], pe[1], pe[0], pc[1], ce, splitter);
  minor2(pd[0], pa[1], pa[0], pd[1], da, splitter);
  minor2(pe[0], pb[1], pb[0], pe[1], eb, splitter);

  // Three-by-three minors: m1 * z1 + m2 * z2 + m3 * z3.
  double temp8a[8], temp8b[8], temp16[16];
  auto minor3 = [&](double* m1, double z1, double* m2, double z2, double* m3, double z3,
                    double* out) {
    int len8a = scale_expansion_zeroelim(4, m1, z1, temp8a);
    const int len8b = scale_expansion_zeroelim(4, m2, z2, temp8b);
    const int len16 = fast_expansion_sum_zeroelim(len8a, temp8a, len8b, temp8b, temp16);
    len8a = scale_expansion_zeroelim(4, m3, z3, temp8a);
    return fast_expansion_sum_zeroelim(len8a, temp8a, len16, temp16, out);
  };
  double abc[24], bcd[24], cde[24], dea[24], eab[24];
  double abd[24], bce[24], cda[24], deb[24], eac[24];
  const int abclen = minor3(bc, pa[2], ac, -pb[2], ab, pc[2], abc);
  const int bcdlen = minor3(cd, pb[2], bd, -pc[2], bc, pd[2], bcd);
  const int cdelen = minor3(de, pc[2], ce, -pd[2], cd, pe[2], cde);
  const int dealen = minor3(ea, pd[2], da, -pe[2], de, pa[2], dea);
  const int eablen = minor3(ab, pe[2], eb, -pa[2], ea, pb[2], eab);
  const int abdlen = minor3(bd, pa[2], da, pb[2], ab, pd[2], abd);
  const int bcelen = minor3(ce, pb[2], eb, pc[2], bc, pe[2], bce);
  const int cdalen = minor3(da, pc[2], ac, pd[2], cd, pa[2], cda);
  const int deblen = minor3(eb, pd[2], bd, pe[2], de, pb[2], deb);
  const int eaclen = minor3(ac, pe[2], ce, pa[2], ea, pc[2], eac);

  // Four-by-four minors (p1 + p2 - m1 - m2), each times the lift of the
  // point left out.
  double temp48a[48], temp48b[48], minor4[96], temp192[192];
  double det384x[384], det384y[384], det384z[384], detxy[768];
  auto liftTerm = [&](double* p1, int p1len, double* p2, int p2len, double* m1, int m1len,
                      double* m2, int m2len, double* p, double* out) {
    const int lenA = fast_expansion_sum_zeroelim(p1len, p1, p2len, p2, temp48a);
    const int lenB = fast_expansion_sum_zeroelim(m1len, m1, m2len, m2, temp48b);
    for (int i = 0; i < lenB; i++) temp48b[i] = -temp48b[i];
    const int len = fast_expansion_sum_zeroelim(lenA, temp48a, lenB, temp48b, minor4);
    int xlen = scale_expansion_zeroelim(len, minor4, p[0], temp192);
    xlen = scale_expansion_zeroelim(xlen, temp192, p[0], det384x);
    int ylen = scale_expansion_zeroelim(len, minor4, p[1], temp192);
    ylen = scale_expansion_zeroelim(ylen, temp192, p[1], det384y);
    int zlen = scale_expansion_zeroelim(len, minor4, p[2], temp192);
    zlen = scale_expansion_zeroelim(zlen, temp192, p[2], det384z);
    const int xylen = fast_expansion_sum_zeroelim(xlen, det384x, ylen, det384y, detxy);
    return fast_expansion_sum_zeroelim(xylen, detxy, zlen, det384z, out);
  };
  double adet[1152], bdet[1152], cdet[1152], ddet[1152], edet[1152];
  const int alen = liftTerm(cde, cdelen, bce, bcelen, deb, deblen, bcd, bcdlen, pa, adet);
  const int blen = liftTerm(dea, dealen, cda, cdalen, eac, eaclen, cde, cdelen, pb, bdet);
  const int clen = liftTerm(eab, eablen, deb, deblen, abd, abdlen, dea, dealen, pc, cdet);
  const int dlen = liftTerm(abc, abclen, eac, eaclen, bce, bcelen, eab, eablen, pd, ddet);
  const int elen = liftTerm(bcd, bcdlen, abd, abdlen, cda, cdalen, abc, abclen, pe, edet);

  double abdet[2304], cddet[2304], cdedet[3456], deter[5760];
  const int ablen = fast_expansion_sum_zeroelim(alen, adet, blen, bdet, abdet);
  const int cdlen = fast_expansion_sum_zeroelim(clen, cdet, dlen, ddet, cddet);
  const int cdelen2 = fast_expansion_sum_zeroelim(cdlen, cddet, elen, edet, cdedet);
  const int deterlen = fast_expansion_sum_zeroelim(ablen, abdet, cdelen2, cdedet, deter);
  return signClass(deter[deterlen - 1]);
}

unsigned int ExactTest::insphereadapt(double* pa, double* pb, double* pc, double* pd, double* pe,
                                      double permanent) const {
  const double aex = pa[0] - pe[0], bex = pb[0] - pe[0], cex = pc[0] - pe[0], dex = pd[0] - pe[0];
  const double aey = pa[1] - pe[1], bey = pb[1] - pe[1], cey = pc[1] - pe[1], dey = pd[1] - pe[1];
  const double aez = pa[2] - pe[2], bez = pb[2] - pe[2], cez = pc[2] - pe[2], dez = pd[2] - pe[2];

  double aextail, bextail, cextail, dextail, aeytail, beytail, ceytail, deytail;
  double aeztail, beztail, ceztail, deztail;
  Two_Diff_Tail(pa[0], pe[0], aex, aextail);
  Two_Diff_Tail(pa[1], pe[1], aey, aeytail);
  Two_Diff_Tail(pa[2], pe[2], aez, aeztail);
  Two_Diff_Tail(pb[0], pe[0], bex, bextail);
  Two_Diff_Tail(pb[1], pe[1], bey, beytail);
  Two_Diff_Tail(pb[2], pe[2], bez, beztail);
  Two_Diff_Tail(pc[0], pe[0], cex, cextail);
  Two_Diff_Tail(pc[1], pe[1], cey, ceytail);
  Two_Diff_Tail(pc[2], pe[2], cez, ceztail);
  Two_Diff_Tail(pd[0], pe[0], dex, dextail);
  Two_Diff_Tail(pd[1], pe[1], dey, deytail);
  Two_Diff_Tail(pd[2], pe[2], dez, deztail);
  const bool bExactDifferences =
      (aextail == 0.0) && (aeytail == 0.0) && (aeztail == 0.0) && (bextail == 0.0) &&
      (beytail == 0.0) && (beztail == 0.0) && (cextail == 0.0) && (ceytail == 0.0) &&
      (ceztail == 0.0) && (dextail == 0.0) && (deytail == 0.0) && (deztail == 0.0);

  const double heads[12] = {aex, bex, cex, dex, aey, bey, cey, dey, aez, bez, cez, dez};
  if (bExactDifferences && permanent < 9007199254740992.0 && allSmallIntegers(heads, 12)) {
    double plainDet, plainPermanent, plainFloor;
    kernels::insphereFilterFastest(pa, pb, pc, pd, pe, plainDet, plainPermanent, plainFloor);
    return signClass(plainDet);
  }
  const double tails[12] = {aextail, bextail, cextail, dextail, aeytail, beytail,
                            ceytail, deytail, aeztail, beztail, ceztail, deztail};
  if (inPairRange(heads, tails, 12)) {
    const unsigned int pairClass = pairInsphere(heads, tails, !bExactDifferences, permanent, epsilon,
                                                       splitter);
    if (pairClass != 2u) return pairClass;
  }
  // Both shortcuts read only the differences and guard their own ranges, so
  // they hold for any coordinates; the expansions need the published range.
  const double coords[15] = {pa[0], pa[1], pa[2], pb[0], pb[1], pb[2], pc[0], pc[1],
                             pc[2], pd[0], pd[1], pd[2], pe[0], pe[1], pe[2]};
  if (!inPublishedRange(coords, 15)) {
    double* const pts[5] = {pa, pb, pc, pd, pe};
    return signClass(anyRangeSign(*this, PredicateKind::INSPHERE, pts));
  }

  double ab[4], bc[4], cd[4], da[4], ac[4], bd[4];
  minor2(aex, bey, bex, aey, ab, splitter);
  minor2(bex, cey, cex, bey, bc, splitter);
  minor2(cex, dey, dex, cey, cd, splitter);
  minor2(dex, aey, aex, dey, da, splitter);
  minor2(aex, cey, cex, aey, ac, splitter);
  minor2(bex, dey, dex, bey, bd, splitter);

  // sign * lift * (m1 z1 + m2 z2 + m3 z3), the lift of the point (x, y, z).
  double temp8a[8], temp8b[8], temp8c[8], temp16[16], temp24[24], temp48[48];
  double xdet[96], ydet[96], zdet[96], xydet[192];
  auto liftTerm = [&](double* m1, double z1, double* m2, double z2, double* m3, double z3,
                      double x, double y, double z, double sign, double* out) {
    const int len8a = scale_expansion_zeroelim(4, m1, z1, temp8a);
    const int len8b = scale_expansion_zeroelim(4, m2, z2, temp8b);
    const int len8c = scale_expansion_zeroelim(4, m3, z3, temp8c);
    const int len16 = fast_expansion_sum_zeroelim(len8a, temp8a, len8b, temp8b, temp16);
    const int len24 = fast_expansion_sum_zeroelim(len8c, temp8c, len16, temp16, temp24);
    int len48 = scale_expansion_zeroelim(len24, temp24, x, temp48);
    const int xlen = scale_expansion_zeroelim(len48, temp48, sign * x, xdet);
    len48 = scale_expansion_zeroelim(len24, temp24, y, temp48);
    const int ylen = scale_expansion_zeroelim(len48, temp48, sign * y, ydet);
    len48 = scale_expansion_zeroelim(len24, temp24, z, temp48);
    const int zlen = scale_expansion_zeroelim(len48, temp48, sign * z, zdet);
    const int xylen = fast_expansion_sum_zeroelim(xlen, xdet, ylen, ydet, xydet);
    return fast_expansion_sum_zeroelim(xylen, xydet, zlen, zdet, out);
  };
  double adet[288], bdet[288], cdet[288], ddet[288], abdet[576], cddet[576], fin1[1152];
  const int alen = liftTerm(cd, bez, bd, -cez, bc, dez, aex, aey, aez, -1.0, adet);
  const int blen = liftTerm(da, cez, ac, dez, cd, aez, bex, bey, bez, 1.0, bdet);
  const int clen = liftTerm(ab, dez, bd, aez, da, bez, cex, cey, cez, -1.0, cdet);
  const int dlen = liftTerm(bc, aez, ac, -bez, ab, cez, dex, dey, dez, 1.0, ddet);
  const int ablen = fast_expansion_sum_zeroelim(alen, adet, blen, bdet, abdet);
  const int cdlen = fast_expansion_sum_zeroelim(clen, cdet, dlen, ddet, cddet);
  const int finlength = fast_expansion_sum_zeroelim(ablen, abdet, cdlen, cddet, fin1);

  double det = estimate(finlength, fin1);
  double errbound = isperrboundB * permanent;
  // A zero permanent makes the bound 0: each term then has a difference that
  // is exactly 0 (a rounded difference is 0 only for equal coordinates), so
  // the determinant is exactly 0 too, class 2 (a copy of a corner, say),
  // where the test det >= 0 alone would call it positive.
  if (det >= errbound) return det == 0.0 ? 2 : 1;
  if (-det >= errbound) return 0;

  if (bExactDifferences) {
    if (det > 0.0) return 1;
    if (det < 0.0) return 0;
    if (det == 0.0) return 2;
  }

  errbound = isperrboundC * permanent + resulterrbound * std::fabs(det);
  const double ab3 = ab[3], bc3 = bc[3], cd3 = cd[3], da3 = da[3], ac3 = ac[3], bd3 = bd[3];
  const double abeps = (aex * beytail + bey * aextail) - (aey * bextail + bex * aeytail);
  const double bceps = (bex * ceytail + cey * bextail) - (bey * cextail + cex * beytail);
  const double cdeps = (cex * deytail + dey * cextail) - (cey * dextail + dex * ceytail);
  const double daeps = (dex * aeytail + aey * dextail) - (dey * aextail + aex * deytail);
  const double aceps = (aex * ceytail + cey * aextail) - (aey * cextail + cex * aeytail);
  const double bdeps = (bex * deytail + dey * bextail) - (bey * dextail + dex * beytail);
  det += (((bex * bex + bey * bey + bez * bez) *
               ((cez * daeps + dez * aceps + aez * cdeps) +
                (ceztail * da3 + deztail * ac3 + aeztail * cd3)) +
           (dex * dex + dey * dey + dez * dez) *
               ((aez * bceps - bez * aceps + cez * abeps) +
                (aeztail * bc3 - beztail * ac3 + ceztail * ab3))) -
          ((aex * aex + aey * aey + aez * aez) *
               ((bez * cdeps - cez * bdeps + dez * bceps) +
                (beztail * cd3 - ceztail * bd3 + deztail * bc3)) +
           (cex * cex + cey * cey + cez * cez) *
               ((dez * abeps + aez * bdeps + bez * daeps) +
                (deztail * ab3 + aeztail * bd3 + beztail * da3)))) +
         2.0 * (((bex * bextail + bey * beytail + bez * beztail) *
                     (cez * da3 + dez * ac3 + aez * cd3) +
                 (dex * dextail + dey * deytail + dez * deztail) *
                     (aez * bc3 - bez * ac3 + cez * ab3)) -
                ((aex * aextail + aey * aeytail + aez * aeztail) *
                     (bez * cd3 - cez * bd3 + dez * bc3) +
                 (cex * cextail + cey * ceytail + cez * ceztail) *
                     (dez * ab3 + aez * bd3 + bez * da3)));
  if (det >= errbound) return 1;
  if (-det >= errbound) return 0;
  return insphereexact(pa, pb, pc, pd, pe);
}

double ExactTest::insphere(double* pa, double* pb, double* pc, double* pd, double* pe) const {
  double det, permanent, floor;
  kernels::insphereFilter(pa, pb, pc, pd, pe, det, permanent, floor);
  if (kernels::filterDecides(det, isperrboundA * permanent + floor)) return det;
  // The adaptive path answers a class (1, 0 or 2), not a signed value.
  return static_cast<double>(insphereadapt(pa, pb, pc, pd, pe, permanent));
}

// ---------------------------------------------------------------------------
// The two tests of the mesh where the filter has left the sign open.

double orientationUndecided(const ExactTest& t, const Point3* a, const Point3* b,
                            const Point3* c, const Point3* d, double permanent) {
  double p[4][3];
  kernels::orientationTestCoordinates(a, b, c, d, p);
  return orient3dUndecided(t, p[0], p[1], p[2], p[3], permanent);
}

// A query with the coordinates of a corner zeroes a row of the determinant,
// so det and permanent are 0 and it lands here: by pointer it is that
// corner, otherwise insphereadapt classifies it.
SphereInclusion sphereInclusionUndecided(const ExactTest& t, Tet3* pTet, const Point3* pQ,
                                         double permanent) {
  if (pTet->getCorner(0) == pQ || pTet->getCorner(1) == pQ || pTet->getCorner(2) == pQ ||
      pTet->getCorner(3) == pQ)
    return SIC_CORNER;
  double p[5][3];
  kernels::sphereTestCoordinates(pTet, pQ, p);
  // Class 0 is inside; 1 (outside) and 2 (on the sphere) are not.
  return t.insphereadapt(p[0], p[1], p[2], p[3], p[4], permanent) > 0 ? SIC_OUTSIDE : SIC_INSIDE;
}

// ---------------------------------------------------------------------------
// The public entries of the two tests: the floored inline forms of
// BrixTest3Inline.h, defined here, out of line, so that they run with this
// file's floating-point flags whatever flags the caller compiles with.

Orientation3 ExactTest::getOrientation3(const Point3* a, const Point3* b, const Point3* c,
                                        const Point3* d) const {
  return orientationOf<false>(*this, a, b, c, d);
}
Orientation3 ExactTest::getOrientation3(Tet3* pC, int ith, const Point3* pQ) const {
  return orientationOfFacet<false>(*this, pC, ith, pQ);
}
SphereInclusion ExactTest::sphereInclusionTest(Tet3* pTet, const Point3* pQ) const {
  return sphereInclusionOf<false>(*this, pTet, pQ);
}

} // namespace VELM3D

// BrixTest3.h: ExactTest, the exact geometric predicates of the library.
//
// The arithmetic is Jonathan Richard Shewchuk's adaptive-precision expansion
// arithmetic ("Adaptive Precision Floating-Point Arithmetic and Fast Robust
// Geometric Predicates", Discrete & Computational Geometry 18, 1997). The
// one precondition: plain IEEE double arithmetic with round-to-nearest, no
// extended-precision intermediates, no fused multiply-add, no re-association.
// The library target is compiled with -ffp-contract=off for this reason.
//
// Because of that precondition this header holds no arithmetic: every
// function of ExactTest is defined out of line, in code compiled with the
// library's own flags, so a caller that builds with -march=native, a GNU
// dialect (whose default contracts a*b+c into a fused multiply-add) or
// -ffp-contract=fast still gets exact answers. What only the library's own
// code needs, the error-free building blocks (Two_Sum, Two_Product, Split,
// ...), the filters as inline kernels and the floor-free forms of the two
// tests that the insertion's hot loops inline, lives in the private header
// BrixTest3Inline.h, which is not installed and is included only by code
// built with the library's flags.
//
// Naming follows the publication: `orient3d` is the filtered adaptive
// predicate, `orient3dfast` the plain determinant, `orient3dadapt` the
// adaptive stages; a `_zeroelim` routine drops zero components.
//
// Sign conventions of the two predicates the mesh uses:
//  - getOrientation3(a,b,c,d) is ORIENTATION3_POSITIVE when d lies on the
//    side to which (b-a) x (c-a) points, i.e. seen from d, a b c run
//    counterclockwise. That is the opposite sign of the published orient3d.
//  - sphereInclusionTest(tet,q) is SIC_INSIDE when q lies strictly inside the
//    circumsphere of a positively oriented tet; a cospherical q is OUTSIDE.
//
// Every test is exact for all finite doubles. The published stages are exact
// only while no product leaves the normal range of doubles; the filters here
// say so in their bounds (a floor for what underflow can cost; overflow
// makes the bound itself infinite), and the adaptive stages hand input that
// lies outside the published range to an evaluation that holds for any
// finite coordinates (BrixTest3AnyDouble.cpp). NaN and infinite coordinates
// are outside what the tests decide: the answer is then meaningless but
// defined.
//
// An ExactTest holds only the fifteen constants that exactinit measures; it
// is read-only after construction, and all scratch lives on the caller's
// stack (the exact sphere test takes about 210 KB of it).
#pragma once

#include <string>

#include "Tet3.h"

namespace VELM3D {

enum Orientation3 { ORIENTATION3_POSITIVE = 0, ORIENTATION3_NEGATIVE = 1, ORI3_ZERO = 2 };
enum SphereInclusion { SIC_INSIDE = 0, SIC_OUTSIDE = 1, SIC_CORNER = 2 };

class ExactTest {
public:
  ExactTest() { exactinit(); }

  void exactinit();

  // The side of the plane through a, b, c on which d lies (see above).
  Orientation3 getOrientation3(const Point3* a, const Point3* b, const Point3* c,
                               const Point3* d) const;
  // The side of facet ith of pC (the facet opposite corner ith) on which pQ
  // lies; POSITIVE is the inner side of a positively oriented tetrahedron.
  Orientation3 getOrientation3(Tet3* pC, int ith, const Point3* pQ) const;
  std::string getOriString(Orientation3 ori) const;

  // Whether pQ lies strictly inside the circumsphere of pTet.
  SphereInclusion sphereInclusionTest(Tet3* pTet, const Point3* pQ) const;

  double orient3d(double* pa, double* pb, double* pc, double* pd) const;
  double orient3dadapt(double* pa, double* pb, double* pc, double* pd, double permanent) const;
  double insphere(double* pa, double* pb, double* pc, double* pd, double* pe) const;
  // Class results, in the published sign: 1 positive, 0 negative, 2 zero.
  unsigned int insphereadapt(double* pa, double* pb, double* pc, double* pd, double* pe,
                             double permanent) const;
  unsigned int insphereexact(double* pa, double* pb, double* pc, double* pd, double* pe) const;

  double orient2d(double* pa, double* pb, double* pc) const;
  double orient2dadapt(double* pa, double* pb, double* pc, double detsum) const;
  double incircle(double* pa, double* pb, double* pc, double* pd) const;
  double incircleadapt(double* pa, double* pb, double* pc, double* pd, double permanent) const;

  int scale_expansion(int elen, double* e, double b, double* h) const;
  int scale_expansion_zeroelim(int elen, double* e, double b, double* h) const;

  double splitter;
  double epsilon;
  double resulterrbound;
  double ccwerrboundA, ccwerrboundB, ccwerrboundC;
  double o3derrboundA, o3derrboundB, o3derrboundC;
  double iccerrboundA, iccerrboundB, iccerrboundC;
  double isperrboundA, isperrboundB, isperrboundC;
};

// Expansion routines that need no constants.
int grow_expansion(int elen, double* e, double b, double* h);
int grow_expansion_zeroelim(int elen, double* e, double b, double* h);
int expansion_sum(int elen, double* e, int flen, double* f, double* h);
int expansion_sum_zeroelim1(int elen, double* e, int flen, double* f, double* h);
int expansion_sum_zeroelim2(int elen, double* e, int flen, double* f, double* h);
int fast_expansion_sum(int elen, double* e, int flen, double* f, double* h);
int fast_expansion_sum_zeroelim(int elen, double* e, int flen, double* f, double* h);
int linear_expansion_sum(int elen, double* e, int flen, double* f, double* h);
int linear_expansion_sum_zeroelim(int elen, double* e, int flen, double* f, double* h);
int compress(int elen, double* e, double* h);
double estimate(int elen, double* e);

double orient3dfast(double* pa, double* pb, double* pc, double* pd);
double inspherefast(double* pa, double* pb, double* pc, double* pd, double* pe);
double orient2dfast(double* pa, double* pb, double* pc);
double incirclefast(double* pa, double* pb, double* pc, double* pd);

} // namespace VELM3D

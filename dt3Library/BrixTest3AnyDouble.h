// BrixTest3AnyDouble.h: the predicates for any finite double, private to the
// library. Not installed; included only by the predicates' own sources.
//
// The published stages of BrixTest3.cpp are exact while no product, and no
// error term of one, leaves the normal range of doubles. Every coordinate of
// magnitude in [2^-159, 2^199) is a multiple of 2^-211, so the five-fold
// products of the sphere test are multiples of 2^-1055 (above the smallest
// subnormal, 2^-1074) and stay below 2^1000: inside that range, the
// published range, or 0, the published stages run as they are. Their
// adaptive and exact stages test each input with inPublishedRange and hand
// what lies outside to anyRangeSign, which BrixTest3AnyDouble.cpp defines.
#pragma once

#include "BrixTest3Inline.h"

namespace VELM3D {

// Whether the n values are 0 or of magnitude in the published range.
inline bool inPublishedRange(const double* v, int n) { return kernels::allWithin(v, n, 0x1p-159); }

enum class PredicateKind { ORIENT2D, INCIRCLE, ORIENT3D, INSPHERE };

// The sign of a published determinant for any finite coordinates of its
// points pts[0..] (3 for ORIENT2D, 5 for INSPHERE, else 4; two coordinates
// each in the plane, three in space), as a double of that sign: 0 for a
// zero determinant and for non-finite coordinates.
double anyRangeSign(const ExactTest& t, PredicateKind kind, double* const* pts);

} // namespace VELM3D

// bench_predicates: nanoseconds per call of the two predicates the mesh is
// built on, on random input (the floating-point filter decides) and on
// degenerate input (the adaptive and exact stages decide).
//
//   getOrientation3: random points; four coplanar lattice points at offset
//     1e15 (exact differences: the first adaptive stage ends it); coplanar
//     points of widely different magnitudes (inexact differences: the
//     deepest stage);
//   sphereInclusionTest: random positive tetrahedra and queries; cospherical
//     lattice points at offset 1e15; cospherical signed permutations of one
//     point of widely different magnitudes (the full exact determinant);
//   both, on the lattice cases times 2^-1074 (subnormal coordinates: scaled
//     into the published range first), and on the wide cases with magnitudes
//     from 2^-1074 to 2^1000 (no one scale fits: exact integer arithmetic).
//
// Each benchmark cycles through 4096 prepared cases, one call per iteration.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "BrixTest3.h"
#include "SimplePool.h"

using namespace VELM3D;

namespace {

constexpr int NUM_CASES = 4096;

enum Input { RANDOM, LATTICE, WIDE, SUBNORMAL, MIXED };

std::mt19937_64 rng(2024);
std::uniform_real_distribution<double> uni(-1.0, 1.0);
int wideLow = -30, wideSpan = 61;
double wide() { return std::ldexp(uni(rng), static_cast<int>(rng() % wideSpan) + wideLow); }

// Five points of one case: random, or degenerate (the first four coplanar for
// the orientation, all five cospherical for the sphere test).
std::array<Point3, 5> makeCase(Input input, bool bSphere) {
  std::array<Point3, 5> p;
  if (input == SUBNORMAL) {
    p = makeCase(LATTICE, bSphere);
    for (Point3& q : p) q = Point3(std::ldexp(q.x(), -1074), std::ldexp(q.y(), -1074), std::ldexp(q.z(), -1074));
  } else if (input == MIXED) {
    wideLow = -1074;
    wideSpan = 2075;
    p = makeCase(WIDE, bSphere);
    wideLow = -30;
    wideSpan = 61;
  } else if (input == RANDOM) {
    for (Point3& q : p) q = Point3(uni(rng), uni(rng), uni(rng));
  } else if (input == LATTICE && !bSphere) {
    double c[3][3];
    for (auto& r : c)
      for (double& v : r) v = static_cast<double>(rng() % 101) - 50;
    const double s = static_cast<double>(rng() % 7) - 3, t = static_cast<double>(rng() % 7) - 3;
    for (int i = 0; i < 3; ++i) p[i] = Point3(1e15 + c[i][0], 1e15 + c[i][1], 1e15 + c[i][2]);
    p[3] = Point3(1e15 + c[0][0] + s * (c[1][0] - c[0][0]) + t * (c[2][0] - c[0][0]),
                  1e15 + c[0][1] + s * (c[1][1] - c[0][1]) + t * (c[2][1] - c[0][1]),
                  1e15 + c[0][2] + s * (c[1][2] - c[0][2]) + t * (c[2][2] - c[0][2]));
  } else if (input == LATTICE) {  // integer points of squared distance 4225 from a centre
    static std::vector<std::array<double, 3>> vSphere;
    if (vSphere.empty())
      for (int x = -65; x <= 65; ++x)
        for (int y = -65; y <= 65; ++y)
          for (int z = -65; z <= 65; ++z)
            if (x * x + y * y + z * z == 4225) vSphere.push_back({double(x), double(y), double(z)});
    std::shuffle(vSphere.begin(), vSphere.end(), rng);
    for (int i = 0; i < 5; ++i)
      p[i] = Point3(1e15 + vSphere[i][0], 1e15 + vSphere[i][1], 1e15 + vSphere[i][2]);
  } else if (!bSphere) {  // the plane x = y
    for (Point3& q : p) {
      const double u = wide();
      q = Point3(u, u, wide());
    }
  } else {  // sign changes and rotations of one point keep its distance from 0
    const double b[3] = {wide(), wide(), wide()};
    const double s[5][3] = {{1, 1, 1}, {-1, 1, 1}, {1, -1, 1}, {1, 1, -1}, {-1, -1, 1}};
    const int r[5] = {0, 0, 1, 2, 1};
    for (int i = 0; i < 5; ++i)
      p[i] = Point3(s[i][0] * b[r[i]], s[i][1] * b[(r[i] + 1) % 3], s[i][2] * b[(r[i] + 2) % 3]);
  }
  return p;
}

void orientation(benchmark::State& state, Input input) {
  ExactTest predicates;
  std::vector<std::array<Point3, 5>> v;
  for (int i = 0; i < NUM_CASES; ++i) v.push_back(makeCase(input, false));
  unsigned i = 0;
  for (auto _ : state) {
    const std::array<Point3, 5>& c = v[i++ % NUM_CASES];
    benchmark::DoNotOptimize(predicates.getOrientation3(&c[0], &c[1], &c[2], &c[3]));
  }
}

void sphereInclusion(benchmark::State& state, Input input) {
  ExactTest predicates;
  BRIX_TOOLS::SimplePool<Tet3> pool;
  pool.init(NUM_CASES, NUM_CASES);
  std::vector<std::array<Point3, 5>> v;
  while (static_cast<int>(v.size()) < NUM_CASES) {
    v.push_back(makeCase(input, true));
    std::array<Point3, 5>& c = v.back();
    const Orientation3 ori = predicates.getOrientation3(&c[0], &c[1], &c[2], &c[3]);
    if (ori == ORI3_ZERO) v.pop_back();
    else if (ori == ORIENTATION3_NEGATIVE) std::swap(c[0], c[1]);
  }
  std::vector<Tet3*> vTets;
  for (std::array<Point3, 5>& c : v) {
    vTets.push_back(pool.nextObject());
    vTets.back()->setProperties(&c[0], &c[1], &c[2], &c[3]);
  }
  unsigned i = 0;
  for (auto _ : state) {
    const unsigned k = i++ % NUM_CASES;
    benchmark::DoNotOptimize(predicates.sphereInclusionTest(vTets[k], &v[k][4]));
  }
}

} // namespace

BENCHMARK_CAPTURE(orientation, random, RANDOM);
BENCHMARK_CAPTURE(orientation, coplanarLattice, LATTICE);
BENCHMARK_CAPTURE(orientation, coplanarWide, WIDE);
BENCHMARK_CAPTURE(sphereInclusion, random, RANDOM);
BENCHMARK_CAPTURE(sphereInclusion, cosphericalLattice, LATTICE);
BENCHMARK_CAPTURE(sphereInclusion, cosphericalWide, WIDE);
BENCHMARK_CAPTURE(orientation, coplanarSubnormalLattice, SUBNORMAL);
BENCHMARK_CAPTURE(orientation, coplanarMixedMagnitudes, MIXED);
BENCHMARK_CAPTURE(sphereInclusion, cosphericalSubnormalLattice, SUBNORMAL);
BENCHMARK_CAPTURE(sphereInclusion, cosphericalMixedMagnitudes, MIXED);

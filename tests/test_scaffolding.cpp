// Tests of the mesh scaffolding on meshes built by hand: the queries, the edge
// and facet handles, the validity check and its fault reports, the Geomview
// dump, the recycling of retired records and the first tetrahedron.
#include <algorithm>
#include <array>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include "test_support.h"

using namespace VELM3D;
using exact::orient;
using support::captured;
using support::failsAssertion;
namespace fs = std::filesystem;

namespace {

std::set<Point3*> facetCorners(Tet3* t, int i) {
  std::set<Point3*> s{t->getCorner(0), t->getCorner(1), t->getCorner(2), t->getCorner(3)};
  s.erase(t->getCorner(i));
  return s;
}

// Links, both ways, every two tetrahedra that share a facet.
void link(const std::vector<Tet3*>& v) {
  for (Tet3* s : v)
    for (Tet3* t : v)
      for (int i = 0; i < 16; ++i)
        if (s != t && facetCorners(s, i / 4) == facetCorners(t, i % 4)) s->setOppTet(i / 4, t);
}

struct Mesh {
  Dt3 dt{nullptr};
  Point3* vtx(double x, double y, double z) {
    Point3 p(x, y, z);
    return dt.getStore().addPoint(p).first;
  }
  Tet3* tet(Point3* a, Point3* b, Point3* c, Point3* d) { // exchanged into positive order
    return orient(*a, *b, *c, *d) > 0 ? dt.createTet(a, b, c, d) : dt.createTet(b, a, c, d);
  }
};

// The corner tetrahedron of the unit cube, made by createInitialTet so that
// the object is full dimensional, and a second one across its facet b, c, d.
struct Pair : Mesh {
  Point3 *a = vtx(0, 0, 0), *b = vtx(1, 0, 0), *c = vtx(0, 1, 0), *d = vtx(0, 0, 1);
  Tet3* t1 = dt.createInitialTet();
  Point3* e;
  Tet3* t2;
  Pair(double ex, double ey, double ez) : e(vtx(ex, ey, ez)), t2(tet(e, b, c, d)) { link({t1, t2}); }
};

// The first index quadruple i<j<k<l of the store's order that spans space, its
// first two corners exchanged when it is negative.
std::vector<Point3*> firstQuadruple(Dt3& dt) {
  std::vector<Point3*> v;
  dt.getVertexPointers(v);
  for (size_t i = 0; i < v.size(); ++i)
    for (size_t j = i + 1; j < v.size(); ++j)
      for (size_t k = j + 1; k < v.size(); ++k)
        for (size_t l = k + 1; l < v.size(); ++l)
          if (const int o = orient(*v[i], *v[j], *v[k], *v[l]))
            return {o > 0 ? v[i] : v[j], o > 0 ? v[j] : v[i], v[k], v[l]};
  return {};
}

std::vector<Point3*> cornersOf(const Tet3* t) { return {t->getCorner(0), t->getCorner(1), t->getCorner(2), t->getCorner(3)}; }

std::vector<Tet3*> sorted(std::vector<Tet3*> v) {
  std::sort(v.begin(), v.end());
  return v;
}

bool valid(Dt3& dt, bool bVisited, bool bSphere, std::string* pOut = nullptr) {
  bool bResult = false;
  const std::string out = captured([&] { bResult = dt.checkValidity("here", bVisited, bSphere); });
  if (pOut != nullptr) *pOut = out;
  return bResult;
}

bool contains(const std::string& s, const std::string& part) { return s.find(part) != std::string::npos; }

// The text of the one file in the working directory whose name matches.
std::string fileMatching(const std::string& pattern) {
  std::string text;
  int numFound = 0;
  for (const auto& entry : fs::directory_iterator("."))
    if (std::regex_match(entry.path().filename().string(), std::regex(pattern)))
      text = support::readFile(entry.path()), ++numFound;
  return numFound == 1 ? text : "";
}

// Writes the files of a test into a directory of its own.
using InTempDir = support::InTempDir;

} // namespace

TEST(Queries, PairSharingAFacet) {
  Pair m(2, 2, 2);
  const std::vector<Tet3*> both = sorted({m.t1, m.t2});
  std::vector<Tet3*> vAll, vAround, vAroundA, vIncident;
  m.dt.getAllTetrahedra(vAll);
  EXPECT_EQ(vAll, both);
  EXPECT_TRUE(failsAssertion([&] { m.dt.getAllTetrahedra(vAll); }, "vTet.empty()"));
  m.dt.getTetsAroundVertex(m.b, vAround);
  m.dt.getTetsAroundVertex(m.b, vAround); // appends
  EXPECT_EQ(vAround, (std::vector<Tet3*>{both[0], both[1], both[0], both[1]}));
  m.dt.getTetsAroundVertex(m.a, vAroundA);
  EXPECT_EQ(vAroundA, std::vector<Tet3*>{m.t1});
  m.dt.getIncidentTetrahera(m.a, vIncident); // the seed alone is never reported
  EXPECT_TRUE(vIncident.empty());
  Tet3* pSeed = m.b->getOneTet();
  m.dt.getIncidentTetrahera(m.b, vIncident);
  EXPECT_EQ(vIncident, (std::vector<Tet3*>{pSeed == m.t1 ? m.t2 : m.t1, pSeed}));

  const int i = m.t1->getIntraTetIndex(m.t2), j = m.t2->getIntraTetIndex(m.t1), hull = (i + 1) % 4;
  EXPECT_TRUE(m.t1->getCorner(i) == m.a && m.t1->getOppVtxInOppTet(i, true) == m.e);
  EXPECT_TRUE(m.t1->getOppVtxInOppTet(hull, true) == nullptr && m.t1->debug_getOppTetIndex(hull) == -1);
  EXPECT_EQ(m.t1->getIntraTetIndexInOppTetForReg(m.t2, j), i);
  EXPECT_TRUE(m.t1->getIntraTetIndexInOppTetForReg(m.t2, -1) == -1 && m.t1->getIntraTetIndexInOppTetForReg(m.t2, 4) == -1);
  const Facet3 f1(m.t1, i), f2(m.t2, j);
  EXPECT_TRUE(f1 == f2 && f2 == f1 && !(f1 != f2) && Facet3(m.t1, hull) != f2);
  Point3* q[4];
  m.t1->getCorners(q[0], q[1], q[2], q[3]);
  EXPECT_EQ(std::vector<Point3*>(q, q + 4), cornersOf(m.t1));
  // A facet's corners in Facet3's order see the corner off the facet on their positive side.
  for (int f = 0; f < 4; ++f) {
    Facet3 facet(m.t1, f);
    for (int k = 0; k < 3; ++k) q[k] = m.t1->getCorner(facet.getIntraTetIndex(k));
    EXPECT_GT(orient(*q[0], *q[1], *q[2], *m.t1->getCorner(f)), 0) << f;
  }
  // Edge b-c through both tetrahedra, named by the two corners off the edge.
  const Edge3 e1(m.t1, i, m.t1->getIntraTetIndex(m.d)), e2(m.t2, j, m.t2->getIntraTetIndex(m.d));
  EXPECT_TRUE(e1 == e2 && e2 == e1 && !(e1 < e2) && !(e2 < e1) && std::set<Edge3>({e1, e2}).size() == 1);
  EXPECT_EQ(std::set<Point3*>({e1.getSourceVtx(), e1.getTargetVtx()}), std::set<Point3*>({m.b, m.c}));
  std::string out;
  EXPECT_TRUE(valid(m.dt, true, true, &out) && contains(out, "\033[0;32m** CheckValidity at (here) has been finished, seems OK\033[m\n\n")) << out;
}

TEST(Queries, RingOfFourAroundAnInnerEdge) {
  Mesh m;
  Point3 *S = m.vtx(0, 0, -0.5), *N = m.vtx(0, 0, 0.5);
  Point3* p[4] = {m.vtx(1, 0, 0), m.vtx(0, 1, 0), m.vtx(-1, 0, 0), m.vtx(0, -1, 0)};
  std::vector<Tet3*> vRing, vAll, vAround;
  for (int k = 0; k < 4; ++k) vRing.push_back(m.tet(S, N, p[k], p[(k + 1) % 4]));
  link(vRing);
  m.dt.getAllTetrahedra(vAll);
  m.dt.getTetsAroundVertex(S, vAround);
  EXPECT_TRUE(vAll == sorted(vRing) && vAround == vAll);
  TetAroundEdgeIterator it(Edge3(vRing[0], vRing[0]->getIntraTetIndex(p[0]), vRing[0]->getIntraTetIndex(p[1])));
  std::set<Tet3*> sSeen;
  for (int step = 1; step <= 4; ++step) {
    sSeen.insert((++it).getTet());
    EXPECT_EQ(std::set<Point3*>({it.getSourceVtx(), it.getTargetVtx()}), std::set<Point3*>({S, N}));
    EXPECT_EQ(it.getTet() == vRing[0], step == 4);
  }
  EXPECT_EQ(sSeen.size(), 4u);
  EXPECT_TRUE(valid(m.dt, true, true));
}

TEST(Queries, CosphericalCubeInFiveTetrahedraIsValid) {
  Mesh m;
  Point3* v[8];
  for (int i = 0; i < 8; ++i) v[i] = m.vtx((i >> 2) & 1, (i >> 1) & 1, i & 1);
  std::vector<Tet3*> vCube, vAll;
  for (const auto& c : {std::array<int, 4>{0, 4, 2, 1}, {6, 4, 2, 7}, {5, 4, 1, 7}, {3, 2, 1, 7}, {4, 2, 1, 7}})
    vCube.push_back(m.tet(v[c[0]], v[c[1]], v[c[2]], v[c[3]]));
  link(vCube);
  m.dt.getAllTetrahedra(vAll);
  EXPECT_EQ(vAll, sorted(vCube));
  EXPECT_TRUE(valid(m.dt, true, true));
  Pair cubePair(1, 1, 1); // two corner tetrahedra of one cube
  EXPECT_TRUE(valid(cubePair.dt, true, true));
}

TEST_F(InTempDir, SideFaultReportsAndDrawsTheMesh) {
  Pair m(0.1, 0.1, 0.1); // e on the same side of b, c, d as a: the two overlap
  std::string out;
  EXPECT_FALSE(valid(m.dt, false, false, &out)); // orientation is tested all the same
  EXPECT_TRUE(contains(out, "Dt3::checkValidity, HUH, vertex ") && contains(out, " should be on the negative side, tet=\n"));
  EXPECT_TRUE(contains(out, "checkValidity: positive\n")) << out;
  EXPECT_TRUE(contains(fileMatching("[0-9]{5}_negSideBug\\.list"), "appearance{linewidth 10}"));
}

TEST_F(InTempDir, SphereFaultReportsAndDrawsTheSphere) {
  Pair m(0.4, 0.4, 0.4); // e inside the circumsphere of a, b, c, d
  std::string out;
  EXPECT_TRUE(valid(m.dt, true, false));
  EXPECT_FALSE(valid(m.dt, true, true, &out));
  EXPECT_TRUE(contains(out, "Dt3::checkValidity, HUH - sphereIncTest failed: \n"));
  EXPECT_TRUE(contains(fileMatching("[0-9]{5}_sphereIncBug\\.list"), "{\nappearance { +edge -face }\nSPHERE "));
}

TEST(Validity, VisitedFlagOnALiveTetrahedronThrows) {
  Pair m(2, 2, 2);
  m.t1->hasBeenVisited = true;
  EXPECT_TRUE(valid(m.dt, false, true));
  std::string out;
  EXPECT_TRUE(failsAssertion([&] { m.dt.checkValidity("here", true, true); }, "false", &out));
  EXPECT_TRUE(contains(out, "      Dt3::CheckValidity(), ERROR: pcurrentTet->hasBeenvisited=true"));
}

namespace {

std::string pointList(const Point3* p, int width, const std::string& color) {
  std::ostringstream oss;
  oss << "LIST\n{\nappearance{linewidth " << width << "}\nVECT\n1 1 1\n1 \n1 \n" << p->x() << " " << p->y() << " "
      << p->z() << "\n" << color << "\n}\n";
  return oss.str();
}

std::string expectedShow(Tet3* t, const std::string& color, const Point3* pMark) {
  std::ostringstream oss;
  oss << "LIST\n{\n";
  for (int f = 0; f < 4; ++f) {
    oss << "{\nOFF\n3 1 0\n";
    for (const Point3* p : cornersOf(t))
      if (p != t->getCorner(f)) oss << p->x() << " " << p->y() << " " << p->z() << "\n";
    oss << "3 0 1 2 " << color << "\n}\n";
  }
  for (const Point3* p : cornersOf(t)) oss << pointList(p, 5, "0 1 0 0.5");
  if (pMark != nullptr) oss << pointList(pMark, 10, "1 0 0 0.5");
  return oss.str() + "}\n";
}

bool showWritesFacesThenCornersThenTheMark() {
  Mesh m;
  m.vtx(0, 0, 0), m.vtx(2, 0, 0), m.vtx(0, 0.5, 0), m.vtx(0, 0, 1);
  Tet3* t = m.dt.createInitialTet();
  Point3* pMark = m.vtx(0.25, 0.125, 0.25);
  m.dt.show("plain.list", nullptr); // the first two colours of the cycle
  m.dt.show("marked.list", pMark);
  const bool bOk = fileMatching("plain\\.list") == expectedShow(t, "0 0.749 1 0.5", nullptr) &&
                   fileMatching("marked\\.list") == expectedShow(t, "0 0.1 .803 0.5", pMark);
  fs::remove_all(fs::current_path()); // the child's own directory
  return bOk;
}

bool labelsRiseFrom1000() {
  int labels[2];
  for (int& label : labels) {
    Mesh m;
    m.vtx(0, 0, 0), m.vtx(1, 0, 0), m.vtx(0, 1, 0), m.vtx(0, 0, 1);
    label = m.dt.createInitialTet()->getLabel();
  }
  return labels[0] == 1000 && labels[1] == 1001;
}

} // namespace

TEST_F(InTempDir, ShowWritesFacesThenCornersThenTheMark) {
  EXPECT_IN_FRESH_PROCESS(showWritesFacesThenCornersThenTheMark());
}

TEST(Recycling, LabelsRiseFrom1000AcrossTriangulations) { EXPECT_IN_FRESH_PROCESS(labelsRiseFrom1000()); }

TEST(Recycling, LastRetiredIsFirstReusedAfterTheSwap) {
  Mesh m;
  Point3 *a = m.vtx(0, 0, 0), *b = m.vtx(1, 0, 0), *c = m.vtx(0, 1, 0), *d = m.vtx(0, 0, 1);
  Tet3 *ta = m.tet(a, b, c, d), *tb = m.tet(a, b, c, d), *tc = m.tet(a, b, c, d);
  ta->setCustomIndex(5);
  m.dt.doom(ta);
  m.dt.doom(tb);
  EXPECT_TRUE(ta->getCustomIndex() == -1 && m.dt.getDoomed() == (std::vector<Tet3*>{ta, tb}));
  m.dt.swapDoomedVectors();
  EXPECT_TRUE(m.dt.getDoomed().empty() && m.dt.getDoomedPrev() == (std::vector<Tet3*>{ta, tb}));
  const int oldLabel = tc->getLabel();
  tb->setCustomIndex(3);
  EXPECT_EQ(m.tet(a, b, c, d), tb);
  EXPECT_TRUE(tb->getLabel() > oldLabel && tb->getCustomIndex() == -1); // every field is set anew
  m.dt.doom(tc);
  m.dt.swapDoomedVectors(); // ta, left over, goes back among the retired
  EXPECT_EQ(m.dt.getDoomed(), std::vector<Tet3*>{ta});
  EXPECT_EQ(m.tet(a, b, c, d), tc);
  m.dt.swapDoomedVectors();
  EXPECT_EQ(m.tet(a, b, c, d), ta);
  Tet3* fresh = m.tet(a, b, c, d);
  EXPECT_TRUE(fresh != ta && fresh != tb && fresh != tc && fresh->getCustomIndex() == -1);
}

TEST(InitialTet, WaitsForFourPointsThatSpanSpace) {
  Mesh m;
  EXPECT_EQ(m.dt.createInitialTet(), nullptr);
  m.vtx(0, 0, 0), m.vtx(1, 0, 0), m.vtx(0, 1, 0);
  EXPECT_EQ(m.dt.createInitialTet(), nullptr);
  m.vtx(1, 1, 0);
  EXPECT_TRUE(m.dt.createInitialTet() == nullptr && !m.dt.is3D());
  Point3* pUp = m.vtx(0.3, 0.3, 1);
  EXPECT_TRUE(m.dt.createInitialTet()->hasVertex(pUp) && m.dt.is3D());
  EXPECT_TRUE(failsAssertion([&] { m.dt.createInitialTet(); }, "!bFullDimensional"));
}

TEST(InitialTet, FirstSpanningQuadrupleOfTheStoreOrderInPositiveOrder) {
  // Collinear and coplanar runs before the points off the plane, in both
  // mirror images, so that negative quadruples occur and are exchanged.
  bool bSawNegative = false;
  for (int numFlat = 4; numFlat <= 18; ++numFlat) {
    const double s = numFlat % 2 ? 1.0 : -1.0;
    Mesh m;
    for (int k = 0; k < numFlat / 2 + 2; ++k) m.vtx(k % 3 == 2 ? 0.5 : k, k % 3 == 2 ? 1.5 * k : 0, 0);
    m.vtx(0.25, 0.75, s), m.vtx(2, 2, -s);
    std::vector<Point3*> vExpected = firstQuadruple(m.dt), v;
    m.dt.getVertexPointers(v);
    bSawNegative |= vExpected[0] != v[0];
    Tet3* t = m.dt.createInitialTet();
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(cornersOf(t), vExpected) << numFlat;
  }
  EXPECT_TRUE(bSawNegative);
}

TEST(Tet3Records, IndexTablesStreamFormAndFatalChecks) {
  EXPECT_EQ(Tet3::getEdgeIndices(3, 2), std::make_pair(2, 0));
  Pair m(2, 2, 2);
  int fa, fb, fc;
  m.t1->getFacetIndices(1, fa, fb, fc);
  EXPECT_TRUE(fa == 0 && fb == 3 && fc == 2);
  const Edge3 e01(m.t1, 0, 1), e10(m.t1, 1, 0); // exchanging the two indices reverses the edge
  EXPECT_TRUE(e01.getSourceVtx() == m.t1->getCorner(2) && e01.getTargetVtx() == m.t1->getCorner(3));
  EXPECT_TRUE(e10.getSourceVtx() == m.t1->getCorner(3) && e10.getTargetVtx() == m.t1->getCorner(2));
  std::vector<Tet3*> vEmpty, vRepeated{m.t2, m.t1, m.t2, m.t1, m.t1};
  oneInstance(vEmpty);
  oneInstance(vRepeated);
  EXPECT_TRUE(vEmpty.empty() && vRepeated == sorted({m.t1, m.t2}));

  const std::string positive = toString(*m.t1);
  EXPECT_EQ(positive.rfind("Tetrahedron (ID=" + toString(m.t1->getLabel()) + "), (this=" +
                           toString(static_cast<const void*>(m.t1)) + "): hasBeenVisited=0, ownOri=", 0), 0u);
  EXPECT_TRUE(positive.find('\033') == std::string::npos && contains(positive, " (NULL)\n"));
  const int i = m.t1->getIntraTetIndex(m.t2), j = m.t2->getIntraTetIndex(m.t1);
  EXPECT_FATAL(m.t1->getOppVtxInOppTet((i + 1) % 4, false), "no neighbor tet");
  EXPECT_FATAL(Tet3::haveCommonFacet(m.t1, i, m.t2, (j + 1) % 4), "Tet3::haveCommonFacet\\(\\) ERROR");
  // Every rotation and both directions of the shared facet's corners.
  EXPECT_TRUE(Tet3::haveCommonFacet(m.t1, i, m.t2, j));
  for (const auto& r : {std::array<Point3*, 3>{m.b, m.c, m.d}, {m.c, m.d, m.b}, {m.d, m.b, m.c}, {m.c, m.b, m.d}})
    EXPECT_TRUE(Tet3::haveCommonFacet(m.t1, i, m.dt.createTet(m.e, r[0], r[1], r[2]), 0));
  EXPECT_TRUE(contains(toString(*m.dt.createTet(m.b, m.a, m.c, m.d)), ", \033[0;31mownOri="));
}

// The circumcentre p0 + x against the exact solution of (p_i - p0) . x =
// |p_i - p0|^2 / 2, i = 1..3 (Cramer's rule in rationals), on tetrahedra of
// reasonable shape with every corner away from the origin.
TEST(Tet3Records, CircumcenterMatchesTheExactCentre) {
  std::mt19937_64 gen(17);
  std::uniform_real_distribution<double> u(1.0, 4.0);
  Mesh m;
  for (int n = 0, numTested = 0; numTested < 200; ++n) {
    Point3* p[4] = {m.vtx(u(gen), u(gen), u(gen)), m.vtx(u(gen), u(gen), u(gen)), m.vtx(u(gen), u(gen), u(gen)),
                    m.vtx(u(gen), u(gen), u(gen))};
    exact::Row<mpq_class> r[3];
    mpq_class b[3];
    for (int i = 0; i < 3; ++i) {
      r[i] = exact::diff<mpq_class>(*p[i + 1], *p[0]);
      b[i] = (r[i][0] * r[i][0] + r[i][1] * r[i][1] + r[i][2] * r[i][2]) / 2;
    }
    const mpq_class det = exact::det3(r[0], r[1], r[2]);
    if (abs(det) < 1) continue;
    ++numTested;
    const Point3 c = m.tet(p[0], p[1], p[2], p[3])->getCircumcenter();
    const double got[3] = {c.x(), c.y(), c.z()}, p0[3] = {p[0]->x(), p[0]->y(), p[0]->z()};
    for (int k = 0; k < 3; ++k) {
      exact::Row<mpq_class> s[3] = {r[0], r[1], r[2]};
      for (int i = 0; i < 3; ++i) s[i][k] = b[i];
      const double want = mpq_class(p0[k] + exact::det3(s[0], s[1], s[2]) / det).get_d();
      EXPECT_NEAR(got[k], want, 1e-9 * (1 + std::fabs(want))) << "tetrahedron " << n << ", coordinate " << k;
    }
  }
}

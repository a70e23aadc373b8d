// Tests of the mesh scaffolding on meshes built by hand: the queries, the edge
// and facet handles, the quiet fault finder and the validity check's fault
// reports, the Geomview dump, the recycling of retired records and the
// first tetrahedron.
#include <algorithm>
#include <random>
#include <regex>
#include <set>

#include "Visualizer3.h"
#include "test_support.h"

using namespace VELM3D;
using exact::orient;
using support::captured;
using support::contains;
using support::failsAssertion;
namespace fs = std::filesystem;

namespace {

// Links, both ways, every two tetrahedra that share a facet.
void link(const std::vector<Tet3*>& v) {
  const auto facet = [](Tet3* t, int i) { return std::set<Point3*>{t->getCorner((i + 1) % 4), t->getCorner((i + 2) % 4), t->getCorner((i + 3) % 4)}; };
  for (Tet3* s : v)
    for (Tet3* t : v)
      for (int i = 0; i < 16; ++i)
        if (s != t && facet(s, i / 4) == facet(t, i % 4)) s->setOppTet(i / 4, t);
}

// A hand-built mesh over stored vertices. The points are stored through the
// public row intake; the tetrahedra it made become unreachable once the
// test's own tetrahedra have every stored vertex as a corner, since the
// mesh's walks start at the vertices' incident tetrahedra, which createTet
// sets anew.
struct Mesh {
  Dt3 dt{nullptr};
  std::vector<Point3*> v;
  explicit Mesh(std::vector<double> xyz) { dt.insertRows(xyz.data(), xyz.size() / 3, v); }
  Tet3* tet(int a, int b, int c, int d) { // exchanged into positive order
    const bool bPositive = orient(*v[a], *v[b], *v[c], *v[d]) > 0;
    return dt.createTet(v[bPositive ? a : b], v[bPositive ? b : a], v[c], v[d]);
  }
  MeshFault fault(bool bVisited = true, bool bSphere = true) const { return dt.findFault(bVisited, bSphere, true); }
  std::string exactFault() { // the independent checker's verdict
    std::vector<Tet3*> vTets;
    dt.getAllTetrahedra(vTets);
    return exact::meshFault(vTets, v);
  }
};

// The corner tetrahedron a, b, c, d of the unit cube and a second one across
// its facet b, c, d, with e as fourth corner.
struct Pair : Mesh {
  Tet3 *t1 = tet(0, 1, 2, 3), *t2 = tet(4, 1, 2, 3);
  Point3 *a = v[0], *e = v[4];
  Pair(double ex, double ey, double ez) : Mesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, ex, ey, ez}) { link({t1, t2}); }
};

std::vector<Point3*> cornersOf(const Tet3* t) { return {t->getCorner(0), t->getCorner(1), t->getCorner(2), t->getCorner(3)}; }

bool valid(Dt3& dt, bool bVisited, bool bSphere, std::string* pOut = nullptr) {
  bool bResult = false;
  const std::string out = captured([&] { bResult = dt.checkValidity("here", bVisited, bSphere); });
  if (pOut != nullptr) *pOut = out;
  return bResult && out.find("\033[0;32m** CheckValidity at (here) has been finished, seems OK\033[m\n\n") != std::string::npos;
}

// The text of the one file in the working directory whose name matches.
std::string fileMatching(const std::string& pattern) {
  std::vector<std::string> vTexts;
  for (const auto& entry : fs::directory_iterator("."))
    if (std::regex_match(entry.path().filename().string(), std::regex(pattern)))
      vTexts.push_back(support::readFile(entry.path()));
  return vTexts.size() == 1 ? vTexts[0] : "";
}

// Each test runs in a directory of its own, for the files the library writes.
struct InTempDir : ::testing::Test {
  char dir[32] = "/tmp/velm_test_XXXXXX";
  fs::path origDir = fs::current_path();
  void SetUp() override { fs::current_path(mkdtemp(dir)); }
  void TearDown() override { fs::current_path(origDir), fs::remove_all(dir); }
};

} // namespace

TEST(Queries, PairSharingAFacet) {
  Pair m(2, 2, 2);
  std::vector<Tet3*> both{std::min(m.t1, m.t2), std::max(m.t1, m.t2)}, vAll, vAround, vAroundA, vIncident;
  m.dt.getAllTetrahedra(vAll);
  EXPECT_EQ(vAll, both);
  EXPECT_TRUE(failsAssertion([&] { m.dt.getAllTetrahedra(vAll); }, "vTet.empty()"));
  m.dt.getTetsAroundVertex(m.v[1], vAround);
  m.dt.getTetsAroundVertex(m.v[1], vAround); // appends
  EXPECT_EQ(vAround, (std::vector<Tet3*>{both[0], both[1], both[0], both[1]}));
  m.dt.getTetsAroundVertex(m.a, vAroundA);
  m.dt.getIncidentTetrahera(m.a, vIncident); // the seed alone is never reported, then the neighbour first
  m.dt.getIncidentTetrahera(m.v[1], vIncident);
  EXPECT_TRUE(vAroundA == std::vector<Tet3*>{m.t1} && vIncident == (std::vector<Tet3*>{m.t1, m.t2}));

  const int i = m.t1->getIntraTetIndex(m.t2), j = m.t2->getIntraTetIndex(m.t1), hull = (i + 1) % 4;
  EXPECT_TRUE(m.t1->getCorner(i) == m.a && m.t1->getOppVtxInOppTet(i, true) == m.e);
  EXPECT_TRUE(m.t1->getOppVtxInOppTet(hull, true) == nullptr && m.t1->debug_getOppTetIndex(hull) == -1);
  EXPECT_TRUE(m.t1->getIntraTetIndexInOppTetForReg(m.t2, j) == i && m.t1->getIntraTetIndexInOppTetForReg(m.t2, 4) == -1);
  EXPECT_TRUE(Facet3(m.t1, i) == Facet3(m.t2, j) && Facet3(m.t1, hull) != Facet3(m.t2, j));
  // Edge b-c through both tetrahedra, named by the two corners off the edge.
  const Edge3 e1(m.t1, i, m.t1->getIntraTetIndex(m.v[3])), e2(m.t2, j, m.t2->getIntraTetIndex(m.v[3]));
  EXPECT_TRUE(e1 == e2 && !(e1 < e2) && !(e2 < e1) && e1 != Edge3(m.t1, i, hull));
  EXPECT_EQ(std::set<Point3*>({e1.getSourceVtx(), e1.getTargetVtx()}), std::set<Point3*>({m.v[1], m.v[2]}));
  EXPECT_TRUE(valid(m.dt, true, true));
}

// A ring of four tetrahedra round an inner edge, its four outer points
// cocircular: a valid mesh, which no test faults.
TEST(Queries, RingRoundAnInnerEdge) {
  Mesh m({0, 0, -0.5, 0, 0, 0.5, 1, 0, 0, 0, 1, 0, -1, 0, 0, 0, -1, 0});
  std::vector<Tet3*> vRing, vAll, vAround;
  for (int k = 0; k < 4; ++k) vRing.push_back(m.tet(0, 1, 2 + k, 2 + (k + 1) % 4));
  link(vRing);
  m.dt.getAllTetrahedra(vAll);
  m.dt.getTetsAroundVertex(m.v[0], vAround);
  EXPECT_TRUE(std::is_permutation(vAll.begin(), vAll.end(), vRing.begin()) && vAround == vAll);
  TetAroundEdgeIterator it(Edge3(vRing[0], vRing[0]->getIntraTetIndex(m.v[2]), vRing[0]->getIntraTetIndex(m.v[3])));
  std::set<Tet3*> sSeen;
  for (int step = 1; step <= 4; ++step) {
    sSeen.insert((++it).getTet());
    EXPECT_EQ(std::set<Point3*>({it.getSourceVtx(), it.getTargetVtx()}), std::set<Point3*>({m.v[0], m.v[1]}));
    EXPECT_EQ(it.getTet() == vRing[0], step == 4);
  }
  EXPECT_TRUE(sSeen.size() == 4 && !m.fault() && valid(m.dt, true, true));
}

// The faults of the two tests, found quietly and reported as they always
// were, with a picture of each.
TEST_F(InTempDir, OverlappingPairIsASideFaultPointInTheSphereASphereFault) {
  Pair m(0.1, 0.1, 0.1); // e on the same side of b, c, d as a
  const MeshFault f = m.fault(false, false);
  EXPECT_TRUE(f.kind == MeshFault::SIDE && f.ori == ORIENTATION3_POSITIVE && f.pVtx == (f.pTet == m.t1 ? m.e : m.a));
  const std::string line = f.describe();
  EXPECT_TRUE(line.find('\n') == std::string::npos && contains(line, "tetrahedron " + toString(f.pTet->getLabel())) &&
              contains(line, "facet " + toString(f.ith)) && contains(line, "0.10000000000000001")) << line;
  std::string out;
  EXPECT_FALSE(valid(m.dt, false, false, &out)); // orientation is tested all the same
  EXPECT_TRUE(contains(out, "                ERROR: checkValidity at [here]\n"));
  EXPECT_TRUE(contains(out, "Dt3::checkValidity, HUH, vertex ") && contains(out, " should be on the negative side, tet=\n"));
  EXPECT_TRUE(contains(out, "oppIndex=" + toString(f.ith) + ", Vertex=") && contains(out, "checkValidity: positive\n"));
  EXPECT_TRUE(contains(fileMatching("[0-9]{5}_negSideBug\\.list"), "appearance{linewidth 10}"));
  EXPECT_TRUE(contains(m.exactFault(), "neighbour's vertex not strictly beyond facet ")) << m.exactFault();

  Pair s(0.4, 0.4, 0.4);
  EXPECT_TRUE(!s.fault(true, false) && valid(s.dt, true, false));
  EXPECT_TRUE(s.fault().kind == MeshFault::SPHERE && s.fault().pVtx == (s.fault().pTet == s.t1 ? s.e : s.a));
  EXPECT_FALSE(valid(s.dt, true, true, &out));
  EXPECT_TRUE(contains(out, "Dt3::checkValidity, HUH - sphereIncTest failed: \n"));
  EXPECT_TRUE(contains(fileMatching("[0-9]{5}_sphereIncBug\\.list"), "{\nappearance { +edge -face }\nSPHERE "));
  EXPECT_TRUE(contains(s.exactFault(), "neighbour's vertex inside the sphere across facet ") && Pair(2, 2, 2).exactFault().empty());
}

TEST(Faults, VisitedOneWayMismatchedAndNegativeTetrahedra) {
  Pair m(2, 2, 2);
  const int i = m.t1->getIntraTetIndex(m.t2), j = m.t2->getIntraTetIndex(m.t1);
  m.t1->hasBeenVisited = true;
  EXPECT_TRUE(m.fault().kind == MeshFault::VISITED && m.fault().pTet == m.t1 && !m.fault(false));
  EXPECT_TRUE(valid(m.dt, false, true));
  std::string out;
  EXPECT_TRUE(failsAssertion([&] { m.dt.checkValidity("here", true, true); }, "false", &out));
  EXPECT_TRUE(contains(out, "      Dt3::CheckValidity(), ERROR: pcurrentTet->hasBeenvisited=true"));
  m.t1->hasBeenVisited = false;

  m.t2->setOppTet(j, nullptr);
  EXPECT_TRUE(m.fault().kind == MeshFault::ONE_WAY_LINK && m.fault().pTet == m.t1 && m.fault().ith == i);
  EXPECT_FATAL(m.dt.checkValidity("here", true, true), "Tet3::getIntraTetIndex went wrong");
  m.t2->setOppTet(j, m.t1);

  Point3* pB = m.t2->getCorner((j + 1) % 4); // t2 turned negative, its links kept
  m.t2->setCorner((j + 1) % 4, m.t2->getCorner((j + 2) % 4));
  m.t2->setCorner((j + 2) % 4, pB);
  const MeshFault negative = m.fault();
  EXPECT_TRUE(negative.kind == MeshFault::NOT_POSITIVE && negative.pTet == m.t2 && negative.ori == ORIENTATION3_NEGATIVE);

  Mesh same({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1}); // two records of one tetrahedron, linked across facets 0 and 1
  Tet3 *s1 = same.tet(0, 1, 2, 3), *s2 = same.tet(0, 1, 2, 3);
  s1->setOppTet(0, s2), s2->setOppTet(1, s1);
  EXPECT_EQ(same.fault().kind, MeshFault::FACET_MISMATCH);
}

namespace {

// A fresh process: the colours start at the cycle's first, and the labels
// at 1000, rising across triangulations.
bool showWritesFacesThenCornersThenTheMarkAndLabelsRiseFrom1000() {
  Mesh m({0, 0, 0, 2, 0, 0, 0, 0.5, 0, 0, 0, 1});
  Tet3* t = m.v[0]->getOneTet();
  Point3 mark(0.25, 0.125, 0.25);
  m.dt.show("plain.list", nullptr);
  m.dt.show("marked.list", &mark);
  for (const char* name : {"0.list", "1.list"}) { // the faces in one colour, the corners, the mark
    Visualizer3 vis(name);
    vis.writeTetrahedron(t, name[0] == '0' ? "0 0.749 1 0.5" : "0 0.1 .803 0.5");
    for (const Point3* p : cornersOf(t)) vis.writePoint(*p, 5, Visualizer3::CGREEN);
    if (name[0] == '1') vis.writePoint(mark, 10, Visualizer3::CRED);
  }
  const bool bOk = support::readFile("plain.list") == support::readFile("0.list") &&
                   support::readFile("marked.list") == support::readFile("1.list");
  fs::remove_all(fs::current_path()); // the child's own directory
  return bOk && t->getLabel() == 1000 && Mesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1}).v[0]->getOneTet()->getLabel() > 1000; // the next triangulation draws a block of its own
}

} // namespace

TEST_F(InTempDir, ShowWritesFacesThenCornersThenTheMark) {
  EXPECT_IN_FRESH_PROCESS(showWritesFacesThenCornersThenTheMarkAndLabelsRiseFrom1000());
}

// Collinear and coplanar runs before the apex, in both mirror images, so that
// negative quadruples occur and are exchanged: the tetrahedron is the first
// index quadruple of the store's order that spans space, made by the single
// insertion that brings it.
TEST(InitialTet, FirstSpanningQuadrupleOfTheStoreOrderInPositiveOrder) {
  bool bSawNegative = false;
  for (int numFlat = 4; numFlat <= 18; ++numFlat) {
    Dt3 dt(nullptr);
    EXPECT_EQ(dt.createInitialTet(), nullptr);
    std::vector<Point3> vFlat;
    for (int k = 0; k < numFlat; ++k) vFlat.emplace_back(k % 3 == 2 ? 0.5 : k, k % 3 == 2 ? 1.5 * k : 0, 0);
    for (Point3& p : vFlat) dt.insert(p);
    EXPECT_TRUE(dt.createInitialTet() == nullptr && !dt.is3D());
    Point3 apex(0.25, 0.75, numFlat % 2 ? 1.0 : -1.0);
    captured([&] { dt.insert(apex); });
    std::vector<Point3*> v, vExpected;
    dt.getVertexPointers(v);
    for (size_t i = 0; i < v.size() && vExpected.empty(); ++i)
      for (size_t j = i + 1; j < v.size() && vExpected.empty(); ++j)
        for (size_t k = j + 1; k < v.size() && vExpected.empty(); ++k)
          for (size_t l = k + 1; l < v.size() && vExpected.empty(); ++l)
            if (const int o = orient(*v[i], *v[j], *v[k], *v[l]))
              vExpected = {o > 0 ? v[i] : v[j], o > 0 ? v[j] : v[i], v[k], v[l]};
    bSawNegative |= vExpected[0] != v[0];
    ASSERT_TRUE(dt.is3D());
    EXPECT_EQ(cornersOf(vExpected[2]->getOneTet()), vExpected) << numFlat;
    EXPECT_TRUE(failsAssertion([&] { dt.createInitialTet(); }, "!bFullDimensional"));
  }
  EXPECT_TRUE(bSawNegative);
}

TEST(Tet3Records, EdgeDirectionStreamFormCommonFacetFacetEdgesAndFatalChecks) {
  Pair m(2, 2, 2);
  const Edge3 e01(m.t1, 0, 1), e10(m.t1, 1, 0); // exchanging the two indices reverses the edge
  EXPECT_TRUE(e01.getSourceVtx() == m.t1->getCorner(2) && e01.getTargetVtx() == m.t1->getCorner(3) &&
              e10.getSourceVtx() == m.t1->getCorner(3) && e10.getTargetVtx() == m.t1->getCorner(2));
  Point3 *c0, *c1, *c2, *c3;
  m.t1->getCorners(c0, c1, c2, c3);
  EXPECT_TRUE(c0 == m.t1->getCorner(0) && c1 == m.t1->getCorner(1) && c2 == m.t1->getCorner(2) && c3 == m.t1->getCorner(3));
  const std::string positive = toString(*m.t1);
  EXPECT_EQ(positive.rfind("Tetrahedron (ID=" + toString(m.t1->getLabel()) + "), (this=" +
                           toString(static_cast<const void*>(m.t1)) + "): hasBeenVisited=0, ownOri=", 0), 0u);
  EXPECT_TRUE(positive.find('\033') == std::string::npos && contains(positive, " (NULL)\n"));
  EXPECT_TRUE(contains(toString(*m.dt.createTet(m.v[1], m.a, m.v[2], m.v[3])), ", \033[0;31mownOri="));
  const int i = m.t1->getIntraTetIndex(m.t2), j = m.t2->getIntraTetIndex(m.t1);
  EXPECT_FATAL(m.t1->getOppVtxInOppTet((i + 1) % 4, false), "no neighbor tet");
  EXPECT_FATAL(Tet3::haveCommonFacet(m.t1, i, m.t2, (j + 1) % 4), "Tet3::haveCommonFacet\\(\\) ERROR");
  for (int r = 0; r < 4; ++r) // every rotation and both directions of the shared facet's corners
    EXPECT_TRUE(Tet3::haveCommonFacet(m.t1, i, m.dt.createTet(m.e, m.v[1 + r % 3], m.v[1 + (r + 1 + r / 3) % 3], m.v[1 + (r + 2 - r / 3) % 3]), 0));
  // The edges of facet i run round it in the order opposite to the facet's
  // own corner order (that of facetIndices, positive seen from corner i).
  for (int ith = 0; ith < 4; ++ith) { // a facet's corners, with the opposite corner, are in positive order
    const Facet3 f(m.t1, ith);
    const int k[3] = {f.getIntraTetIndex(0), f.getIntraTetIndex(1), f.getIntraTetIndex(2)};
    ASSERT_EQ((1 << k[0]) | (1 << k[1]) | (1 << k[2]) | (1 << ith), 15) << ith; // the three other corners
    EXPECT_GT(orient(*m.t1->getCorner(k[0]), *m.t1->getCorner(k[1]), *m.t1->getCorner(k[2]), *m.t1->getCorner(ith)), 0) << ith;
    for (int jth = 0; jth < 3; ++jth)
      EXPECT_EQ(Tet3::getEdgeIndices(ith, jth), std::make_pair(Tet3::facetIndices[ith][(3 - jth) % 3], Tet3::facetIndices[ith][2 - jth]));
  }
}

// The circumcentre is equidistant from the four corners, to a relative
// error of rounding, on random tetrahedra of reasonable shape.
TEST(Tet3Records, CircumcenterIsEquidistantFromTheCorners) {
  std::vector<Point3> p = support::randomPoints(800, 17, 1.0, 4.0);
  Mesh m({0, 0, 0});
  for (size_t n = 0; n < p.size(); n += 4) {
    using exact::diff;
    if (std::fabs(exact::det3(diff<double>(p[n + 1], p[n]), diff<double>(p[n + 2], p[n]), diff<double>(p[n + 3], p[n]))) < 1) continue;
    const Point3 c = m.dt.createTet(&p[n], &p[n + 1], &p[n + 2], &p[n + 3])->getCircumcenter();
    double d[4];
    for (int i = 0; i < 4; ++i) d[i] = std::hypot(c.x() - p[n + i].x(), c.y() - p[n + i].y(), c.z() - p[n + i].z());
    EXPECT_TRUE(std::fabs(d[1] - d[0]) + std::fabs(d[2] - d[0]) + std::fabs(d[3] - d[0]) < 1e-9 * d[0]) << n;
  }
}

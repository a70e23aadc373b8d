// Seeded test data and the XYZ reader. The expected numbers are recomputed
// here from the system library's rand() with the documented arithmetic, so a
// change in the order of operations shows in the last bits.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "test_support.h"

using namespace VELM3D;
using support::captured;

namespace {

std::vector<double> replica(unsigned long num, double min, double max) {
  std::vector<double> v;
  for (unsigned long i = 0; i < num; ++i) v.push_back(static_cast<double>(rand()) * (max - min) * 0x1p-31 + min);
  return v;
}

// The n-th call with seed 0 seeds from the clock's second and reseeds n-1
// times from the generator; calls with other seeds leave the count alone.
// Runs in a fresh child, where no seed-0 call has been made yet.
bool seedZeroReseedsOncePerEarlierCall() {
  std::vector<double> a, b, c;
  generateRandomNumbers(4, 0.0, 1.0, a, 0);
  generateRandomNumbers(4, 0.0, 1.0, b, 0);
  generateRandomNumbers(4, 0.0, 1.0, c, 17);
  for (int earlier = 2; earlier < 50; ++earlier) {
    std::vector<double> v;
    const time_t t0 = time(nullptr);
    generateRandomNumbers(4, 0.0, 1.0, v, 0);
    if (time(nullptr) != t0) continue; // a second boundary: try the next call
    srand(static_cast<unsigned int>(t0));
    for (int i = 0; i < earlier; ++i) srand(static_cast<unsigned int>(rand()));
    return a != b && v == replica(4, 0.0, 1.0);
  }
  return false;
}

} // namespace

TEST(GenerateRandomNumbers, SeededSequenceIsExactAppendedAndRepeatable) {
  std::vector<double> v{7.0}, w;
  generateRandomNumbers(500, -1.3, 2.4, v, 42);
  srand(42);
  const std::vector<double> expected = replica(500, -1.3, 2.4);
  EXPECT_EQ(std::vector<double>(v.begin() + 1, v.end()), expected); // bitwise, no NaN
  generateRandomNumbers(500, -1.3, 2.4, w, 42);
  EXPECT_EQ(w, expected);
  generateRandomNumbers(0, 0.0, 1.0, w, 9); // num 0 still consumes the seed
  const int next = rand();
  srand(9);
  EXPECT_TRUE(next == rand() && w.size() == 500 && v[0] == 7.0);
}

TEST(GenerateRandomNumbers, SeedZeroReseedsOncePerEarlierSeedZeroCall) {
  EXPECT_IN_FRESH_PROCESS(seedZeroReseedsOncePerEarlierCall());
}

TEST(GenerateRandomPoints, TwoThirdsOfTheRequestedCountFromTheNumbersInOrder) {
  std::vector<Point3> vLong;
  generateRandomPoints(1000, 0.0, 1.0, vLong, 3);
  srand(3);
  const std::vector<double> r = replica(3 * 667, 0.0, 1.0);
  ASSERT_EQ(vLong.size(), 667u);
  for (size_t i = 0; i < vLong.size(); ++i) EXPECT_TRUE(vLong[i] == Point3(r[3 * i], r[3 * i + 1], r[3 * i + 2]));
  for (const auto& [asked, got] : {std::pair<unsigned long, size_t>{0, 0}, {1, 1}, {2, 2}, {3, 2}, {4, 3}, {10, 7}}) {
    std::vector<Point3> v(1);
    generateRandomPoints(asked, 0.0, 1.0, v, 3);
    EXPECT_EQ(v.size(), got + 1) << asked;
  }
}

// Numbers are seeded before their check, points check before seeding.
TEST(GenerateRandomData, BoundsCheckReportsConditionAndPosition) {
  const struct { double min, max; bool bPoints; } cases[] = {{1.0, 1.0, false}, {NAN, 1.0, false}, {2.0, 1.0, true}};
  for (const auto& c : cases) {
    std::vector<double> vNum;
    std::vector<Point3> vPts;
    srand(5);
    const auto generate = [&] {
      c.bPoints ? generateRandomPoints(3, c.min, c.max, vPts, 8) : generateRandomNumbers(3, c.min, c.max, vNum, 8);
    };
    EXPECT_TRUE(support::failsAssertion(generate, "min<max"));
    const int next = rand();
    srand(c.bPoints ? 5 : 8);
    EXPECT_TRUE(vNum.empty() && vPts.empty() && next == rand());
  }
}

TEST(ReadXYZ, GroupsOfThreeUntilTheFirstBadToken) {
  const struct { const char* text; size_t numPoints; } cases[] = {
      {"", 0}, {"1 2 3 4 5", 1}, {"1 2 x 4 5 6", 0}, {"1\n2\n3 4\t5 6\n-7e1 8 9 10", 3}};
  for (const auto& c : cases) {
    std::vector<Point3> v(1);
    const std::string path = support::writeTemp("in.xyz", c.text);
    EXPECT_TRUE(readXYZ(path.c_str(), v));
    EXPECT_EQ(v.size(), c.numPoints + 1);
    EXPECT_TRUE(c.numPoints != 3 || (v[1] == Point3(1, 2, 3) && v[3] == Point3(-70, 8, 9)));
    std::remove(path.c_str());
  }
  std::vector<Point3> v;
  const std::string missing = support::tempPath("no_such_dir/none.xyz");
  EXPECT_EQ(captured([&] { EXPECT_FALSE(readXYZ(missing.c_str(), v)); }), missing + " is unreadable\n");
  EXPECT_TRUE(v.empty());
}

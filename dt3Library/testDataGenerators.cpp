// testDataGenerators.cpp: seeded random numbers and points for programs that
// exercise the library, and the reader of plain XYZ point files.
//
// The generator is the system library's rand/srand, so a sequence repeats
// only on the same system library. Its state and the seed-0 count are shared
// by the process; a lock keeps each generation whole against other threads.
//
// The scale of a random number assumes rand() yields 0 to 2^31-1: the value
// r * range * 2^-31 + min lies in [min, max) up to rounding. The order of the
// operations fixes the last bits of every value and is part of the contract.
//
// The bounds are checked by assertion reports that name this file and the
// line of the check; the two checks stand on lines 61 and 76, the positions
// that reports of this library have always shown, and programs matching the
// reports may rely on them. Keep the lines above them in number.
#include "testDataGenerators.h"

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <mutex>

#include "freeFunctions.h"

namespace VELM3D {

namespace {

// 2^-31, the exact reciprocal of 2147483648.
const double twoToMinus31 = 4.656612873077393e-10;
std::mutex generatorMutex;

// Seed 0: the clock's second, then one reseeding from the generator per earlier
// seed-0 call, so two calls in one second differ; other seeds leave the count.
void seedGenerator(unsigned int seed, int& ithCall) {
  if (seed != 0) {
    srand(seed);
    return;
  }
  srand(static_cast<unsigned int>(time(nullptr)));
  for (int i = 0; i < ithCall; ++i) srand(static_cast<unsigned int>(rand()));
  ++ithCall;
}

} // namespace

// Appends num values in [min, max), one rand() call per value, uniform over
// the generator's range.
//
// The seed is consumed before the bounds are checked, so a failed check still
// leaves the generator reseeded and, for seed 0, the count advanced. Equal
// bounds fail the check, and so does a NaN bound, since the test asks for
// min below max. Nothing has been appended when the check fails.
//
// The values of a non-zero seed are the same for any num.
void generateRandomNumbers(unsigned long num, double min, double max,
                           std::vector<double>& vRandomNumbers, unsigned int seed) {
  const std::lock_guard<std::mutex> lock(generatorMutex);
  static int ithCall = 0;
  seedGenerator(seed, ithCall);
  VELM_ASSERT(min<max);
  if (num == 0) return;
  const double range = max - min;
  if (vRandomNumbers.empty()) vRandomNumbers.reserve(num);
  for (unsigned long i = 0; i < num; ++i) {
    double value = static_cast<double>(rand());
    value *= range;
    value *= twoToMinus31;
    value += min;
    vRandomNumbers.push_back(value);
  }
}

void generateRandomPoints(unsigned long numPoints, double min, double max,
                          std::vector<Point3>& vPoints, unsigned int seed) {
  VELM_ASSERT(min<max);
  std::vector<double> vNumbers;
  generateRandomNumbers(3 * numPoints, min, max, vNumbers, seed);
  // Only the first two thirds of the numbers are used: ceil(2n/3) points.
  // Existing point sequences depend on this bound, so it stays.
  for (unsigned long i = 0; i < 2 * numPoints; i += 3) {
    vPoints.push_back(Point3(vNumbers[i], vNumbers[i + 1], vNumbers[i + 2]));
  }
}

// Groups of three numbers in any white-space layout; the first token that is
// no number, or a last incomplete group, ends the read in silence.
bool readXYZ(const char* filename, std::vector<Point3>& vPoints) {
  std::ifstream file(filename);
  if (!file.is_open()) {
    consoleLine(std::string(filename) + " is unreadable");
    return false;
  }
  while (true) {
    double x, y, z;
    file >> x >> y >> z;
    if (file.fail() || file.bad()) break;
    vPoints.push_back(Point3(x, y, z));
  }
  file.close();
  return true;
}

} // namespace VELM3D

// testDataGenerators.h: seeded test points and the XYZ reader.
//
// The generators use the system library's rand/srand: a non-zero seed
// repeats its sequence on one system library. Seed 0 seeds from the clock and
// reseeds once more for each earlier call with seed 0 (process-wide count).
#pragma once

#include <vector>

#include "Point3.h"

namespace VELM3D {

// Appends num values in [min, max); min<max is asserted.
void generateRandomNumbers(unsigned long num, double min, double max,
                           std::vector<double>& vRandomNumbers, unsigned int seed);
// Appends ceil(2*numPoints/3) points; the last third of the numbers drawn is
// unused, so the first points of a seed are the same for any numPoints.
void generateRandomPoints(unsigned long numPoints, double min, double max,
                          std::vector<Point3>& vPoints, unsigned int seed);
// Appends the points of a whitespace-separated text file of x y z groups;
// stops in silence at the first bad token. False only if unreadable.
bool readXYZ(const char* filename, std::vector<Point3>& vPoints);

} // namespace VELM3D

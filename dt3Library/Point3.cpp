// Point3.cpp: stream forms of Point3 and the growing of Bbox3.
#include "Point3.h"

#include <iomanip>
#include <iostream>

#include "freeFunctions.h"

namespace VELM3D {

void Point3::debug() {
  std::ostringstream oss = consoleStream();
  oss << "Point3: " << x_ << "," << y_ << "," << z_;
  consoleLine(oss.str());
}

std::ostream& operator<<(std::ostream& stream, const Point3& p) {
  stream << static_cast<const void*>(&p) << "\t" << std::setw(8) << p.x() << ", " << std::setw(8)
         << p.y() << ", " << std::setw(8) << p.z();
  return stream;
}

std::istream& operator>>(std::istream& stream, Point3& p) {
  double x = p.x(), y = p.y(), z = p.z();
  stream >> x >> y >> z;
  p.exchange(x, y, z);
  return stream;
}

// Widens one axis: a smaller value moves the minimum, otherwise a larger one
// moves the maximum.
static inline void widenAxis(double v, double& lo, double& hi) {
  if (lo > v)
    lo = v;
  else if (v > hi)
    hi = v;
}

void Bbox3::widen(const Point3& p) {
  widenAxis(p.x(), minX, maxX);
  widenAxis(p.y(), minY, maxY);
  widenAxis(p.z(), minZ, maxZ);
}

bool Bbox3::add(const Point3& p) {
  if (isEmpty()) {
    minX = maxX = p.x();
    minY = maxY = p.y();
    minZ = maxZ = p.z();
    return true;
  }
  const Bbox3 old(*this);
  widen(p);
  return old.minX != minX || old.minY != minY || old.minZ != minZ || old.maxX != maxX ||
         old.maxY != maxY || old.maxZ != maxZ;
}

bool Bbox3::add(const std::vector<Point3>& v) {
  if (v.empty()) return false;
  size_t first = 0;
  bool bWasEmpty = false;
  if (isEmpty()) {
    minX = maxX = v[0].x();
    minY = maxY = v[0].y();
    minZ = maxZ = v[0].z();
    first = 1;
    bWasEmpty = true;
  }
  const Bbox3 old(*this);
  for (size_t i = first; i < v.size(); ++i) widen(v[i]);
  return bWasEmpty || old.minX != minX || old.minY != minY || old.minZ != minZ ||
         old.maxX != maxX || old.maxY != maxY || old.maxZ != maxZ;
}

} // namespace VELM3D

// Vector3.cpp: the small value types beside Point3 (Vector3, Segment3, Ball3,
// Bounds) and the free vector functions.
//
// Everything here is plain double arithmetic in a fixed order of evaluation,
// so that results are reproducible bit for bit: the dot product sums the z term
// last, a division by a scalar is a true division per component. No function
// here decides anything about the mesh; exact decisions belong to ExactTest.
#include "Vector3.h"

#include <cmath>
#include <iostream>

#include "freeFunctions.h"

namespace VELM3D {

// The two members of Point3 that need Vector3 live here, beside the vector.
Vector3 Point3::operator-(const Point3& q) const {
  return Vector3(x_ - q.x_, y_ - q.y_, z_ - q.z_);
}

Point3 Point3::operator+(const Vector3& v) const {
  return Point3(x_ + v.x(), y_ + v.y(), z_ + v.z());
}

double Vector3::length() const { return std::sqrt(x_ * x_ + y_ * y_ + z_ * z_); }

double Vector3::operator*(const Vector3& w) const {
  return z_ * w.z_ + (y_ * w.y_ + x_ * w.x_);
}

Vector3 Vector3::operator*(double d) const { return Vector3(x_ * d, y_ * d, z_ * d); }

Vector3 Vector3::operator/(double d) const { return Vector3(x_ / d, y_ / d, z_ / d); }

Vector3 crossProduct(const Vector3& a, const Vector3& b) {
  return Vector3(a.y() * b.z() - a.z() * b.y(), a.z() * b.x() - a.x() * b.z(),
                 a.x() * b.y() - a.y() * b.x());
}

Vector3 normalize(const Vector3& v) {
  const double len = v.length();
  // Written as "not above zero" so that a NaN length takes this branch too.
  if (!(len > 0.0)) {
    consoleLine("warning: normalize(const Vector3& other), Null length vector!");
    return Vector3(0.0, 0.0, 0.0);
  }
  return Vector3(v.x() / len, v.y() / len, v.z() / len);
}

Vector3 getNormalVector(const Point3& p0, const Point3& p1, const Point3& p2) {
  const Vector3 e1(normalize(p1 - p0));
  const Vector3 e2(normalize(p2 - p0));
  return normalize(crossProduct(e1, e2));
}

Segment3::Segment3(const Point3& src_, const Point3& trg_) : src(src_), trg(trg_) {}

void Segment3::debug() {
  std::ostringstream oss = consoleStream();
  oss << "Segment3: " << src << "," << trg;
  consoleLine(oss.str());
}

std::ostream& operator<<(std::ostream& stream, Segment3 seg) {
  stream << "Segment3: " << seg.src << "," << seg.trg;
  return stream;
}

Ball3::Ball3(double x, double y, double z, double sqRadius_)
    : center(x, y, z), sqRadius(sqRadius_) {}

double Ball3::getRadius() const { return std::sqrt(sqRadius); }

void Ball3::debug() const {
  std::ostringstream oss = consoleStream();
  oss << "Ball3: " << center << ", r=" << getRadius();
  consoleLine(oss.str());
}

std::ostream& operator<<(std::ostream& stream, const Ball3& ball) {
  stream << "Ball3: " << ball.center << ", r=" << ball.getRadius();
  return stream;
}

Bounds::Bounds()
    : minX(1.7976931348623157e308), minY(1.7976931348623157e308),
      maxX(-1.7976931348623157e308), maxY(-1.7976931348623157e308) {}

Bounds::Bounds(Bounds& b) : minX(b.minX), minY(b.minY), maxX(b.maxX), maxY(b.maxY) {}

Bounds::Bounds(double minX_, double minY_, double maxX_, double maxY_)
    : minX(minX_), minY(minY_), maxX(maxX_), maxY(maxY_) {}

void Bounds::debug() {
  std::ostringstream oss = consoleStream();
  oss << "Bounds: " << minX << "," << minY << "," << maxX << "," << maxY;
  consoleLine(oss.str());
}

void Func_objBounds::operator()(const Point3& p) {
  if (p.x() > b.maxX) b.maxX = p.x();
  if (p.x() < b.minX) b.minX = p.x();
  if (p.y() > b.maxY) b.maxY = p.y();
  if (p.y() < b.minY) b.minY = p.y();
}

} // namespace VELM3D

// Vector3.h: small geometric value types beside Point3, for callers and for
// the Geomview drawing operations. The insertion uses none of them; all
// arithmetic here is plain double arithmetic.
#pragma once

#include <iosfwd>

#include "Point3.h"

namespace VELM3D {

class Vector3 {
public:
  Vector3() : x_(0.0), y_(0.0), z_(0.0) {}
  Vector3(double x, double y, double z) : x_(x), y_(y), z_(z) {}
  double x() const { return x_; }
  double y() const { return y_; }
  double z() const { return z_; }
  void set(double x, double y, double z) {
    x_ = x;
    y_ = y;
    z_ = z;
  }
  double length() const;
  double operator*(const Vector3& w) const; // dot product
  Vector3 operator*(double d) const;
  Vector3 operator/(double d) const;

private:
  double x_, y_, z_;
};

Vector3 crossProduct(const Vector3& a, const Vector3& b);
// Unit vector; a vector without positive length prints a warning and gives 0.
Vector3 normalize(const Vector3& v);
// Unit normal of the triangle p0, p1, p2 (both edge vectors normalised first).
Vector3 getNormalVector(const Point3& p0, const Point3& p1, const Point3& p2);

class Segment3 {
public:
  Segment3(const Point3& src, const Point3& trg);
  Point3 getSrc() const { return src; }
  Point3 getTrg() const { return trg; }
  void debug();

private:
  Point3 src;
  Point3 trg;
  friend std::ostream& operator<<(std::ostream& stream, Segment3 seg);
};
std::ostream& operator<<(std::ostream& stream, Segment3 seg);

// A ball by centre and squared radius.
class Ball3 {
public:
  Ball3(double x, double y, double z, double sqRadius);
  double getRadius() const;
  double getSqRadius() const { return sqRadius; }
  Point3 getCenter() const { return center; }
  void debug() const;

private:
  Point3 center;
  double sqRadius;
  friend std::ostream& operator<<(std::ostream& stream, const Ball3& ball);
};
std::ostream& operator<<(std::ostream& stream, const Ball3& ball);

// Two-coordinate bounds, empty by default like Bbox3.
class Bounds {
public:
  Bounds();
  Bounds(Bounds& b);
  Bounds(double minX, double minY, double maxX, double maxY);
  void debug();

  double minX, minY, maxX, maxY;
};

// Widens a Bounds by the x and y of each point it is applied to.
class Func_objBounds {
public:
  explicit Func_objBounds(Bounds& b_) : b(b_) {}
  void operator()(const Point3& p);

private:
  Bounds& b;
};

} // namespace VELM3D

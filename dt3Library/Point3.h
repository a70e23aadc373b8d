// Point3.h: the coordinate triple that is also a vertex, and the box Bbox3.
//
// A Point3 in a caller's vector is only a position. A vertex of the mesh is a
// Point3 owned by the vertex store (HC3); its address is its identity and it
// never moves. A copy of a vertex is never a vertex: the copy constructor
// clears the incident tetrahedron. Positions compare exactly, without any
// tolerance; all arithmetic here is plain double arithmetic, exact decisions
// belong to ExactTest.
#pragma once

#include <iosfwd>
#include <vector>

namespace VELM3D {

class Tet3;
class Vector3;

class Point3 {
public:
  Point3()
      : x_(-1.7976931348623157e308), y_(-1.7976931348623157e308),
        z_(-1.7976931348623157e308), pOneTet(nullptr), customIndex(-1) {}
  Point3(double x, double y, double z)
      : x_(x), y_(y), z_(z), pOneTet(nullptr), customIndex(-1) {}
  Point3(const Point3& p)
      : x_(p.x_), y_(p.y_), z_(p.z_), pOneTet(nullptr), customIndex(p.customIndex) {}
  Point3& operator=(const Point3& p) = default;
  ~Point3() {}

  // Fills a raw pool record from p; customIndex keeps what the memory held.
  void init(const Point3& p) {
    x_ = p.x_;
    y_ = p.y_;
    z_ = p.z_;
    pOneTet = nullptr;
  }
  void exchange(double x, double y, double z) {
    x_ = x;
    y_ = y;
    z_ = z;
  }

  double x() const { return x_; }
  double y() const { return y_; }
  double z() const { return z_; }
  void xyz(double& x, double& y, double& z) const {
    x = x_;
    y = y_;
    z = z_;
  }
  Tet3* getOneTet() const { return pOneTet; }
  void setOneTet(Tet3* pTet) { pOneTet = pTet; }
  int getCustomIndex() const { return customIndex; }
  void setCustomIndex(int ci) { customIndex = ci; }
  // The vertex's position in the store's curve order, as a threaded
  // insertion numbered it last; it tells which thread may change the
  // tetrahedra at the vertex. Meaningless otherwise.
  unsigned int getCurveRank() const { return curveRank; }
  void setCurveRank(unsigned int r) { curveRank = r; }

  // Lexicographic by x, y, z using only ">", so that a NaN coordinate falls
  // through to the next one instead of deciding.
  bool operator<(const Point3& q) const {
    if (q.x_ > x_) return true;
    if (x_ > q.x_) return false;
    if (q.y_ > y_) return true;
    if (y_ > q.y_) return false;
    return q.z_ > z_;
  }
  bool operator==(const Point3& q) const { return x_ == q.x_ && y_ == q.y_ && z_ == q.z_; }

  Vector3 operator-(const Point3& q) const;
  Point3 operator+(const Vector3& v) const;

  void debug();

private:
  double x_, y_, z_;
  Tet3* pOneTet;
  int customIndex;
  unsigned int curveRank = 0; // fills the record's padding
};

std::ostream& operator<<(std::ostream& stream, const Point3& p);
std::istream& operator>>(std::istream& stream, Point3& p);

// Axis-aligned box; empty by default (minima at the largest finite double,
// maxima at the most negative one). add() answers whether a limit changed.
class Bbox3 {
public:
  Bbox3()
      : minX(1.7976931348623157e308), minY(1.7976931348623157e308),
        minZ(1.7976931348623157e308), maxX(-1.7976931348623157e308),
        maxY(-1.7976931348623157e308), maxZ(-1.7976931348623157e308) {}
  bool add(const Point3& p);
  bool add(const std::vector<Point3>& v);
  bool isEmpty() const { return !(minX < 1.7976931348623157e308); }

  double getMinX() const { return minX; }
  double getMinY() const { return minY; }
  double getMinZ() const { return minZ; }
  double getMaxX() const { return maxX; }
  double getMaxY() const { return maxY; }
  double getMaxZ() const { return maxZ; }

  double minX, minY, minZ, maxX, maxY, maxZ;

private:
  void widen(const Point3& p);
};

} // namespace VELM3D

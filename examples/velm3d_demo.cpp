// velm3d-demo: triangulates a seeded set of uniform random points and
// reports what the library made of them.
#include <Velm_3D.h>

#include <iostream>
#include <vector>

int main() {
  std::vector<VELM3D::Point3> vPoints;
  VELM3D::generateRandomPoints(150000, 0.0, 1000.0, vPoints, 1);
  VELM3D::Velm_3D velm;
  velm.insert(vPoints);
  std::vector<VELM3D::Point3*> vVertices;
  velm.getVertices(vVertices);
  std::vector<VELM3D::Tet3*> vTets;
  velm.getTetrahedra(vTets);
  std::cout << VELM3D::getVelm3DVersion() << std::endl;
  std::cout << "input points:     " << vPoints.size() << std::endl;
  std::cout << "stored vertices:  " << vVertices.size() << std::endl;
  std::cout << "tetrahedra:       " << vTets.size() << std::endl;
  return 0;
}

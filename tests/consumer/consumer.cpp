// Built against an installed libvelm3d. The eight corners of a cube and its
// centre: the corners are cospherical and the centre lies inside every
// sphere through four of them, so each of the 12 hull triangles makes one
// tetrahedron with the centre, whichever diagonals the faces get.
#include <Velm_3D.h>

#include <iostream>
#include <vector>

int main() {
  std::vector<VELM3D::Point3> vPoints;
  for (int i = 0; i < 8; ++i) vPoints.emplace_back(i & 1, (i >> 1) & 1, (i >> 2) & 1);
  vPoints.emplace_back(0.5, 0.5, 0.5);

  VELM3D::Velm_3D velm;
  velm.insert(vPoints);
  std::vector<VELM3D::Tet3*> vTets;
  velm.getTetrahedra(vTets);
  std::cout << VELM3D::getVelm3DVersion() << ": " << vTets.size() << " tetrahedra" << std::endl;
  return vTets.size() == 12 ? 0 : 1;
}

// fuzz_readstl: libFuzzer target for Surface3::readSTL on arbitrary file
// contents, followed by the surface's neighbourship pass on whatever was read.
#include <Velm_3D.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzsupport::TempFile file(data, size);
  fuzzsupport::QuietCout quiet;
  VELM3D::Dt3 dt(nullptr);
  VELM3D::Surface3* pSurface = dt.createEmptySurface();
  if (!pSurface->readSTL(file.path, true)) std::abort();
  std::vector<VELM3D::Triangle3*> vTriangles;
  std::vector<VELM3D::Point3*> vVertices;
  pSurface->getTriangles(vTriangles);
  pSurface->getVertices(vVertices);
  if (vVertices.size() < 3 * vTriangles.size()) std::abort();
  // The circulation queries assume closed fans, which a file read without
  // merging vertices never has: only the neighbourship pass runs here.
  pSurface->establishNeighborships();
  return 0;
}

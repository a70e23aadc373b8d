// fuzz_readxyz: libFuzzer target for readXYZ on arbitrary file contents. The
// reader must return true for any readable file and never make more points
// than the bytes can hold.
#include <Velm_3D.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzsupport::TempFile file(data, size);
  fuzzsupport::QuietCout quiet;
  std::vector<VELM3D::Point3> vPoints;
  if (!VELM3D::readXYZ(file.path.c_str(), vPoints)) std::abort();
  // Every number read takes at least one byte of the file.
  if (3 * vPoints.size() > size) std::abort();
  return 0;
}

// fuzz_triangulation: libFuzzer target for the triangulation of small,
// mostly degenerate point sets; the input format and the check are in
// triangulation_check.h.
#include "triangulation_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return triangulationcheck::checkInput(data, size);
}

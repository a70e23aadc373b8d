// replay: runs the check of fuzz_triangulation on each file named on the
// command line, without libFuzzer, in any build. A fault aborts with the
// check's report; a file that cannot be read gives status 2.
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "triangulation_check.h"

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::ifstream in(argv[i], std::ios::binary);
    if (!in) {
      std::cerr << "cannot read " << argv[i] << std::endl;
      return 2;
    }
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    triangulationcheck::checkInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    std::cout << argv[i] << ": " << bytes.size() << " bytes, check passed" << std::endl;
  }
  return argc > 1 ? 0 : 2;
}

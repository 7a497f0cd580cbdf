// Runs a fuzzer's function once for each file of its corpus, in a program of any compiler.
#include <cstdio>
#include <filesystem>
#include <string>

#include "harness.h"
#include "private_tree.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s CORPUS-DIRECTORY\n", argv[0]);
    return 2;
  }
  const std::string directory = std::filesystem::absolute(argv[1]);  // a fuzzer may go elsewhere
  LLVMFuzzerInitialize(&argc, &argv);
  int count = 0;
  for (const std::string& name : kelotls::test::names_in(directory)) {
    std::printf("%s\n", name.c_str());
    std::fflush(stdout);  // the last one shown is the one that failed
    const std::string input = kelotls::test::read_file(directory + "/" + name);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    ++count;
  }
  return count > 0 ? 0 : 1;
}

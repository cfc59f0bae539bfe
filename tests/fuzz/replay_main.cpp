// Runs the files of a corpus once each, without libFuzzer:  kav-fuzz-NAME FILE_OR_FOLDER...
#include <algorithm>   // std::sort
#include <cstdio>      // std::printf
#include <filesystem>  // std::filesystem::directory_iterator
#include <fstream>     // std::ifstream
#include <iterator>    // std::istreambuf_iterator
#include <vector>      // std::vector

#include "tests/fuzz/fuzz_input.h"

namespace {

namespace fs = std::filesystem;

// In the order of their names, so that each run is like the last.
std::vector<fs::path> files_in(const fs::path& place) {
  if (!fs::is_directory(place)) return {place};
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(place)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool run_file(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  if (!file.is_open() || file.bad()) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  std::printf("%s\n", path.c_str());  // the last line tells what failed
  std::fflush(stdout);
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t runs = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path& path : files_in(argv[i])) {
      if (!run_file(path)) return 1;
      ++runs;
    }
  }
  std::printf("%zu files\n", runs);
  if (runs == 0) std::fprintf(stderr, "nothing was run; give files or folders of a corpus\n");
  return runs == 0 ? 1 : 0;
}

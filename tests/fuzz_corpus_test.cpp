// Replays one fuzz target's corpus (QVR_FUZZ_CORPUS) through the target, in
// the ordinary and the sanitizer builds. A broken invariant aborts inside the
// target; a memory fault is the sanitizer's to report.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> CorpusFiles() {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(QVR_FUZZ_CORPUS)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

TEST(FuzzCorpus, EveryInputRunsClean) {
  const std::vector<fs::path> files = CorpusFiles();
  ASSERT_FALSE(files.empty()) << "no inputs in " << QVR_FUZZ_CORPUS;
  for (const fs::path& file : files) {
    SCOPED_TRACE(file.string());
    std::ifstream in(file, std::ios::binary);
    ASSERT_TRUE(in.is_open());
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                     std::istreambuf_iterator<char>());
    EXPECT_EQ(LLVMFuzzerTestOneInput(bytes.data(), bytes.size()), 0);
  }
}

}  // namespace

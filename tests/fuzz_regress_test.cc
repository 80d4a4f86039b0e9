// Replays every committed fuzz input through its target in the normal suite: the fixed findings
// (tests/data/regress/<target>/) and the seeds (fuzz/seeds/<target>/). Each must pass the target's
// checks, so a crash, an out-of-bounds access (sanitizer build) or a bound once fixed shows up here.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "../fuzz/targets.h"
#include "fd_capture.h"

class FuzzReplay : public ::testing::TestWithParam<fuzz::Entry> {};

TEST_P(FuzzReplay, CommittedInputsPassTheirChecks) {
  std::vector<std::filesystem::path> inputs;
  for (const char* dir : {"/regress/", "/../../fuzz/seeds/"}) {
    std::error_code none;  // a target may have no findings
    const std::string folder = MEDIAWALK_TEST_DATA + (dir + std::string(GetParam().first));
    for (const auto& e : std::filesystem::directory_iterator(folder, none)) inputs.push_back(e.path());
  }
  std::sort(inputs.begin(), inputs.end());
  ASSERT_FALSE(inputs.empty()) << "no committed input for " << GetParam().first;
  std::unique_ptr<fuzz::Target> target = GetParam().second();
  for (const auto& path : inputs) {
    std::ifstream in(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    std::string failed;
    {
      FdCapture quiet(1);  // the readers' own lines are not under test here
      failed = fuzz::checked_run(*target, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    EXPECT_EQ(failed, "") << path;
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay, ::testing::ValuesIn(fuzz::kTargets),
                         [](const ::testing::TestParamInfo<fuzz::Entry>& info) { return info.param.first; });

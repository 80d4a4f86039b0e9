// Replays every committed fuzz input through its routine in the normal suite:
// the findings (tests/data/regress/<target>/) and the hand-made seeds
// (fuzz/seeds/<target>/). Each must pass the target's after-checks and finish
// well within the fuzzer's time-out, so a crash, an out-of-bounds access (in
// the sanitizer build) or a hang that once was fixed shows up here without
// clang.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../fuzz/targets.h"
#include "fd_capture.h"

namespace {

std::vector<std::string> files_in(const std::string& dir) {
  std::vector<std::string> out;
  UniqueDir d(opendir(dir.c_str()));
  if (!d) return out;
  while (const dirent* e = readdir(d.get())) {
    if (e->d_name[0] != '.') out.push_back(dir + "/" + e->d_name);
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::string slurp(const std::string& path) {
  std::string bytes;
  UniqueFile f(fopen(path.c_str(), "rb"));
  if (!f) return bytes;
  char chunk[4096];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, f.get())) > 0;) bytes.append(chunk, n);
  return bytes;
}

class FuzzReplay : public ::testing::TestWithParam<fuzz::Entry> {};

TEST_P(FuzzReplay, CommittedInputsPassTheirChecks) {
  const fuzz::Entry& entry = GetParam();
  const std::string data = MEDIAWALK_TEST_DATA;
  std::vector<std::string> inputs = files_in(data + "/regress/" + entry.name);
  const std::vector<std::string> seeds = files_in(data + "/../../fuzz/seeds/" + entry.name);
  inputs.insert(inputs.end(), seeds.begin(), seeds.end());
  ASSERT_FALSE(inputs.empty()) << "no committed input for " << entry.name;

  std::unique_ptr<fuzz::Target> target = entry.make();
  for (const std::string& path : inputs) {
    const std::string bytes = slurp(path);
    std::string failed;
    {
      FdCapture quiet(1);  // the readers' own lines are not under test here
      failed = target->run(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    EXPECT_EQ(failed, "") << path;
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay, ::testing::ValuesIn(fuzz::all_targets()),
                         [](const ::testing::TestParamInfo<fuzz::Entry>& info) { return info.param.name; });

}  // namespace

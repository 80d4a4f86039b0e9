#include "platform/spawn.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "stub_program.h"

namespace {

constexpr size_t kCap = 20;
constexpr size_t kRead = 18;

std::string Answer(const char* program, const char* arg, bool* ran = nullptr) {
  char out[kCap];
  memset(out, 'X', sizeof out);
  const bool ok = spawn_read_output(program, arg, out, sizeof out, kRead);
  if (ran != nullptr) *ran = ok;
  EXPECT_EQ(out[kRead], '\0');
  EXPECT_EQ(out[kRead + 1], '\0');
  return std::string(out, strnlen(out, sizeof out));
}

int OpenDescriptors() {
  int n = 0;
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return -1;
  while (readdir(d) != nullptr) ++n;
  closedir(d);
  return n;
}

TEST(SpawnReadOutput, ArgumentArrivesVerbatimAndNothingRuns) {
  StubPath stub;
  stub.EnterDir();
  stub.Program("detect_char_encode",
               "printf '%s' \"$1\" > \"" + stub.File("arg") + "\"\nprintf 'Big5'\n");
  const std::string tricky = "$(touch by_dollar) `touch by_backtick` \"; touch by_quote; \" 'x' \\ *";
  bool ran = false;
  EXPECT_EQ(Answer("detect_char_encode", tricky.c_str(), &ran), "Big5");
  EXPECT_TRUE(ran);
  EXPECT_EQ(stub.Read("arg"), tricky);
  EXPECT_FALSE(stub.Exists("by_dollar"));
  EXPECT_FALSE(stub.Exists("by_backtick"));
  EXPECT_FALSE(stub.Exists("by_quote"));
}

TEST(SpawnReadOutput, EmptyArgumentIsStillOneArgument) {
  StubPath stub;
  stub.Program("detect_char_encode", "printf '%d:[%s]' \"$#\" \"$1\"\n");
  EXPECT_EQ(Answer("detect_char_encode", ""), "1:[]");
}

// What the detector printed within the time is its answer, however it ended.
struct OutputCase {
  const char* body;
  const char* answer;
  const char* why;
  int limit_ms;
};

const OutputCase kOutputs[] = {
    {"printf 'KOI8-R'\n", "KOI8-R", "plain answer", kHelperTimeLimitMs},
    {"printf 'KOI8-R\\n'\n", "KOI8-R\n", "trailing newline kept", kHelperTimeLimitMs},
    {"printf ''\n", "", "silent detector", kHelperTimeLimitMs},
    {"printf '0123456789abcdefghijklmnop'\n", "0123456789abcdefgh", "18 bytes at most", kHelperTimeLimitMs},
    {"printf 'windows-'; sleep 0.1; printf '1251'\n", "windows-1251", "answer in pieces", kHelperTimeLimitMs},
    {"printf 'Big5'\nexit 3\n", "Big5", "failing detector", kHelperTimeLimitMs},
    {"printf 'IBM866'; kill -9 $$\n", "IBM866", "killed detector", kHelperTimeLimitMs},
    {"if read -r line; then printf 'had input'; else printf 'eof'; fi\n", "eof", "stdin is /dev/null",
     kHelperTimeLimitMs},
    // Writes far more than a pipe holds: must end once 18 bytes are read.
    {"i=0; while [ $i -lt 20000 ]; do printf '0123456789'; i=$((i+1)); done\n", "012345678901234567",
     "endless writer dies of SIGPIPE", kHelperTimeLimitMs},
    {"sleep 60; printf 'late'\n", "", "hangs before answering", 1000},
    {"printf 'Big5'; sleep 60; printf 'late'\n", "Big5", "answers and never exits", 1000},
};

TEST(SpawnReadOutput, OutputRules) {
  StubPath stub;
  for (const OutputCase& c : kOutputs) {
    stub.Program("detect_char_encode", c.body);
    char out[kCap];
    EXPECT_TRUE(spawn_read_output("detect_char_encode", "sample", out, sizeof out, kRead, c.limit_ms)) << c.why;
    EXPECT_EQ(std::string(out), c.answer) << c.why;
  }
}

TEST(SpawnReadOutput, MissingProgramGivesEmptyAnswer) {
  StubPath stub(/*keep_system_path=*/false);
  bool ran = true;
  EXPECT_EQ(Answer("detect_char_encode", "sample", &ran), "");
  EXPECT_FALSE(ran);
  // Present but not executable counts as missing too.
  stub.Write("detect_char_encode", "#!/bin/sh\nprintf 'Big5'\n");
  EXPECT_EQ(Answer("detect_char_encode", "sample", &ran), "");
  EXPECT_FALSE(ran);
}

// The program is looked up once for as long as PATH reads the same: a copy
// that appears later in an earlier folder, or at all after a miss, is not
// seen until PATH changes.
TEST(SpawnReadOutput, LooksTheProgramUpOncePerPath) {
  StubPath first(/*keep_system_path=*/false);
  StubPath second(/*keep_system_path=*/false);
  const std::string both = first.dir() + ":" + second.dir();
  setenv("PATH", both.c_str(), 1);
  second.Program("detect_char_encode", "printf 'second'\n");
  EXPECT_EQ(Answer("detect_char_encode", "x"), "second");
  first.Program("detect_char_encode", "printf 'first'\n");
  EXPECT_EQ(Answer("detect_char_encode", "x"), "second");
  const std::string again = both + ":/nonexistent";
  setenv("PATH", again.c_str(), 1);
  EXPECT_EQ(Answer("detect_char_encode", "x"), "first");

  unlink(second.File("detect_char_encode").c_str());
  const std::string gone = second.dir() + ":/nonexistent";
  setenv("PATH", gone.c_str(), 1);
  bool ran = true;
  EXPECT_EQ(Answer("detect_char_encode", "x", &ran), "");
  EXPECT_FALSE(ran);
  second.Program("detect_char_encode", "printf 'late'\n");
  EXPECT_EQ(Answer("detect_char_encode", "x", &ran), "");  // remembered as missing
  EXPECT_FALSE(ran);
  setenv("PATH", second.dir().c_str(), 1);
  EXPECT_EQ(Answer("detect_char_encode", "x"), "late");
}

TEST(SpawnReadOutput, LeaksNoDescriptors) {
  StubPath stub;
  stub.Program("detect_char_encode", "printf 'Big5'\n");
  stub.Program("failing", "exit 1\n");
  const int before = OpenDescriptors();
  for (int i = 0; i < 5; ++i) {
    Answer("detect_char_encode", "x");
    Answer("failing", "x");
    Answer("no_such_program_here", "x");
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST(SpawnReadOutput, ChildSeesOnlyStandardDescriptors) {
  StubPath stub;
  // Lists the descriptors of the stub's own shell; dash keeps the script
  // itself open above 9, so only 3..9 would betray an inherited pipe end.
  stub.Program("detect_char_encode",
               "for fd in 3 4 5 6 7 8 9; do [ -e /proc/$$/fd/$fd ] && printf '%s ' $fd; done\n"
               "printf 'end'\n");
  EXPECT_EQ(Answer("detect_char_encode", "x"), "end");
}

}  // namespace

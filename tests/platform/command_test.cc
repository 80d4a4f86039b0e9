#include "platform/command.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

struct CaptureCase {
  const char* command;
  size_t size;
  const char* output;
};

class RunCaptureOutput : public ::testing::TestWithParam<CaptureCase> {};

TEST_P(RunCaptureOutput, CopiesBoundedOutputWithoutOneNewline) {
  const CaptureCase& c = GetParam();
  std::string buf(c.size, 'q');  // exactly c.size bytes, so an overrun is caught
  EXPECT_EQ(run_capture(&buf[0], c.size, "%s", c.command), 0);
  EXPECT_EQ(std::string(buf.c_str()), c.output);
}

INSTANTIATE_TEST_SUITE_P(Table, RunCaptureOutput,
                         ::testing::Values(CaptureCase{"printf 'hello\\n'", 64, "hello"},
                                           CaptureCase{"printf hello", 64, "hello"},
                                           CaptureCase{"printf 'a\\nb\\n\\n'", 64, "a\nb\n"},
                                           CaptureCase{"printf 'hello\\r\\n'", 64, "hello\r"},
                                           CaptureCase{"printf 'hello\\n'", 1, ""},
                                           CaptureCase{"printf 'hello\\n'", 6, "hello"},
                                           CaptureCase{"printf 'hello\\n'", 7, "hello"},
                                           CaptureCase{"printf 'hello world\\n'", 4, "hel"},
                                           CaptureCase{"true", 64, ""}));

TEST(RunCapture, CutsCommandLineAt1023Bytes) {
  // "printf %s " is 10 bytes, so 1,013 of the x's survive the cut.
  const std::string xs(2000, 'x');
  char out[4096];
  EXPECT_EQ(run_capture(out, sizeof out, "printf %%s %s", xs.c_str()), 0);
  EXPECT_EQ(std::string(out), std::string(1013, 'x'));
}

TEST(RunCapture, PipeThatCannotOpenGivesMinusOneAndEmptyText) {
  EXPECT_EXIT(
      {
        rlimit none;  // no descriptor for the pipe
        none.rlim_cur = none.rlim_max = 0;
        setrlimit(RLIMIT_NOFILE, &none);
        char out[8] = "junk";
        _exit(run_capture(out, sizeof out, "echo hi") == -1 && out[0] == '\0' ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(RunCommand, ReturnsShellStatus) {
  for (int code : {0, 1, 3, 255}) {
    const int status = run_command("exit %d", code);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), code);
  }
}

struct TrimCase {
  const char* text;
  const char* leading;   // what trim_leading points at
  const char* trailing;  // text after trim_trailing
};

class Trim : public ::testing::TestWithParam<TrimCase> {};

TEST_P(Trim, StripsSpaceTabNewlineAndReturn) {
  const TrimCase& c = GetParam();
  std::string a = c.text, b = c.text;
  EXPECT_STREQ(trim_leading(&a[0]), c.leading);
  char* p = &b[0];
  EXPECT_EQ(trim_trailing(p), p);
  EXPECT_STREQ(p, c.trailing);
}

INSTANTIATE_TEST_SUITE_P(Table, Trim,
                         ::testing::Values(TrimCase{"", "", ""}, TrimCase{"abc", "abc", "abc"},
                                           TrimCase{" \t\r\na b \n\r\t ", "a b \n\r\t ", " \t\r\na b"},
                                           TrimCase{" \t\r\n", "", ""},
                                           TrimCase{"\va\f", "\va\f", "\va\f"}));  // only the four

TEST(Trim, NullGivesNull) {
  EXPECT_EQ(trim_leading(nullptr), nullptr);
  EXPECT_EQ(trim_trailing(nullptr), nullptr);
}

}  // namespace

#include "log/err_log.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "../fd_capture.h"

namespace {

const char kStamp[] = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}";

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void set_modules(const char* names) {
  std::string text = names;
  err_log_modules(text.data());
}

// Every test starts and ends in the start-up state.
class ErrLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    err_log_reset();
    char dir_template[] = "/tmp/errlogXXXXXX";
    ASSERT_NE(mkdtemp(dir_template), nullptr);
    dir_ = dir_template;
    log_path_ = dir_ + "/log";
  }
  void TearDown() override {
    err_log_reset();
    unlink(log_path_.c_str());
    rmdir(dir_.c_str());
  }
  std::string dir_, log_path_;
};

struct FilterCase {
  int debug_level;
  const char* modules;  // null: the start-up mask, all ones
  int level;
  uint32_t module;
  bool written;
};

class ErrLogFilter : public ErrLogTest, public ::testing::WithParamInterface<FilterCase> {};

TEST_P(ErrLogFilter, WritesOnlyWhatPassesLevelAndMask) {
  const FilterCase& c = GetParam();
  if (c.modules != nullptr) set_modules(c.modules);
  err_log_set_level(c.debug_level);
  FdCapture err(2);
  err_log(c.level, c.module, "msg %d\n", 7);
  EXPECT_EQ(err.text(), c.written ? "msg 7\n" : "");
}

INSTANTIATE_TEST_SUITE_P(Table, ErrLogFilter,
                         ::testing::Values(
                             // Start-up state: the readers' messages are dropped.
                             FilterCase{0, nullptr, 1, kLogModuleScan, false},
                             FilterCase{0, nullptr, 2, kLogModuleScan, false},
                             FilterCase{0, nullptr, 9, kLogModuleScan, false},
                             FilterCase{0, nullptr, -1, kLogModuleScan, true},  // signed comparison
                             FilterCase{-1, nullptr, 1, kLogModuleScan, false},
                             FilterCase{2, nullptr, 2, kLogModuleScan, true},
                             FilterCase{2, nullptr, 3, kLogModuleScan, false},
                             FilterCase{9, nullptr, 9, 0x800, true},
                             FilterCase{9, nullptr, 1, 0, false},  // no module bits
                             FilterCase{9, "scan", 1, kLogModuleScan, true},
                             FilterCase{9, "scan", 1, 0x80, false},
                             FilterCase{9, "scan", 1, 0x88, true},
                             FilterCase{9, "scan", 1, kLogModuleAny, true},
                             FilterCase{9, "playlist", 1, 0, false}));

class ErrLogCut : public ErrLogTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(ErrLogCut, CutsMessageAt1023Bytes) {
  const std::string text(GetParam(), 'a');
  err_log_set_level(1);
  FdCapture err(2);
  err_log(1, kLogModuleScan, "%s", text.c_str());
  EXPECT_EQ(err.text(), text.substr(0, 1023));
}

INSTANTIATE_TEST_SUITE_P(Lengths, ErrLogCut, ::testing::Values(1022, 1023, 1024, 5000));

TEST_F(ErrLogTest, FileTargetAppendsStampedMessages) {
  std::ofstream(log_path_) << "old\n";
  err_log_target(log_path_.c_str(), kLogFile);
  err_log_target("/nonexistent/ignored", kLogFile);  // same target: name ignored
  err_log_set_level(1);
  FdCapture err(2);
  err_log(1, kLogModuleScan, "first %s\n", "line");
  err_log(2, kLogModuleScan, "dropped\n");
  err_log(1, kLogModuleScan, "second");
  EXPECT_EQ(err.text(), "");
  err_log_reset();  // closes the file
  const std::regex want(std::string("old\n") + kStamp + ": first line\n" + kStamp + ": second");
  EXPECT_TRUE(std::regex_match(read_file(log_path_), want)) << read_file(log_path_);
  EXPECT_EQ(err_log_current_target(), kLogStderr);
}

TEST_F(ErrLogTest, FileTargetThatCannotOpenExits) {
  EXPECT_EXIT(err_log_target("/nonexistent/dir/x.log", kLogFile), ::testing::ExitedWithCode(1),
              "^Error opening /nonexistent/dir/x.log: No such file or directory\n$");
}

struct FatalCase {
  int target;
  const char* modules;
  uint32_t module;
  bool console_copy;  // message and "Aborting" on standard error
};

void log_fatal(const FatalCase& c, const std::string& path) {
  if (c.modules != nullptr) set_modules(c.modules);
  if (c.target == kLogFile) err_log_target(path.c_str(), kLogFile);
  if (c.target == kLogSyslog) err_log_target("errlogtest", kLogSyslog);
  err_log(0, c.module, "boom %d\n", 1);
}

class ErrLogFatal : public ErrLogTest, public ::testing::WithParamInterface<FatalCase> {};

TEST_P(ErrLogFatal, WritesAbortingAndExitsWithOne) {
  const FatalCase& c = GetParam();
  const std::string path = log_path_;
  EXPECT_EXIT(log_fatal(c, path), ::testing::ExitedWithCode(1), c.console_copy ? "^boom 1\nAborting\n$" : "^$");
  if (c.target == kLogFile) {
    const std::regex want(std::string(kStamp) + ": boom 1\n" + kStamp + ": Aborting\n");
    EXPECT_TRUE(std::regex_match(read_file(path), want)) << read_file(path);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ErrLogFatal,
    ::testing::Values(FatalCase{kLogStderr, nullptr, kLogModuleScan, true},
                      FatalCase{kLogStderr, nullptr, 0, true},            // level 0 is never filtered
                      FatalCase{kLogStderr, "main", kLogModuleScan, true},  // not even by the mask
                      FatalCase{kLogStderr, nullptr, kLogModuleRend, true},
                      FatalCase{kLogFile, nullptr, kLogModuleScan, true},
                      FatalCase{kLogFile, nullptr, kLogModuleRend | kLogModuleScan, false},
                      FatalCase{kLogSyslog, nullptr, kLogModuleScan, true},
                      FatalCase{kLogSyslog, nullptr, kLogModuleRend, false}));

struct ModulesCase {
  int debug_level;
  const char* names;
  int result;
  uint32_t mask;
  const char* log;
};

class ErrLogModules : public ErrLogTest, public ::testing::WithParamInterface<ModulesCase> {};

TEST_P(ErrLogModules, BuildsMaskAndReportsIt) {
  const ModulesCase& c = GetParam();
  std::string names = c.names;
  err_log_set_level(c.debug_level);
  FdCapture err(2);
  EXPECT_EQ(err_log_modules(names.data()), c.result);
  EXPECT_EQ(err.text(), c.log);
  EXPECT_EQ(err_log_mask(), c.mask);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ErrLogModules,
    ::testing::Values(
        ModulesCase{9, "SCAN,Playlist", 0, 0x80000088,
                    "Adding module SCAN to debug list (0x00000008)\n"
                    "Adding module Playlist to debug list (0x00000080)\n"
                    "Debug mask is 0x80000088\n"},
        ModulesCase{9, "scan,foo,main", 1, 0x80000008,
                    "Adding module scan to debug list (0x00000008)\nUnknown module: foo\n"},
        ModulesCase{9, ",,rend,,config,", 0, 0x80000801,
                    "Adding module rend to debug list (0x00000800)\n"
                    "Adding module config to debug list (0x00000001)\n"
                    "Debug mask is 0x80000801\n"},
        ModulesCase{5, "", 0, 0x80000000, "Debug mask is 0x80000000\n"},
        ModulesCase{5, "config,WebServer,database,scan,query,index,browse,playlist,art,daap,main,rend", 0,
                    0x80000FFF, "Debug mask is 0x80000fff\n"},
        ModulesCase{4, "scan,art", 0, 0x80000108, ""},
        ModulesCase{1, "scans", 1, 0x80000000, "Unknown module: scans\n"},
        ModulesCase{0, "scan,scan ", 1, 0x80000008, ""}));

}  // namespace

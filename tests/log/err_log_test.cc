// Which messages the levelled, module-filtered log writes, and how module names set its mask.
#include "log/err_log.h"

#include <gtest/gtest.h>

#include <string>

#include "../case_table.h"
#include "../fd_capture.h"

namespace {

TABLE_TEST(ErrLogFilter, "log_filter.tsv") {
  err_log_reset();
  std::string names = c.at(1);
  if (!names.empty()) err_log_modules(&names[0]);
  err_log_set_level(c.num(0));
  FdCapture err(2);
  err_log(c.num(2), uint32_t(strtoul(c.at(3).c_str(), nullptr, 0)), "msg %d\n", 7);
  EXPECT_EQ(err.text(), c.num(4) ? "msg 7\n" : "");
  err_log_reset();
}

TABLE_TEST(ErrLogModules, "log_modules.tsv") {
  err_log_reset();
  std::string names = c.at(1);
  err_log_set_level(c.num(0));
  FdCapture err(2);
  EXPECT_EQ(err_log_modules(&names[0]), c.num(2));
  EXPECT_EQ(err.text(), c.at(4));
  EXPECT_EQ(err_log_mask(), strtoul(c.at(3).c_str(), nullptr, 0));
  err_log_reset();
}

TEST(ErrLog, CutsMessagesAt1023Bytes) {
  err_log_set_level(1);
  FdCapture err(2);
  err_log(1, kLogModuleScan, "%s", std::string(1024, 'a').c_str());
  EXPECT_EQ(err.text(), std::string(1023, 'a'));
  err_log_reset();
}

// A level 0 message passes every filter, is followed by "Aborting" and ends the program with 1.
TEST(ErrLog, FatalMessageAbortsWithOne) {
  EXPECT_EXIT(err_log(0, 0, "boom %d\n", 1), ::testing::ExitedWithCode(1), "^boom 1\nAborting\n$");
}

}  // namespace

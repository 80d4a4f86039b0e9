#include "driver/config.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "../temp_tree.h"

namespace {

// A config file in a private temp folder, removed with the fixture.
class ConfigFile : public ::testing::Test {
 protected:
  void write(const std::string& bytes) { tree_.file("upnpav.conf", bytes); }
  int read_config() {
    testing::internal::CaptureStdout();
    const int rc = readconfig_file(path_.c_str(), "mediawalk", &cdata_);
    out_ = testing::internal::GetCapturedStdout();
    return rc;
  }
  TempTree tree_;
  std::string path_ = tree_.root() + "upnpav.conf", out_;
  ConfigData cdata_{};
};

TEST_F(ConfigFile, LineOf512BytesEndsTheParse) {
  write("sharepath=/kept/\n" + std::string(512, 'x') + "\nmntpath=/never/\n");
  EXPECT_EQ(read_config(), -1);
  EXPECT_EQ(out_, "error: singel line string too long\nerror happen: mediawalk\n");
  EXPECT_STREQ(cdata_.sharepath, "/kept/");
  EXPECT_STREQ(cdata_.mntpath, "");
}

TEST_F(ConfigFile, LineOf511BytesIsRead) {
  const std::string value(511 - strlen("sharename="), 'n');
  write("sharename=" + value + "\n");
  EXPECT_EQ(read_config(), 0);
  // Kept within the field: 255 bytes and the terminator.
  EXPECT_EQ(std::string(cdata_.sharename), value.substr(0, 255));
}

// What each file yields, quirks of the value pointer included.
TEST_F(ConfigFile, ReadsTheKeys) {
  struct Case {
    const char* file;
    const char* sharepath;
    const char* mntpath;
    const char* sd_status;
    const char* sharename = "";
  } cases[] = {
      {"sharepath=/mnt/vol1/Media/\nmntpath=/mnt/vol1/\nsd_status=active\nsharename=Music\n", "/mnt/vol1/Media/",
       "/mnt/vol1/", "active", "Music"},
      // A last line without a newline is lost.
      {"sharepath=/a/\nsd_status=inactive", "/a/", "", ""},
      // Carriage returns are kept: a CRLF "inactive" does not stop a scan.
      {"sd_status=inactive\r\n", "", "", "inactive\r"},
      // Empty value.
      {"sharepath=\n", "", "", ""},
      // Leading blanks: the value is read from the line start plus the key length.
      {"  sharepath=/x/\n", "h=/x/", "", ""},
      // The separator can be any byte.
      {"mntpath:/m/\n", "", "/m/", ""},
      // A value naming a later key fills that key too; its value is read
      // from where the pointer stood plus the key's length, not behind the key.
      {"sharepath=/s/mntpath=/m/\n", "/s/mntpath=/m/", "th=/m/", ""},
      // sd_status is 10 bytes wide: longer values are cut to 9.
      {"sd_status=inactive-now\n", "", "", "inactive-"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    memset(&cdata_, 0, sizeof cdata_);
    write(c.file);
    EXPECT_EQ(read_config(), 0);
    EXPECT_STREQ(cdata_.sharepath, c.sharepath);
    EXPECT_STREQ(cdata_.mntpath, c.mntpath);
    EXPECT_STREQ(cdata_.sd_status, c.sd_status);
    EXPECT_STREQ(cdata_.sharename, c.sharename);
    EXPECT_EQ(out_, "");
  }
}

TEST_F(ConfigFile, MissingSettingKeepsTheField) {
  strcpy(cdata_.mntpath, "/before/");
  write("sharepath=/s/\n");
  EXPECT_EQ(read_config(), 0);
  EXPECT_STREQ(cdata_.mntpath, "/before/");
}

TEST(ReadConfig, ArgumentForms) {
  char prog[] = "mediawalk", rc[] = "-RC", other[] = "-XX", missing[] = "/nonexistent/upnpav.conf";
  ConfigData cdata;
  struct Case {
    int argc;
    char* argv[3];
  } cases[] = {{2, {prog, rc, nullptr}}, {3, {prog, other, missing}}, {3, {prog, rc, missing}}};
  for (const Case& c : cases) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(readconfig(c.argc, const_cast<char**>(c.argv), &cdata), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "error happen: mediawalk\n");
  }
}

TEST_F(ConfigFile, ShareFolderReader) {
  struct Case {
    const char* file;
    const char* expected;
  } cases[] = {
      {"x=1\nShareFolder:/mnt/vol1/Media\n", "/mnt/vol1/Media/"},
      {"ShareFolder:/mnt/vol1/Media/\n", "/mnt/vol1/Media/"},
      {"  ShareFolder:/a\n", "/a/"},
      {"ShareFolder:\n", "/"},
      {"nothing here\n", "untouched"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    write(c.file);
    char dest[512] = "untouched";
    EXPECT_EQ(get_sharefolder_from(path_.c_str(), dest), 1);
    EXPECT_STREQ(dest, c.expected);
  }
  char dest[512] = "";
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_sharefolder_from("/nonexistent/upnpav.conf", dest), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "UPNPPROC: Can not open upnpav.conf.\n");
}

TEST(MountPathRule, DevicePaths) {
  struct Case {
    const char* device;
    int rc;
    const char* expected;
  } cases[] = {
      {"/dev/vg1/x", 0, "/mnt/vg1/lvnas_default/"},
      {"/dev/md0", 0, "/mnt/md0/"},
      {"/dev/md12/y", 0, "/mnt/md12/"},
      {"/dev/sda1", 0, "/mnt/mda1/"},  // any "d" in the piece counts
      {"/dev/sr0", -1, ""},
      {"/dev", -1, ""},
      {"", -1, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.device);
    char dest[256] = "";
    EXPECT_EQ(get_mntpath(c.device, dest), c.rc);
    EXPECT_STREQ(dest, c.expected);
  }
}

}  // namespace

// The settings file, the mount path rule and the progress publisher.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include "../case_table.h"
#include "../temp_tree.h"
#include "driver/config.h"
#include "driver/progress.h"

namespace {

TABLE_TEST(ConfigFile, "config.tsv") {
  TempTree tree;
  const std::string path = tree.file("upnpav.conf", c.at(0));
  ConfigData cdata{};
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(readconfig_file(path.c_str(), "mediawalk", &cdata), c.num(1));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.at(6));
  EXPECT_EQ(cdata.sharepath, c.at(2));
  EXPECT_EQ(cdata.mntpath, c.at(3));
  EXPECT_EQ(cdata.sd_status, c.at(4));
  EXPECT_EQ(cdata.sharename, c.at(5));
}

TABLE_TEST(MountPath, "mount_path.tsv") {
  char dest[256] = "";
  EXPECT_EQ(get_mntpath(c.at(0).c_str(), dest), c.num(1));
  EXPECT_EQ(dest, c.at(2));
}

std::mutex published_mutex;
std::string published;

int record(const char* node, const char* value) {
  std::lock_guard<std::mutex> lock(published_mutex);
  published += std::string(node) + "=" + value + "\n";
  return 0;
}

// Both counters are published at once; the thread ends at its next wake-up once the scan is over.
TEST(ProgressThread, PublishesBothCountersUntilFinished) {
  set_progress_publisher(record);
  total_file_cnt = 42;
  total_scan_cnt = 7;
  scan_finished = 0;
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, progress_thread, nullptr), 0);
  for (int i = 0; i < 3000; ++i) {  // a guard only: the first publication comes at once
    std::lock_guard<std::mutex> lock(published_mutex);
    if (published.size() >= 70) break;
    usleep(10000);
  }
  scan_finished = 1;
  pthread_join(thread, nullptr);
  set_progress_publisher(nullptr);
  EXPECT_EQ(published, "/runtime/scan_media/total_file=42\n/runtime/scan_media/total_scan_file=7\n");
  scan_finished = total_file_cnt = total_scan_cnt = 0;
}

}  // namespace

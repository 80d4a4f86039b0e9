#include "driver/progress.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>
#include <stdio.h>
#include <time.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "../temp_tree.h"
#include "platform/holders.h"

namespace {

class CountFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tree.ok());
    total_file_cnt = 0;
  }
  // Counts from the root as the driver does; returns the count, keeps the output.
  int32_t count(std::string* out) {
    UniqueDir d(opendir(tree.root().c_str()));
    EXPECT_TRUE(d != nullptr);
    ::testing::internal::CaptureStdout();
    const int32_t n = Cnt_total_file(tree.root().c_str(), d.get());
    *out = ::testing::internal::GetCapturedStdout();
    return n;
  }
  TempTree tree;
};

TEST_F(CountFiles, CountsKnownFilesAtEveryDepth) {
  tree.dir("a/b/c");
  tree.dir("d");
  for (const char* f : {"one.mp3", "a/two.JPG", "a/b/three.mpeg2", "a/b/c/four.pls", "d/five.Srt"})
    tree.file(f);
  std::string out;
  EXPECT_EQ(count(&out), 5);
  EXPECT_EQ(total_file_cnt.load(), 5);
  EXPECT_EQ(out, "");
}

TEST_F(CountFiles, SkipsWhatTheWalkSkips) {
  tree.dir(".hidden");
  tree.dir("real");
  for (const char* f : {".hidden/in.mp3", ".dot.mp3", "movie.mpeg21", "README", "archive.tar.gz",
                        "song.mp3.bak", "clip.mkv", "real/kept.avi"})
    tree.file(f);
  ASSERT_TRUE(tree.link("real", "to_real"));
  ASSERT_TRUE(tree.link("real/kept.avi", "kept_link.avi"));
  std::string out;
  EXPECT_EQ(count(&out), 1);
  EXPECT_NE(out.find("Link File: [" + tree.root() + "to_real]\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Link File: [" + tree.root() + "kept_link.avi]\n"), std::string::npos) << out;
}

TEST_F(CountFiles, EmptyShareCountsNothing) {
  std::string out;
  EXPECT_EQ(count(&out), 0);
  EXPECT_EQ(total_file_cnt.load(), 0);
}

// A name too long to compose is reported by the failed status query with an
// empty file field and -1, the call's result, in place of an error number.
TEST_F(CountFiles, OverlongNamesAreReportedNotCounted) {
  std::string rel = std::string(240, 'd') + "/" + std::string(240, 'e');
  const std::string folder = tree.dir(rel);
  const size_t room = 512 - folder.size();  // a name of this length makes 512
  tree.file(rel + "/" + std::string(room - 4, 'n') + ".mp3");  // 512: too long
  tree.file(rel + "/" + std::string(room - 3, 'n') + ".mp3");  // 513: cannot be composed
  tree.file(rel + "/" + std::string(room - 5, 'n') + ".mp3");  // 511: counted
  std::string out;
  EXPECT_EQ(count(&out), 1);
  EXPECT_NE(out.find("<Cnt_total_file>Cnt_total_file(): file path too long 512\n"), std::string::npos) << out;
  EXPECT_NE(out.find("<mediawalk>Cnt_total_file(): lstat error:[Unknown error -1],-1,file:[]\n"),
            std::string::npos)
      << out;
}

// The count holds one stream per level open while it descends; a level that
// cannot be opened (here: out of descriptors) is skipped, counting nothing.
TEST_F(CountFiles, SubfolderThatCannotBeOpenedIsSkipped) {
  tree.dir("l1/l2/l3/l4");
  for (const char* f : {"f0.mp3", "l1/f1.mp3", "l1/l2/f2.mp3", "l1/l2/l3/f3.mp3", "l1/l2/l3/l4/f4.mp3"})
    tree.file(f);
  struct rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  UniqueDir root(opendir(tree.root().c_str()));
  ASSERT_TRUE(root != nullptr);
  ::testing::internal::CaptureStdout();
  const int lowest_free = dup(0);
  close(lowest_free);
  struct rlimit low = saved;
  low.rlim_cur = static_cast<rlim_t>(lowest_free + 2);  // l1 and l2 open, l3 does not
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  const int32_t n = Cnt_total_file(tree.root().c_str(), root.get());
  setrlimit(RLIMIT_NOFILE, &saved);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(n, 3);
  EXPECT_NE(out.find("l3/]"), std::string::npos) << out;
}

// --- The progress thread ------------------------------------------------------

std::mutex published_mutex;
std::vector<std::pair<std::string, std::string>> published;

int record(const char* node, const char* value) {
  std::lock_guard<std::mutex> lock(published_mutex);
  published.emplace_back(node, value);
  return 0;
}

size_t published_count() {
  std::lock_guard<std::mutex> lock(published_mutex);
  return published.size();
}

TEST(ProgressThread, PublishesBothCountersUntilFinished) {
  published.clear();
  set_progress_publisher(record);
  total_file_cnt = 42;
  total_scan_cnt = 7;
  scan_finished = 0;
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, progress_thread, nullptr), 0);
  // The first publication comes at once.
  for (int i = 0; i < 200 && published_count() < 2; ++i) usleep(10000);
  total_scan_cnt = 9;
  scan_finished = 1;
  const time_t start = time(nullptr);
  pthread_join(thread, nullptr);
  EXPECT_LE(time(nullptr) - start, 4);  // ends at its next wake-up
  set_progress_publisher(nullptr);

  std::lock_guard<std::mutex> lock(published_mutex);
  ASSERT_GE(published.size(), 2u);
  EXPECT_EQ(published[0], std::make_pair(std::string("/runtime/scan_media/total_file"), std::string("42")));
  EXPECT_EQ(published[1], std::make_pair(std::string("/runtime/scan_media/total_scan_file"), std::string("7")));
  EXPECT_EQ(published.size(), 2u);  // the flag was seen at the first wake-up
  scan_finished = 0;
  total_file_cnt = total_scan_cnt = 0;
}

}  // namespace

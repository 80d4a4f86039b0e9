#include "platform/regular_file.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "../temp_tree.h"
#include "metadata/id3_tags.h"
#include "metadata/image.h"
#include "metadata/mpeg_audio.h"
#include "metadata/music_info.h"
#include "metadata/video.h"
#include "platform/holders.h"

namespace {

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

// Runs `open` on a FIFO that no one writes to. Should a call block in open(),
// a writer comes after two seconds (and again for every later call) to let it
// go, and the test fails instead of hanging. Returns whether that was needed.
bool blocked_on_fifo(const std::string& fifo, const std::function<void()>& open) {
  std::atomic<bool> done{false};
  std::atomic<bool> rescued{false};
  std::thread rescuer([&] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!done && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    while (!done) {
      const int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK);  // succeeds once a reader waits
      if (fd >= 0) {
        rescued = true;
        close(fd);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  open();
  done = true;
  rescuer.join();
  return rescued;
}

class RegularFile : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tree_.ok());
    regular_ = tree_.file("song.mp3", std::string(2000, 'x'));
    ASSERT_TRUE(tree_.link("song.mp3", "link.mp3"));
    tree_.dir("folder.jpg");
    for (const char* name : {"fifo.mp3", "fifo.jpg", "fifo.mpg"})
      ASSERT_EQ(mkfifo((tree_.root() + name).c_str(), 0600), 0) << name;
  }
  std::string path(const char* name) const { return tree_.root() + name; }

  TempTree tree_;
  std::string regular_;
};

TEST_F(RegularFile, OpensOnlyRegularFiles) {
  const Fd fd(open_regular(regular_.c_str()));
  ASSERT_GE(fd.fd, 0);
  EXPECT_NE(fcntl(fd.fd, F_GETFD) & FD_CLOEXEC, 0);
  UniqueFile f(fopen_regular(regular_.c_str()));
  ASSERT_NE(f, nullptr);
  char buf[4] = {};
  EXPECT_EQ(fread(buf, 1, 3, f.get()), 3u);
  EXPECT_STREQ(buf, "xxx");

  const struct {
    const char* name;
    int error;
  } refused[] = {{"link.mp3", ELOOP}, {"folder.jpg", EINVAL}, {"fifo.mp3", EINVAL}, {"missing.mp3", ENOENT}};
  for (const auto& c : refused) {
    const std::string p = path(c.name);
    int got = 0, error = 0;
    FILE* stream = nullptr;
    EXPECT_FALSE(blocked_on_fifo(p, [&] {
      errno = 0;
      got = open_regular(p.c_str());
      error = errno;
      stream = fopen_regular(p.c_str());
    })) << c.name;
    EXPECT_EQ(got, -1) << c.name;
    EXPECT_EQ(error, c.error) << c.name;
    EXPECT_EQ(stream, nullptr) << c.name;
    if (stream) fclose(stream);
  }
}

// Every reader of share files, given a FIFO in place of the file it was told
// about: each returns its failure value at once.
TEST_F(RegularFile, ReadersRefuseAFifo) {
  const struct {
    const char* name;
    const char* fifo;
    std::function<int(const char*)> read;
    int failure;
  } readers[] = {
      {"tags", "fifo.mp3",
       [](const char* p) {
         MusicFileInfo info{};
         char type[] = "mp3";
         info.type = type;
         const int rc = scan_get_mp3tags(p, &info);
         free(info.title);
         return rc;
       },
       -1},
      {"frames", "fifo.mp3",
       [](const char* p) {
         MusicFileInfo info{};
         return scan_get_mp3fileinfo(p, &info);
       },
       -1},
      {"image", "fifo.jpg",
       [](const char* p) {
         ImageInfo info{};
         snprintf(info.path, sizeof info.path, "%s", p);
         return get_img_size(&info);
       },
       0},
      {"video", "fifo.mpg",
       [](const char* p) {
         VideoInfo info{};
         return get_video_info(p, &info);
       },
       -1},
  };
  for (const auto& r : readers) {
    const std::string p = path(r.fifo);
    int rc = 12345;
    CaptureStdout();
    const bool blocked = blocked_on_fifo(p, [&] { rc = r.read(p.c_str()); });
    GetCapturedStdout();
    EXPECT_FALSE(blocked) << r.name;
    EXPECT_EQ(rc, r.failure) << r.name;
  }
}

}  // namespace

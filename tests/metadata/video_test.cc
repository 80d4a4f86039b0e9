// MPEG video stream information (table in tests/data/cases/video_files.tsv).
#include "metadata/video.h"

#include "reader_case.h"

namespace {

TABLE_TEST(VideoFile, "video_files.tsv") {
  check_reader(c, 3, c.at(1), c.at(0), [&c](const std::string& path) {
    VideoInfo info{};
    info.bitrate = 12345;  // never survives a call
    if (c.at(2) == "time") info.duration = kDurationRequest;
    int rc = 0;
    const std::string out = stdout_of([&] { rc = get_video_info(path.c_str(), &info); });
    EXPECT_EQ(info.bitrate, 0);
    char got[128];
    snprintf(got, sizeof got, "%d %d %d %d %d %d %d|", rc, info.width, info.height, info.mpeg_type,
             info.frame_rate, info.tv_system, info.duration);
    return got + out;
  });
}

}  // namespace

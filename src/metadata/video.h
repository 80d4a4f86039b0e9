// MPEG-1/2 video stream information: picture size, frame rate, MPEG version,
// television system and, on request, playing time.
#ifndef MEDIAWALK_METADATA_VIDEO_H_
#define MEDIAWALK_METADATA_VIDEO_H_

#include <stdint.h>

// Put into VideoInfo::duration before the call to ask for the playing time.
constexpr int32_t kDurationRequest = 0xDAAD;

struct VideoInfo {
  int32_t width;
  int32_t height;
  int32_t frame_rate;
  int32_t bitrate;    // always 0 on return
  int32_t mpeg_type;  // 0 unknown, 1 MPEG-1, 2 MPEG-2
  int32_t tv_system;  // 1 PAL, 2 NTSC, -1 unknown
  int32_t duration;   // whole seconds when requested, else 0
};

// Returns -1 for an extension other than .mpg/.mpeg/.mpeg2, an unopenable
// file, no sequence and group-of-pictures header, or a failed read; else 0.
int get_video_info(const char* path, VideoInfo* info);

#endif  // MEDIAWALK_METADATA_VIDEO_H_

// MPEG audio frame analysis: first frame, averaged bitrate, sample rate,
// song length and file size of an MP3 file.
#ifndef MEDIAWALK_METADATA_MPEG_AUDIO_H_
#define MEDIAWALK_METADATA_MPEG_AUDIO_H_

#include <stdint.h>
#include <stdio.h>

#include "metadata/music_info.h"

// Returns -1 when the file cannot be opened or its first 1024 bytes cannot be
// read; 0 otherwise, also when no frame is found (audio fields then untouched
// apart from the file size).
int scan_get_mp3fileinfo(const char* path, MusicFileInfo* info);

// What one decoded frame header says. Exposed for the unit tests; the walk
// only needs scan_get_mp3fileinfo.
struct Mp3Frame {
  int32_t layer;              // 1, 2 or 3
  int32_t bitrate;            // kbit/s
  int32_t sample_rate;        // Hz
  int32_t stereo;             // 0 or 1
  int32_t frame_length;       // bytes this scanner steps by (see mpeg_audio.cc)
  int32_t crc_byte;           // second header byte, protection bit cleared
  int32_t samples_per_frame;  // 384, 576 or 1152
  int32_t padding;            // 0 or 1
  int32_t xing_offset;        // from the end of the 4-byte header to a Xing header
  int32_t number_of_frames;   // from a Xing header, 0 when none
  double version;             // 1.0, 2.0 or 2.5
  int32_t is_valid;           // 1 after a successful decode
};

// Decodes the four header bytes at p[0..3]. Returns 0 and fills *frame for a
// usable header; returns -1 and sets only frame->is_valid to 0 otherwise.
int mp3_decode_frame_header(const uint8_t* p, Mp3Frame* frame);

// Replaces first->bitrate by the mean of ten consecutive frame bitrates taken
// from the middle of the file open on fd, file_size bytes long; leaves it as
// it is when that pass fails anywhere.
void mp3_average_bitrate(int fd, int64_t file_size, Mp3Frame* first);

#endif  // MEDIAWALK_METADATA_MPEG_AUDIO_H_

// The per-file record handed by the folder walk to the ID3 tag reader and the
// MPEG audio frame analysis. The walk owns it and every text in it.
#ifndef MEDIAWALK_METADATA_MUSIC_INFO_H_
#define MEDIAWALK_METADATA_MUSIC_INFO_H_

#include <stdint.h>

struct MusicFileInfo {
  char* path;    // full path of the file
  char* fname;   // file name alone
  char* title;   // TIT2 in UTF-8, null when absent (heap)
  char* artist;  // TPE1 in UTF-8 (heap)
  char* album;   // TALB in UTF-8 (heap)
  char* genre;   // genre name from the genre table (heap)
  char* type;    // extension after the last ".", case as in the name (heap)
  int32_t bitrate;      // kbit/s, stored with "%u"
  int32_t sample_rate;  // Hz
  int32_t song_length;  // milliseconds
  uint32_t file_size;   // bytes (low 32 bits)
  int32_t bpm;          // TBPM as a number
  uint8_t compilation;  // 1 when a "YTCP" frame is present
};

#endif  // MEDIAWALK_METADATA_MUSIC_INFO_H_

// MPEG audio frame analysis: first frame, averaged bitrate, sample rate,
// song length and file size of an MP3 file.
#ifndef MEDIAWALK_METADATA_MPEG_AUDIO_H_
#define MEDIAWALK_METADATA_MPEG_AUDIO_H_

#include "metadata/music_info.h"

// Returns -1 when the file cannot be opened or its first 1024 bytes cannot be
// read; 0 otherwise, also when no frame is found (audio fields then untouched
// apart from the file size).
int scan_get_mp3fileinfo(const char* path, MusicFileInfo* info);

#endif  // MEDIAWALK_METADATA_MPEG_AUDIO_H_

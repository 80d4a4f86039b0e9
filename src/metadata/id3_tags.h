// The ID3 tag reader: title, artist, album, genre, bpm and compilation flag,
// with tag texts converted to UTF-8 from the charset the external detector
// names.
#ifndef MEDIAWALK_METADATA_ID3_TAGS_H_
#define MEDIAWALK_METADATA_ID3_TAGS_H_

#include <stddef.h>
#include <stdint.h>

#include "metadata/music_info.h"

// Set to 1 when the matching frame yielded a text; never cleared.
extern int have_title;
extern int have_artist;
extern int have_album;
extern int have_genre;

// Reads the tag of the MP3 file at path into *info. Returns 0 when the type is
// not "mp3" (nothing done) or the tag was read, -1 when libid3tag cannot open
// the file or it holds no tag.
int scan_get_mp3tags(const char* path, MusicFileInfo* info);

#endif  // MEDIAWALK_METADATA_ID3_TAGS_H_

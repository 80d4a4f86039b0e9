// The ID3 tag reader: title, artist, album, genre, bpm and compilation flag,
// with tag texts converted to UTF-8 from the charset the external detector
// names.
#ifndef MEDIAWALK_METADATA_ID3_TAGS_H_
#define MEDIAWALK_METADATA_ID3_TAGS_H_

#include <id3tag.h>
#include <stddef.h>
#include <stdint.h>

#include "metadata/music_info.h"

// Set to 1 when the matching frame yielded a text; never cleared.
extern int have_title;
extern int have_artist;
extern int have_album;
extern int have_genre;

// Reads the tags of the MP3 file at path into *info, as libid3tag's file reader
// gives them (metadata/id3_reduce.h). Returns 0 when the type is not "mp3"
// (nothing done) or the file was read, tagged or not; -1 when it cannot be
// opened as a regular file, or memory runs out. title, artist, album and genre must be null or
// owned by the record on entry; a field this call fills is a new heap string
// (free()), and a frame met twice replaces (and frees) the text this call set
// for it before.
int scan_get_mp3tags(const char* path, MusicFileInfo* info);

// The pieces of the reader, exposed for tests.

// Bytes of the tag sample handed to the detector, terminator included.
constexpr size_t kId3SampleSize = 128;

// Rebuilds the raw bytes behind a decoded tag text: a code point below 256 is
// one byte, one up to 65535 two bytes (high first), a larger one is dropped.
// Stops once 129 or more bytes are written, so at most 130 bytes plus the
// terminator land in out; cap must be at least 131 for that (a smaller cap
// stops earlier). Returns the number of bytes written, terminator excluded.
size_t id3_pack_ucs4(const id3_ucs4_t* text, char* out, size_t cap);

// True when some code point lies in U+4E00..U+9FBF. An empty text has none.
bool id3_has_cjk(const id3_ucs4_t* text);

// The genre number of a TCON text: "17" and "(17)" give 17; an empty or
// textual genre, or a number outside 0..148, gives 148.
int id3_genre_number(const char* text);
// The genre table's name for 0..148; "Others" (148) for anything else.
const char* id3_genre_name(int number);

// First pass over the frames: sets the compilation flag for a "YTCP" frame
// and collects into sample[kId3SampleSize] the packed texts of at most five
// TIT2/TPE1/TALB/COMM/TCOM frames, stopping before the one that would bring
// the total past 100 bytes.
void id3_build_sample(const struct id3_tag* tag, MusicFileInfo* info, char* sample);

#endif  // MEDIAWALK_METADATA_ID3_TAGS_H_

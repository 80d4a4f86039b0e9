// Reading every ID3 tag of a file the way libid3tag's file reader does, in
// bounded memory.
//
// libid3tag reads each tag whole into memory and parses it there, inflating
// compressed frames into buffers of the size they declare: a cover picture
// of 40 MiB costs 80 MiB and more, and a sparse file of a few KiB can declare
// tags of 256 MiB each, chained through SEEK frames. This reader walks the
// same tags in the same order (an ID3v1 tag at the end, the tag at the start,
// the tags its SEEK frames lead to, a tag found from the end through a v2.4
// footer), checks them as libid3tag checks them (unsynchronisation, extended
// headers and their CRC, frame layout, inflation of compressed frames), and
// hands libid3tag's own parser a reduced copy of each: frames that may carry
// a text (identifiers beginning with "T", comments, involved people) whole,
// every other frame cut to its first bytes, which is all that decides how
// libid3tag parses it. The frames are then merged as libid3tag merges them.
#ifndef MEDIAWALK_METADATA_ID3_REDUCE_H_
#define MEDIAWALK_METADATA_ID3_REDUCE_H_

#include <id3tag.h>
#include <stddef.h>

#include "metadata/read_range.h"

// A text-bearing frame larger than this (stored, or once inflated) is cut
// like any other frame: its text keeps only its beginning.
constexpr size_t kId3TextFrameMax = 1u << 20;
// Bytes kept of every other frame.
constexpr size_t kId3FrameProbe = 16u << 10;
// Bytes of reduced tags one file may hand to libid3tag in all; frames past
// this are left out.
constexpr size_t kId3ReducedMax = 4u << 20;
// Bytes one file's compressed frames may inflate to while they are checked;
// a frame that would go past this counts as one that does not inflate.
constexpr unsigned long long kId3InflateMax = 256ull << 20;
// Bytes of tag data read from one file in all (holes of a sparse file are
// stepped over, not read); a tag that needs more counts as one that cannot be
// read.
constexpr unsigned long long kId3ReadMax = 1ull << 30;

// The tag libid3tag's file reader gives for the regular file open on fd,
// `size` bytes long (negative: asked of fd here): a new tag holding the
// merged frames, empty when the file has none. Reads use pread; looking for
// holes may move the descriptor's offset. Null only when memory runs out or
// the size cannot be had. The caller deletes it with id3_tag_delete.
struct id3_tag* id3_read_file_tags(int fd, long long size = -1);

// The same for a file opened as *file, of the size its open found.
struct id3_tag* id3_read_file_tags(FileBytes* file);

#endif  // MEDIAWALK_METADATA_ID3_REDUCE_H_

// Which entries of a folder the scan takes in. The counting walk and the
// folder walk both ask here, so the files counted before the scan are the
// files the scan handles and the progress display reaches its total.
#ifndef MEDIAWALK_LIBRARY_ENTRY_RULE_H_
#define MEDIAWALK_LIBRARY_ENTRY_RULE_H_

#include <stddef.h>
#include <sys/types.h>

#include "library/media_types.h"

// Folder path plus entry name must stay below this many bytes.
constexpr size_t kPathLimit = 512;
// An extension of this many bytes or more after the last dot is never looked
// up; the longest in the table is "mpeg2".
constexpr size_t kExtLimit = 6;

enum class EntryKind {
  kPassed,  // hidden, not a folder or regular file, or not a known media file
  kLink,    // a symbolic link: reported, never followed
  kFolder,  // a folder to walk
  kMedia,   // a regular file of a known class
};

// What a media file's name says about it.
struct MediaName {
  MediaClass media_class;
  const char* dot;      // the name's last ".", case as in the name
  char ext[kExtLimit];  // the text after it, lower-cased (the EXT_fname value)
};

// ".", "..", hidden files and folders, the database folder and the folder
// marker: never entered, counted or stored.
inline bool is_hidden_name(const char* name) { return name[0] == '.'; }

// Judges the entry `name` by its own status mode (from a status query that
// does not follow a link). For kMedia, *media is filled; dot points into name.
EntryKind judge_entry(const char* name, mode_t mode, MediaName* media);

#endif  // MEDIAWALK_LIBRARY_ENTRY_RULE_H_

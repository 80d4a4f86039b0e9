#include "library/entry_rule.h"

#include <ctype.h>
#include <string.h>
#include <sys/stat.h>

EntryKind judge_entry(const char* name, mode_t mode, MediaName* media) {
  if (is_hidden_name(name)) return EntryKind::kPassed;
  if (S_ISLNK(mode)) return EntryKind::kLink;
  if (S_ISDIR(mode)) return EntryKind::kFolder;
  if (!S_ISREG(mode)) return EntryKind::kPassed;

  const char* dot = strrchr(name, '.');
  if (dot == nullptr) return EntryKind::kPassed;
  const size_t len = strnlen(dot + 1, kExtLimit);
  if (len >= kExtLimit) return EntryKind::kPassed;
  const MediaClass media_class = media_class_of(dot);
  if (media_class == kClassNone) return EntryKind::kPassed;
  media->media_class = media_class;
  media->dot = dot;
  for (size_t i = 0; i <= len; ++i) media->ext[i] = static_cast<char>(tolower(static_cast<unsigned char>(dot[1 + i])));
  return EntryKind::kMedia;
}

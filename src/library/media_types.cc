#include "library/media_types.h"

#include <stddef.h>
#include <strings.h>

namespace {

struct MediaType {
  const char* ext;   // with its dot, lower case
  const char* mime;  // carried for the media server; the scan never reads it
};

// Grouped by class: the class of a row is read from its position, so the
// order is part of the table. The closing null row ends the storage only;
// lookups are bounded by kTypeCount.
constexpr MediaType kMediaTypes[] = {
    {".bmp", "image/bmp"},
    {".gif", "image/gif"},
    {".jpg", "image/jpeg"},
    {".jpeg", "image/jpeg"},
    {".jpe", "image/jpeg"},
    {".tif", "image/tiff"},
    {".tiff", "image/tiff"},
    {".png", "image/png"},
    {".aif", "audio/aiff"},
    {".aiff", "audio/aiff"},
    {".wav", "audio/x-wav"},
    {".wma", "audio/x-ms-wma"},
    {".mp3", "audio/mpeg"},
    {".mp2", "audio/mpeg"},
    {".pcm", "audio/L16"},
    {".lpcm", "audio/L16"},
    {".mp1", "audio/mpeg"},
    {".mpa", "audio/mpeg"},
    {".avi", "video/avi"},
    {".mpeg", "video/mpeg"},
    {".mpg", "video/mpeg"},
    {".mpeg2", "video/mpeg2"},
    {".mp4", "video/mp4"},
    {".wmv", "video/x-ms-wmv"},
    {".dat", "video/mpeg"},
    {".vob", "video/mpeg"},
    {".ts", "video/mpeg"},
    {".mov", "video/quicktime"},
    {".m3u", ""},
    {".pls", ""},
    {".srt", "application/octet-stream"},
    {nullptr, nullptr},
};
constexpr size_t kTypeCount = 31;
static_assert(sizeof kMediaTypes / sizeof kMediaTypes[0] == kTypeCount + 1,
              "31 rows and the closing null row");

// One past the last zero-based row of each class, in table order.
constexpr size_t kPhotoEnd = 8;
constexpr size_t kMusicEnd = 18;
constexpr size_t kVideoEnd = 28;
constexpr size_t kPlaylistEnd = 30;
constexpr size_t kSubtitleEnd = 31;

MediaClass class_of_row(size_t row) {
  if (row < kPhotoEnd) return kClassPhoto;
  if (row < kMusicEnd) return kClassMusic;
  if (row < kVideoEnd) return kClassVideo;
  if (row < kPlaylistEnd) return kClassPlaylist;
  if (row < kSubtitleEnd) return kClassSubtitle;
  return kClassNone;
}

}  // namespace

MediaClass media_class_of(const char* dot_ext) {
  if (dot_ext == nullptr) return kClassNone;
  size_t row = 0;
  while (row < kTypeCount && strcasecmp(dot_ext, kMediaTypes[row].ext) != 0) ++row;
  return class_of_row(row);
}

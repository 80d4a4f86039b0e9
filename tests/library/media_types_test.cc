#include "library/media_types.h"

#include <ctype.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct ClassRows {
  MediaClass media_class;
  std::vector<const char*> exts;
};

const ClassRows kKnown[] = {
    {kClassPhoto, {".bmp", ".gif", ".jpg", ".jpeg", ".jpe", ".tif", ".tiff", ".png"}},
    {kClassMusic, {".aif", ".aiff", ".wav", ".wma", ".mp3", ".mp2", ".pcm", ".lpcm", ".mp1", ".mpa"}},
    {kClassVideo,
     {".avi", ".mpeg", ".mpg", ".mpeg2", ".mp4", ".wmv", ".dat", ".vob", ".ts", ".mov"}},
    {kClassPlaylist, {".m3u", ".pls"}},
    {kClassSubtitle, {".srt"}},
};

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return s;
}

// Every other letter upper case: ".Mp3", ".JpEg".
std::string mixed(std::string s) {
  for (size_t i = 1; i < s.size(); i += 2) s[i] = static_cast<char>(toupper(static_cast<unsigned char>(s[i])));
  return s;
}

TEST(MediaTypes, EveryExtensionInAnyCaseGivesItsClass) {
  size_t rows = 0;
  for (const ClassRows& group : kKnown) {
    for (const char* ext : group.exts) {
      ++rows;
      for (const std::string& variant : {std::string(ext), upper(ext), mixed(ext)}) {
        SCOPED_TRACE(variant);
        EXPECT_EQ(media_class_of(variant.c_str()), group.media_class);
      }
    }
  }
  EXPECT_EQ(rows, 31u);
}

TEST(MediaTypes, NamedVariantsFromTheFieldAreClassified) {
  const struct {
    const char* ext;
    MediaClass media_class;
  } cases[] = {
      {".JPG", kClassPhoto}, {".Jpeg", kClassPhoto}, {".jpe", kClassPhoto},
      {".TS", kClassVideo},  {".MP3", kClassMusic},  {".MPEG2", kClassVideo},
      {".Srt", kClassSubtitle}, {".M3U", kClassPlaylist},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.ext);
    EXPECT_EQ(media_class_of(c.ext), c.media_class);
  }
}

// Whole-text comparison: near misses, other formats and texts that only
// contain a known extension are all class none.
TEST(MediaTypes, AnythingElseIsNone) {
  const char* texts[] = {".m4a", ".aac", ".ogg", ".flac", ".mkv", ".txt", ".bak", ".gz",
                         ".mpeg21", ".mp3.bak", ".mp", ".mp34", "mp3", ".mp3 ", " .mp3",
                         ".", "", ".jp", ".tsx", "..mp3"};
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    EXPECT_EQ(media_class_of(text), kClassNone);
  }
  EXPECT_EQ(media_class_of(nullptr), kClassNone);
}

}  // namespace

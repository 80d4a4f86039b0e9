#include "metadata/id3_tags.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "encoding/iconv_string.h"
#include "log/err_log.h"
#include "metadata/ask_detector.h"
#include "metadata/id3_reduce.h"
#include "platform/holders.h"
#include "platform/regular_file.h"
#include "platform/text.h"

int have_title = 0;
int have_artist = 0;
int have_album = 0;
int have_genre = 0;

namespace {

constexpr size_t kPackedSize = 1024;
constexpr size_t kPackStop = 129;          // the packer stops at this many bytes
constexpr size_t kSampleMaxBytes = 100;    // keeps the detector's argument short
constexpr int kSampleMaxFrames = 5;
constexpr size_t kAnswerSize = 20;
constexpr size_t kAnswerRead = 18;
constexpr int kGenreOthers = 148;

constexpr const char* kGenres[] = {
    "Blues", "Classic Rock", "Country", "Dance", "Disco", "Funk", "Grunge", "Hip-Hop", "Jazz",
    "Metal", "New Age", "Oldies", "Other", "Pop", "R&B", "Rap", "Reggae", "Rock", "Techno",
    "Industrial", "Alternative", "Ska", "Death Metal", "Pranks", "Soundtrack", "Euro-Techno",
    "Ambient", "Trip-Hop", "Vocal", "Jazz+Funk", "Fusion", "Trance", "Classical", "Instrumental",
    "Acid", "House", "Game", "Sound Clip", "Gospel", "Noise", "AlternRock", "Bass", "Soul", "Punk",
    "Space", "Meditative", "Instrumental Pop", "Instrumental Rock", "Ethnic", "Gothic", "Darkwave",
    "Techno-Industrial", "Electronic", "Pop-Folk", "Eurodance", "Dream", "Southern Rock", "Comedy",
    "Cult", "Gangsta", "Top 40", "Christian Rap", "Pop/Funk", "Jungle", "Native American",
    "Cabaret", "New Wave", "Psychadelic", "Rave", "Showtunes", "Trailer", "Lo-Fi", "Tribal",
    "Acid Punk", "Acid Jazz", "Polka", "Retro", "Musical", "Rock & Roll", "Hard Rock", "Folk",
    "Folk/Rock", "National folk", "Swing", "Fast-fusion", "Bebob", "Latin", "Revival", "Celtic",
    "Bluegrass", "Avantgarde", "Gothic Rock", "Progressive Rock", "Psychedelic Rock",
    "Symphonic Rock", "Slow Rock", "Big Band", "Chorus", "Easy Listening", "Acoustic", "Humour",
    "Speech", "Chanson", "Opera", "Chamber Music", "Sonata", "Symphony", "Booty Bass", "Primus",
    "Porn Groove", "Satire", "Slow Jam", "Club", "Tango", "Samba", "Folklore", "Ballad",
    "Powder Ballad", "Rhythmic Soul", "Freestyle", "Duet", "Punk Rock", "Drum Solo", "A Capella",
    "Euro-House", "Dance Hall", "Goa", "Drum & Bass", "Club House", "Hardcore", "Terror", "Indie",
    "BritPop", "NegerPunk", "Polsk Punk", "Beat", "Christian Gangsta", "Heavy Metal",
    "Black Metal", "Crossover", "Contemporary C", "Christian Rock", "Merengue", "Salsa",
    "Thrash Metal", "Anime", "JPop", "SynthPop", "Others"};
static_assert(sizeof kGenres / sizeof kGenres[0] == kGenreOthers + 1, "149 genre names");

// Answers of the detector and the charset their texts are converted from.
// Several pairs look crossed (Cyrillic answers read as Latin-1, IBM855 as
// Big5); they are the mapping the library was built with and stay so.
struct AnswerCharset {
  const char* answer;
  const char* charset;
};
constexpr AnswerCharset kAnswerCharsets[] = {
    {"windows-1251", "ISO-8859-1"},   {"IBM866", "ISO-8859-1"},     {"x-mac-cyrillic", "ISO-8859-1"},
    {"windows-1252", "CP1252"},       {"KOI8-R", "CP1251"},         {"gb18030", "autodetect_GB"},
    {"", "autodetect_utf8"},          {"Big5", "autodetect_BIG5"},  {"IBM855", "autodetect_BIG5"},
    {"x-euc-tw", "autodetect_BIG5"},  {"ISO-8859-7", "autodetect_jp"},
};

// The answer is taken exactly as read: "KOI8-R\n" matches no row.
const char* charset_for_answer(const char* answer) {
  for (const AnswerCharset& row : kAnswerCharsets) {
    if (strcmp(answer, row.answer) == 0) return row.charset;
  }
  return "autodetect_utf8";
}

// A decimal number at the start of text, as atoi reads it but saturating
// instead of overflowing.
long leading_number(const char* text) {
  const char* p = text;
  while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  long n = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (n <= 100000000L) n = n * 10 + (*p - '0');  // stays below 2^31 with a 32-bit long
  }
  return negative ? -n : n;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// String 0 of field 1 for a frame whose identifier starts with "T" or is
// "COMM". Field 1 is the text list of a text frame; in COMM it is the
// language, which holds no list, so COMM never yields a text here.
const id3_ucs4_t* frame_text(const struct id3_frame* frame) {
  if (frame->id[0] != 'T' && strcmp(frame->id, "COMM") != 0) return nullptr;
  const union id3_field* field = id3_frame_field(frame, 1);
  if (field == nullptr || id3_field_getnstrings(field) == 0) return nullptr;
  return id3_field_getstrings(field, 0);
}

void note_compilation(const struct id3_frame* frame, MusicFileInfo* info) {
  if (strcmp(frame->id, "YTCP") != 0) return;
  info->compilation = 1;
  err_log(9, kLogModuleScan, "Compilation: %d\n", info->compilation);
}

bool is_sample_frame(const char* id) {
  return strcmp(id, "TIT2") == 0 || strcmp(id, "TPE1") == 0 || strcmp(id, "TALB") == 0 ||
         strcmp(id, "COMM") == 0 || strcmp(id, "TCOM") == 0;
}

// Converts the packed bytes (terminator included) to UTF-8. Null when the
// conversion failed.
char* convert_packed(const char* packed, const char* charset) {
  char* utf8 = nullptr;
  size_t len = 0;
  if (iconv_string_n("UTF-8", charset, packed, packed + strlen(packed) + 1, &utf8, &len) != 0) {
    free(utf8);
    return nullptr;
  }
  // The terminator normally comes through the conversion; a charset that
  // swallowed it as part of an incomplete tail would leave a text without one.
  if (utf8 != nullptr && (len == 0 || utf8[len - 1] != '\0')) {
    char* longer = static_cast<char*>(realloc(utf8, len + 1));
    if (longer == nullptr) {
      free(utf8);
      return nullptr;
    }
    longer[len] = '\0';
    utf8 = longer;
  }
  return utf8;
}

// Puts text into *field. A text this call already stored there (a frame met
// twice) is released; anything else is the caller's.
void replace_text(char** field, bool* set_here, char* text) {
  if (*set_here) free(*field);
  *field = text;
  *set_here = true;
}

}  // namespace

size_t id3_pack_ucs4(const id3_ucs4_t* text, char* out, size_t cap) {
  if (cap == 0) return 0;
  size_t n = 0;
  for (const id3_ucs4_t* p = text; *p != 0; ++p) {
    const id3_ucs4_t c = *p;
    if (c < 256) {
      if (n + 1 >= cap) break;
      out[n++] = static_cast<char>(c);
    } else if (c < 65536) {
      if (n + 2 >= cap) break;
      out[n++] = static_cast<char>(c >> 8);
      out[n++] = static_cast<char>(c & 0xFF);
    }
    if (n >= kPackStop) break;
  }
  out[n] = '\0';
  return n;
}

bool id3_has_cjk(const id3_ucs4_t* text) {
  for (const id3_ucs4_t* p = text; *p != 0; ++p) {
    if (*p >= 0x4E00 && *p <= 0x9FBF) return true;
  }
  return false;
}

int id3_genre_number(const char* text) {
  long n = kGenreOthers;
  if (text[0] == '\0') {
    n = kGenreOthers;
  } else if (is_digit(text[0])) {
    n = leading_number(text);
  } else if (text[0] == '(' && is_digit(text[1])) {
    n = leading_number(text + 1);
  }
  if (n < 0 || n > kGenreOthers) n = kGenreOthers;
  return static_cast<int>(n);
}

const char* id3_genre_name(int number) {
  if (number < 0 || number > kGenreOthers) number = kGenreOthers;
  return kGenres[number];
}

void id3_build_sample(const struct id3_tag* tag, MusicFileInfo* info, char* sample) {
  memset(sample, 0, kId3SampleSize);
  int frames = 0;
  size_t total = 0;
  char packed[kPackedSize];
  const struct id3_frame* frame;
  for (unsigned int i = 0; (frame = id3_tag_findframe(tag, "", i)) != nullptr; ++i) {
    note_compilation(frame, info);
    const id3_ucs4_t* text = frame_text(frame);
    if (text == nullptr || id3_has_cjk(text)) continue;
    memset(packed, 0, sizeof packed);
    const size_t n = id3_pack_ucs4(text, packed, sizeof packed);
    if (!is_sample_frame(frame->id)) continue;
    ++frames;
    total += n;
    if (total > kSampleMaxBytes) break;
    // Appending stops at the first zero byte, so the sample never holds more
    // than the total counted so far.
    const size_t used = strnlen(sample, kId3SampleSize);
    copy_bounded(sample + used, kId3SampleSize - used, packed);
    if (frames >= kSampleMaxFrames) break;
  }
}

int scan_get_mp3tags(const char* path, MusicFileInfo* info) {
  if (info->type == nullptr || strcasecmp(info->type, "mp3") != 0) return 0;

  // Only a regular file is read; libid3tag's own reader is not used, since it holds every
  // tag whole in memory (see metadata/id3_reduce.h). The size comes from the open's query.
  struct stat st;
  Fd fd(open_regular(path, &st));
  if (fd.fd < 0) {
    printf("Cannot open %s\n", path);
    err_log(2, kLogModuleScan, "Cannot open %s\n", path);
    return -1;
  }
  FileBytes file(fd.fd, st.st_size);
  struct id3_tag* tag = id3_read_file_tags(&file);
  const int saved = errno;
  close(fd.release());  // the tag holds all it needs
  errno = saved;
  if (tag == nullptr) {
    printf("Cannot get ID3 tag for %s\n", path);
    err_log(2, kLogModuleScan, "Cannot get ID3 tag for %s\n", path);
    return -1;
  }

  char sample[kId3SampleSize];
  id3_build_sample(tag, info, sample);

  char answer[kAnswerSize];
  ask_detector(sample, answer, sizeof answer, kAnswerRead);
  const char* charset = charset_for_answer(answer);

  bool title_set = false, artist_set = false, album_set = false, genre_set = false;
  char packed[kPackedSize];
  const struct id3_frame* frame;
  for (unsigned int i = 0; (frame = id3_tag_findframe(tag, "", i)) != nullptr; ++i) {
    note_compilation(frame, info);
    const id3_ucs4_t* text = frame_text(frame);
    if (text == nullptr) continue;

    char* utf8;
    if (!id3_has_cjk(text)) {
      memset(packed, 0, sizeof packed);
      id3_pack_ucs4(text, packed, sizeof packed);
      utf8 = convert_packed(packed, charset);
    } else {
      // Ideographs mean the tag's own encoding was right: take libid3tag's text.
      utf8 = reinterpret_cast<char*>(id3_ucs4_utf8duplicate(text));
    }
    if (utf8 == nullptr) continue;

    if (strcmp(frame->id, "TIT2") == 0) {
      have_title = 1;
      replace_text(&info->title, &title_set, utf8);
    } else if (strcmp(frame->id, "TPE1") == 0) {
      have_artist = 1;
      replace_text(&info->artist, &artist_set, utf8);
    } else if (strcmp(frame->id, "TALB") == 0) {
      have_album = 1;
      replace_text(&info->album, &album_set, utf8);
    } else if (strcmp(frame->id, "TCON") == 0) {
      have_genre = 1;
      // Only numeric genres keep a name: a textual one becomes "Others".
      const int number = id3_genre_number(utf8);
      free(utf8);
      replace_text(&info->genre, &genre_set, strdup(id3_genre_name(number)));
    } else if (strcmp(frame->id, "TBPM") == 0) {
      info->bpm = static_cast<int32_t>(leading_number(utf8));
      err_log(9, kLogModuleScan, "BPM: %d\n", static_cast<int>(info->bpm));
      free(utf8);
    } else {
      free(utf8);
    }
  }

  id3_tag_delete(tag);
  return 0;
}

#include "metadata/id3_tags.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "encoding/iconv_string.h"
#include "log/err_log.h"
#include "metadata/ask_detector.h"
#include "metadata/bytes.h"
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

// libid3tag inflates a compressed frame into a buffer of the size the frame
// declares, allocated before the data is looked at: a tag of a hundred bytes
// can ask for 4 GiB, and a few megabytes of compressed zeros really fill
// gigabytes. A tag declaring more than this in all is not handed to it.
constexpr uint64_t kMaxInflatedBytes = 1u << 20;
// libid3tag also reads a tag whole into memory, and parses each frame into a
// copy of its own: a sparse file of a few KiB on disk can declare a 256 MiB
// tag. Cover pictures stay well below this.
constexpr uint32_t kMaxTagBytes = 8u << 20;

uint32_t get_syncsafe32(const uint8_t* p) {
  return uint32_t(p[0] & 0x7F) << 21 | uint32_t(p[1] & 0x7F) << 14 | uint32_t(p[2] & 0x7F) << 7 | (p[3] & 0x7F);
}

// Bytes the compressed frames of the ID3v2.3 or v2.4 tag whose header is at
// `at` declare once inflated (read with pread, the descriptor's offset stays),
// counted the way libid3tag reads them (v2.3: the tag de-unsynchronised
// first, a 4-byte size ahead of the data; v2.4: the data length indicator).
// Counting stops past the limit; a tag too large to read at all counts as
// past it. 0 where no such tag starts.
uint64_t tag_inflated_bytes(int fd, off_t at) {
  uint8_t head[10];
  if (pread(fd, head, sizeof head, at) != ssize_t(sizeof head) || memcmp(head, "ID3", 3) != 0) return 0;
  // Whatever the version: libid3tag reads a v2.2 tag whole as well.
  const uint32_t declared = get_syncsafe32(head + 6);
  if (declared > kMaxTagBytes) return kMaxInflatedBytes + 1;
  const int version = head[3];
  if (version != 3 && version != 4) return 0;
  // libid3tag holds the whole tag in memory in any case; this copy is gone
  // before it reads it. A size past the end of the file reads what is there.
  std::vector<uint8_t> tag;
  uint8_t chunk[4096];
  for (size_t left = declared; left > 0;) {
    const off_t from = at + off_t(sizeof head + tag.size());
    const ssize_t n = pread(fd, chunk, left < sizeof chunk ? left : sizeof chunk, from);
    if (n <= 0) break;
    tag.insert(tag.end(), chunk, chunk + n);
    left -= size_t(n);
  }
  if (version == 3 && (head[5] & 0x80)) {  // unsynchronised: every FF 00 stands for FF
    size_t out = 0;
    for (size_t in = 0; in < tag.size(); ++in) {
      tag[out++] = tag[in];
      if (tag[in] == 0xFF && in + 1 < tag.size() && tag[in + 1] == 0x00) ++in;
    }
    tag.resize(out);
  }
  size_t pos = 0;
  if (head[5] & 0x40) {  // extended header
    if (tag.size() < 4) return 0;
    pos = version == 3 ? 4 + size_t(get_be32(tag.data())) : size_t(get_syncsafe32(tag.data()));
  }
  uint64_t total = 0;
  while (pos <= tag.size() && tag.size() - pos >= 10 && tag[pos] != 0 && total <= kMaxInflatedBytes) {
    const uint8_t* frame = tag.data() + pos;
    const size_t size = version == 3 ? get_be32(frame + 4) : get_syncsafe32(frame + 4);
    const bool compressed = version == 3 ? (frame[9] & 0x80) != 0 : (frame[9] & 0x09) == 0x09;
    if (compressed && size >= 4 && tag.size() - pos - 10 >= 4)
      total += version == 3 ? get_be32(frame + 10) : get_syncsafe32(frame + 10);
    if (size > tag.size() - pos - 10) break;
    pos += 10 + size;
  }
  return total;
}

// libid3tag reads the tag at the start of the file and also one found from
// its end through a v2.4 footer, before an ID3v1 tag or without one; their
// frames are merged, so what they declare adds up.
uint64_t declared_inflated_bytes(int fd) {
  uint64_t total = tag_inflated_bytes(fd, 0);
  struct stat64 st;
  if (fstat64(fd, &st) != 0) return total;
  const off_t size = st.st_size;
  uint8_t v1[3];
  const bool has_v1 = size >= 128 && pread(fd, v1, sizeof v1, size - 128) == ssize_t(sizeof v1) &&
                      memcmp(v1, "TAG", 3) == 0;
  for (const off_t end : {size, has_v1 ? size - 128 : off_t(-1)}) {
    uint8_t footer[10];
    const off_t from = end - off_t(sizeof footer);
    if (from < 0 || pread(fd, footer, sizeof footer, from) != ssize_t(sizeof footer) ||
        memcmp(footer, "3DI", 3) != 0 || footer[3] != 4)
      continue;
    // The footer repeats the header's size; the header is that far before it.
    const off_t at = from - off_t(get_syncsafe32(footer + 6)) - 10;
    if (at > 0) total += tag_inflated_bytes(fd, at);
  }
  return total;
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

  const int fd = open_regular(path);
  // A tag declaring too much reads as libid3tag reads one whose compressed
  // frame does not inflate to its declared size: as a tag without frames.
  // So does a tag too large to read.
  const bool too_much = fd >= 0 && declared_inflated_bytes(fd) > kMaxInflatedBytes;
  // On success the tag file owns the descriptor; otherwise it is still ours.
  struct id3_file* file = fd >= 0 && !too_much ? id3_file_fdopen(fd, ID3_FILE_MODE_READONLY) : nullptr;
  if (file == nullptr && too_much) close(fd);
  if (file == nullptr && !too_much) {
    if (fd >= 0) close(fd);
    printf("Cannot open %s\n", path);
    err_log(2, kLogModuleScan, "Cannot open %s\n", path);
    return -1;
  }
  struct id3_tag* tag = too_much ? id3_tag_new() : id3_file_tag(file);
  if (tag == nullptr) {
    const int saved = errno;
    if (file != nullptr) id3_file_close(file);
    errno = saved;
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

  if (file != nullptr)
    id3_file_close(file);  // the tag belongs to the file
  else
    id3_tag_delete(tag);
  return 0;
}

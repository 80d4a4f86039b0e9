// The ID3 tag reader: packing and genre rules, the detector's sample, whole files through a stub
// detector, and the reduced copy of large tags (tables in tests/data/cases/id3_*.tsv).
#include "metadata/id3_tags.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <optional>

#include "../fd_capture.h"
#include "../platform/stub_program.h"
#include "log/err_log.h"
#include "metadata/id3_reduce.h"
#include "platform/holders.h"
#include "reader_case.h"

namespace {

std::vector<id3_ucs4_t> code_points(const std::string& text) {
  std::vector<id3_ucs4_t> cps;
  std::istringstream in(text);
  for (std::string tok; in >> tok;) {
    const size_t star = tok.find('*');
    cps.insert(cps.end(), star == std::string::npos ? 1 : strtoul(tok.c_str() + star + 1, nullptr, 10),
               id3_ucs4_t(strtoul(tok.c_str(), nullptr, 16)));
  }
  cps.push_back(0);
  return cps;
}

TABLE_TEST(Id3Text, "id3_ucs4.tsv") {
  const std::vector<id3_ucs4_t> text = code_points(c.at(0));
  char out[1024];
  memset(out, 0x55, sizeof out);
  const size_t n = id3_pack_ucs4(text.data(), out, c.at(3).empty() ? sizeof out : size_t(c.num(3)));
  EXPECT_EQ(std::string(out, n), c.at(1));
  EXPECT_EQ(out[n], '\0');
  EXPECT_EQ(out[n + 1], 0x55);
  EXPECT_EQ(id3_has_cjk(text.data()), c.num(2) == 1);
}

TABLE_TEST(Id3Genre, "id3_genres.tsv") {
  EXPECT_EQ(id3_genre_number(c.at(0).c_str()), c.num(1));
  EXPECT_STREQ(id3_genre_name(int(c.num(1))), c.at(2).c_str());
}

TABLE_TEST(Id3Sample, "id3_samples.tsv") {
  struct id3_tag* tag = id3_tag_new();
  for (size_t i = 2; i + 1 < c.f.size(); i += 2) {
    struct id3_frame* frame = id3_frame_new(c.at(i).c_str());
    union id3_field* field = id3_frame_field(frame, 1);
    id3_ucs4_t* text = id3_utf8_ucs4duplicate(reinterpret_cast<const id3_utf8_t*>(c.at(i + 1).c_str()));
    if (field != nullptr && field->type == ID3_FIELD_TYPE_STRINGLIST) id3_field_setstrings(field, 1, &text);
    free(text);
    id3_tag_attachframe(tag, frame);
  }
  MusicFileInfo info{};
  char sample[kId3SampleSize];
  memset(sample, 0x55, sizeof sample);
  id3_build_sample(tag, &info, sample);
  id3_tag_delete(tag);
  EXPECT_EQ(sample[kId3SampleSize - 1], '\0');
  EXPECT_EQ(std::string(sample), c.at(0));
  EXPECT_EQ(info.compilation, c.num(1));
}

std::string text_of(char** p) {
  const std::string s = *p == nullptr ? "<null>" : *p;
  free(*p);
  *p = nullptr;
  return s;
}

// The reader with a stub detector that keeps its argument and answers from a file.
std::string read_tags(const std::string& path, const std::string& type, const std::string& answer) {
  StubPath stub;
  stub.EnterDir();  // where a command run through a shell would leave its files
  stub.Program("detect_char_encode",
               "printf '%s' \"$1\" > " + stub.File("arg") + "\ncat " + stub.File("answer") + "\n");
  stub.Write("answer", answer);
  stub.Write("arg", "<not run>");
  std::optional<StubPath> no_detector;
  if (answer == "-") no_detector.emplace(/*keep_system_path=*/false);
  MusicFileInfo info{};
  info.type = strdup(type.c_str());
  have_title = have_artist = have_album = have_genre = 0;
  err_log_reset();
  err_log_set_level(9);
  FdCapture log(2);
  int rc = 0;
  const std::string out = stdout_of([&] { rc = scan_get_mp3tags(path.c_str(), &info); });
  const std::string logged = log.text();
  err_log_reset();
  EXPECT_EQ(have_title + 2 * have_artist + 4 * have_album + 8 * have_genre,
            !!info.title + 2 * !!info.artist + 4 * !!info.album + 8 * !!info.genre);
  std::string got = std::to_string(rc);
  for (char** p : {&info.title, &info.artist, &info.album, &info.genre}) got += "|" + text_of(p);
  free(info.type);
  return got + "|" + std::to_string(info.bpm) + "|" + std::to_string(info.compilation) + "|" +
         stub.Read("arg") + "|" + out + "|" + logged;
}

TABLE_TEST(Id3File, "id3_files.tsv") {
  std::string want = c.at(3);
  for (size_t i = 4; i < 13; ++i) want += "|" + c.at(i);
  check_reader(c, 0, "song.mp3", want,
               [&c](const std::string& path) { return read_tags(path, c.at(1), c.at(2)); });
}

// Each frame's identifier in order, with the first text of the text frames.
std::string frames_of(struct id3_tag* tag) {
  std::string s;
  const struct id3_frame* f;
  for (unsigned int i = 0; tag != nullptr && (f = id3_tag_findframe(tag, "", i)) != nullptr; ++i) {
    s += std::string(" ") + f->id;
    const union id3_field* field = id3_frame_field(f, 1);
    if (f->id[0] != 'T' || field == nullptr || id3_field_getnstrings(field) == 0) continue;
    UniqueChars text(reinterpret_cast<char*>(id3_ucs4_utf8duplicate(id3_field_getstrings(field, 0))));
    s += "=" + std::string(text.get());
  }
  return s;
}

long peak_rss_kib() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

// Large and sparse tags give the title, and the frames libid3tag reads from the whole file, in a
// fraction of the memory and without reading the holes.
TABLE_TEST(Id3Reduced, "id3_reduce.tsv") {
  CaseFile file(c, 1, "song.mp3");
  const long peak = peak_rss_kib();
  const std::string ours = file.answer([](const std::string& path) {
    MusicFileInfo info{};
    info.type = strdup("mp3");
    stdout_of([&] { EXPECT_EQ(scan_get_mp3tags(path.c_str(), &info), 0); });
    std::string got = text_of(&info.title) + "|";
    for (char** p : {&info.artist, &info.album, &info.genre, &info.type}) text_of(p);
    Fd fd(open(path.c_str(), O_RDONLY));
    struct id3_tag* tag = id3_read_file_tags(fd.fd);
    got += frames_of(tag);
    id3_tag_delete(tag);
    return got;
  });
  EXPECT_LT(peak_rss_kib() - peak, 32 * 1024);
  struct id3_file* whole = id3_file_open(file.path.c_str(), ID3_FILE_MODE_READONLY);
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(ours, c.at(0) + "|" + frames_of(id3_file_tag(whole)));
  id3_file_close(whole);
}

}  // namespace

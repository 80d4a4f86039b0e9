// One target per reader or parser: run() feeds it one untrusted input as the scan meets it and returns "" when
// what must hold afterwards held, else what did not. The fuzz binaries and FuzzReplay both call checked_run.
#ifndef MEDIAWALK_FUZZ_TARGETS_H_
#define MEDIAWALK_FUZZ_TARGETS_H_
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "driver/config.h"
#include "encoding/codepage.h"
#include "encoding/iconv_string.h"
#include "library/playlist.h"
#include "library/schema.h"
#include "library/sql.h"
#include "log/err_log.h"
#include "metadata/id3_tags.h"
#include "metadata/image.h"
#include "metadata/mpeg_audio.h"
#include "metadata/video.h"
#include "platform/holders.h"
#include "platform/xmldb.h"
#ifdef MEDIAWALK_DETECTOR_CORE
#include "detector_core.h"
#endif
#if defined(__SANITIZE_ADDRESS__)
#define MEDIAWALK_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MEDIAWALK_ASAN 1
#endif
#endif

namespace fuzz {
using std::string;
using std::to_string;

// Peak memory in KiB since peak_reset(): the peak resident size, or under ASan (which keeps freed blocks
// aside) the peak of the bytes allocated, seen through ASan's allocator hooks.
#ifdef MEDIAWALK_ASAN
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, size_t),
                                                        void (*)(const volatile void*));
extern "C" size_t __sanitizer_get_allocated_size(const volatile void* p);
inline std::atomic<long> live{0}, peak{0};
inline long peak_kib() { return peak / 1024; }
inline long peak_reset() {
  static const int hooked = __sanitizer_install_malloc_and_free_hooks(
      [](const volatile void*, size_t n) {
        for (long now = live += long(n), seen = peak; now > seen && !peak.compare_exchange_weak(seen, now);) {}
      },
      [](const volatile void* p) { live -= long(__sanitizer_get_allocated_size(p)); });
  return (peak = live.load() + 0 * hooked) / 1024;
}
#else
inline long peak_kib() { rusage u = {}; return getrusage(RUSAGE_SELF, &u) == 0 ? u.ru_maxrss : 0; }
inline long peak_reset() { return peak_kib(); }
#endif
inline bool terminated(const char* text, size_t cap) { return memchr(text, '\0', cap) != nullptr; }

struct Song : MusicFileInfo {  // what the walk hands the MP3 readers for the file at where
  string where;
  char name[9] = "song.mp3", ext[4] = "mp3";
  explicit Song(const string& at) : MusicFileInfo(), where(at) { path = &where[0], fname = name, type = ext; }
};

struct Target {  // with a private folder for its files, removed with it
  string dir = (std::filesystem::temp_directory_path() / "mwfuzzXXXXXX").string();
  Target() { dir = (mkdtemp(&dir[0]) ? dir : (abort(), dir)) + "/"; }
  virtual ~Target() { std::error_code e; std::filesystem::remove_all(dir, e); }
  virtual string run(const string& in) = 0;
  string put(const string& name, const string& bytes) {  // name in dir, holding the bytes
    Fd fd(open((dir + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0700));
    if (fd.fd < 0 || write(fd.fd, bytes.data(), bytes.size()) != ssize_t(bytes.size())) abort();
    return dir + name;
  }
};

// scan_get_mp3fileinfo, the debug log on (into /dev/null) so every message is formatted too.
struct Mp3FileInfo : Target {
  Mp3FileInfo() { err_log_target("/dev/null", kLogFile), err_log_set_level(9); }
  ~Mp3FileInfo() override { err_log_reset(); }
  string run(const string& in) override {
    Song i(put("song.mp3", in));
    const int r = scan_get_mp3fileinfo(i.path, &i);
    const string rate = "," + to_string(i.sample_rate) + ",";
    const bool ok = string(",0,8000,11025,12000,16000,22050,24000,32000,44100,48000,").find(rate) != string::npos;
    return ok && (r == 0 || r == -1) && i.file_size == in.size() && i.song_length >= 0 &&
                   (i.bitrate == 0 || (i.bitrate >= 8 && i.bitrate <= 448)) ? "" : "result, size, bitrate or rate" + rate;
  }
};

struct ImgSize : Target {  // get_img_size: a known type, JPEG when the file is not recognised
  string run(const string& in) override {
    ImageInfo i = {};
    snprintf(i.path, sizeof i.path, "%s", put("photo.jpg", in).c_str());
    const int r = get_img_size(&i);
    return (r == 0 && i.type == 1) || (r == 1 && i.type >= 0 && i.type <= 4) ? "" : "result or type";
  }
};

// get_video_info on the input after byte 0, whose lowest bit asks for the playing time.
struct VideoInfoTarget : Target {
  string run(const string& in) override {
    VideoInfo i = {};
    const bool duration = !in.empty() && (in[0] & 1);
    if (duration) i.duration = kDurationRequest;
    const int r = in.empty() ? -1 : get_video_info(put("clip.mpg", in.substr(1)).c_str(), &i);
    return r == -1 || (r == 0 && i.bitrate == 0 && (i.mpeg_type == 1 || i.mpeg_type == 2) && i.width >= 0 &&
                       i.height >= 0 && i.width < 4096 && i.height < 4096 && (duration ? i.duration >= 0 : !i.duration))
               ? "" : "result, bitrate, type, size or duration";
  }
};

// readconfig in its "-RC" form; the record alone on the heap, so a copy past its end is seen.
struct ReadConfig : Target {
  string run(const string& in) override {
    string path = put("upnpav.conf", in);
    char prog[] = "mediawalk", rc[] = "-RC", *argv[] = {prog, rc, &path[0], nullptr};
    std::unique_ptr<ConfigData> c(new ConfigData());
    const int r = readconfig(3, argv, c.get());
    const bool ok = terminated(c->sharepath, sizeof c->sharepath) && terminated(c->mntpath, sizeof c->mntpath) &&
                    terminated(c->sharename, sizeof c->sharename) && terminated(c->sd_status, sizeof c->sd_status);
    return ok && (r == 0 || r == -1) ? "" : "unterminated value or result " + to_string(r);
  }
};

// The "ShareFolder:" reader into a 512-byte heap buffer: untouched (no key) or a value ending in "/".
struct ShareFolder : Target {
  string run(const string& in) override {
    std::unique_ptr<char[]> d(new char[512]());
    const int r = get_sharefolder_from(put("upnpav.conf", in).c_str(), d.get());
    return r == 1 && terminated(d.get(), 512) && (!d[0] || d[strlen(d.get()) - 1] == '/') ? "" : "result or value";
  }
};

struct MntPath : Target {  // the mount path rule on the input as a device path (cut at its first zero)
  string run(const string& in) override {
    std::unique_ptr<char[]> d(new char[256]());
    const int r = get_mntpath(in.c_str(), d.get());
    const bool ok = r == 0 ? !strncmp(d.get(), "/mnt/", 5) : r == -1 && !d[0];
    return ok && terminated(d.get(), 256) ? "" : "result or path";
  }
};

// The xmldb client against a daemon thread that takes one connection, reads the request, answers with the
// input and hangs up. Byte 0: the operation (bits 0-3), hang up before reading the request (bit 7), interrupt
// the client with a caught signal before the first 4 chunks (bit 6: the scanner has handlers of its own).
// Byte 1: the reply buffer size (1 + 8 * byte). Then chunks, each a length byte and up to that many bytes
// sent at once; a zero length hangs up there. The status of an operation is the reply's bytes 8-11.
struct Xmldb : Target {
  string sock = dir + "xmldb_sock";
  Fd listen_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  struct sigaction saved_ = {}, sa = {};  // caught without SA_RESTART: a blocked call returns EINTR
  Xmldb() {
    sockaddr_un a = {AF_UNIX, {}};
    sa.sa_handler = [](int) {};
    if (snprintf(a.sun_path, sizeof a.sun_path, "%s", sock.c_str()) >= int(sizeof a.sun_path) || listen_.fd < 0 ||
        bind(listen_.fd, reinterpret_cast<sockaddr*>(&a), sizeof a) || listen(listen_.fd, 4) ||
        sigaction(SIGURG, &sa, &saved_))
      abort();
  }
  ~Xmldb() override { sigaction(SIGURG, &saved_, nullptr); }

  string run(const string& in) override {
    if (in.size() < 2) return "";
    const uint8_t op = in[0] & 0x0F, hang_up = in[0] & 0x80, interrupt = in[0] & 0x40;
    const size_t cap = 1 + 8 * size_t(uint8_t(in[1]));
    std::vector<string> chunks;
    string reply, payload;
    for (size_t at = 2; at < in.size() && in[at]; at += 1 + uint8_t(in[at]))
      reply += chunks.emplace_back(in.substr(at + 1, uint8_t(in[at])));
    uint16_t head[6] = {};  // the request as the daemon read it: action, payload length, ...
    std::thread daemon([&, client = pthread_self()] {
      pollfd p = {listen_.fd, POLLIN, 0};  // bounded, so a client that gave up leaves no thread behind
      Fd conn(poll(&p, 1, 5000) == 1 ? accept4(listen_.fd, nullptr, nullptr, SOCK_CLOEXEC) : -1);
      if (conn.fd < 0 || hang_up || recv(conn.fd, head, 12, MSG_WAITALL) != 12) return;
      payload.resize(head[1]);
      payload.resize(std::max<ssize_t>(head[1] ? recv(conn.fd, &payload[0], head[1], MSG_WAITALL) : 0, 0));
      for (size_t n = 0; n < chunks.size(); ++n) {
        if (interrupt && n < 4) usleep(1000), pthread_kill(client, SIGURG);  // once the client waits
        if (send(conn.fd, chunks[n].data(), chunks[n].size(), MSG_NOSIGNAL) <= 0) return;
      }
    });
    const char *s = sock.c_str(), *node = "/runtime/scan_media/total_file";
    const string value = reply.substr(0, reply.find('\0'));  // a set payload must stay in its bound
    string buf(cap, 'x');
    char* out_text = nullptr;
    size_t out_len = 0;
    FILE* out = open_memstream(&out_text, &out_len);
    static int (*const kActs[])(const char*, uint32_t, const char*) = {xmldbc_act3, xmldbc_act4,  xmldbc_act5,
                                                                      xmldbc_act6, xmldbc_act12, xmldbc_act13};
    const int r = op == 0 ? xmldbc_get(s, 0, node, &buf[0], cap) : op == 1 ? xmldbc_act10(s, 0, node, &buf[0], cap)
                  : op == 2 ? xmldbc_get_wb(s, 0, node, out) : op == 3 ? xmldbc_act10_wb(s, 0, node, out)
                  : op == 4 ? xmldbc_act14_wb(s, 0, node, out) : op == 5 ? xmldbc_set(s, 0, node, value.c_str())
                  : op == 6 ? xmldbc_set11(s, 0, node, value.c_str()) : kActs[std::min(op - 7, 5)](s, 0, node);
    daemon.join();
    fclose(out);
    const string got = op > 1 ? string(out_text, out_len) : buf.find('\0') != string::npos ? buf.c_str() : reply + "!";
    free(out_text);
    static const uint16_t kAction[] = {1, 10, 1, 10, 14, 2, 11, 3, 4, 5, 6, 12, 13};
    const uint16_t action = kAction[std::min(op, uint8_t(12))];
    if (head[0] && (head[0] != action || head[1] != payload.size() || strlen(payload.c_str()) + 1 != head[1] ||
                    head[1] > 511))  // a set request's text is cut to its bound
      return "request of action " + to_string(head[0]) + " with " + to_string(head[1]) + " bytes";
    if (hang_up) return r == 0 || r == -1 ? "" : "result after hang-up " + to_string(r);
    int32_t status = 0;
    memcpy(&status, (reply + string(12, '\0')).data() + 8, 4);
    if (op <= 4 ? r != 0 || reply.compare(0, got.size(), got) != 0 : r != status)
      return "result " + to_string(r) + " for status " + to_string(status) + ", or the reply is not what was sent";
    return "";
  }
};

// parser_playlist on a library of its own: songs and two playlists (list.m3u and list.pls, both the input
// after byte 0) in one folder. Bit 0 of byte 0 opens the driver's transaction first.
struct PlaylistTarget : Target {
  sqlite3* db = nullptr;
  string counts;  // of tables and rows, which the phase never changes
  string query(const string& sql) {  // the first column of the first row
    Table t;
    return !sql_table(sql.c_str(), &t) || t.rows < 1 ? "<none>" : t.at(1, 0) ? t.at(1, 0) : "<null>";
  }
  string now() { return query("select count(*) from sqlite_master;") + " " + query("select count(*) from music_tbl;"); }
  void exec(const string& sql) { sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) && (abort(), 0); }
  PlaylistTarget() {
    sqlite3* const saved = std::exchange(db_ptr, sqlite3_open((dir + "upnpav.db").c_str(), &db) ? (abort(), db) : db);
    exec("PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY; PRAGMA locking_mode=EXCLUSIVE;");
    create_schema();
    int no = 0;  // each file's row as the walk inserts it for an untagged file
    for (string f : {"a.mp3", "b.mp3", "A.MP3", "a.Mp3", "it's.mp3", "#EXTINF:1,x", "File1=c.mp3", "sub/a.mp3",
                     "list.m3u", "list.pls"}) {
      const string folder = dir + f.substr(0, f.rfind('/') + 1), ext = f.substr(f.size() - 3);
      const string name = f.substr(f.rfind('/') + 1), twice = ",'" + folder + "',\"" + name + "\"";
      no = ext == "m3u" ? 20 : ext == "pls" ? 21 : no + 1;
      exec("insert into music_tbl values ('" + to_string(no) + "'" + twice + twice + ",'" + (no >= 20 ? ext : "mp3") +
           "','2020-01-01T00:00:00','10','0','0','0','0','0','0','0','0','1','0','" +
           to_string(3000000000000ULL + no) + "','4000000000001','0','0','0');");
    }
    counts = now(), db_ptr = saved;
  }
  ~PlaylistTarget() override { sqlite3_close(db); }

  string run(const string& in) override {
    if (in.empty()) return "";
    put("list.m3u", in.substr(1)), put("list.pls", in.substr(1));
    sqlite3* const saved = std::exchange(db_ptr, db);
    exec(string("update music_tbl set PlsFile = 'unset' where No >= 20;") + (in[0] & 1 ? "BEGIN;" : ""));
    const int r = parser_playlist();
    exec(sqlite3_get_autocommit(db) ? "" : "COMMIT;");
    string failed = r != 1 || now() != counts ? "result " + to_string(r) + ", or tables or rows changed" : "";
    // A line that closes the quoted name may widen the look-up (it goes into the statement as it is), but
    // it can only ever name rows that exist.
    for (const char* no : {"20", "21"}) {
      const string list = query("select PlsFile from music_tbl where No == '" + string(no) + "';");
      for (size_t at = 0, comma, entries = 0; at < list.size(); at = std::max(at, comma + 1), ++entries) {
        const int song = atoi(list.c_str() + at);
        comma = list.find(',', at);
        if (comma == string::npos || comma == at || list.find_first_not_of("0123456789", at) != comma || song < 1 ||
            (song > 8 && song != 20 && song != 21) || entries >= 256)
          failed = "PlsFile [" + list + "]", at = list.size();
      }
    }
    db_ptr = saved;
    return failed;
  }
};

// scan_get_mp3tags on the input after byte 0, which picks what the charset detector (a stand-in on PATH)
// answers: each answer the reader maps and some it does not. A tag is held in memory with what its frames
// inflate to up to the reader's bound, never more; the texts are terminated, the genre one of the table.
struct Mp3Tags : Target {
  std::unique_ptr<string> old_path{getenv("PATH") ? new string(getenv("PATH")) : nullptr};
  Mp3Tags() {
    put("detect_char_encode", "#!/bin/sh\nexec cat '" + dir + "answer'\n");
    setenv("PATH", (dir + ":/usr/bin:/bin").c_str(), 1);  // the stub's cat is found behind it
  }
  ~Mp3Tags() override { old_path ? setenv("PATH", old_path->c_str(), 1) : unsetenv("PATH"); }
  string run(const string& in) override {
    static const char* const kAnswers[] = {"", "windows-1251", "IBM866", "x-mac-cyrillic", "windows-1252", "KOI8-R",
                                           "gb18030", "Big5", "IBM855", "x-euc-tw", "ISO-8859-7", "KOI8-R\n", "UTF-8",
                                           "EUC-KR", "SHIFT_JIS", "a-very-long-answer-past-the-read-limit"};
    if (in.empty()) return "";
    put("answer", kAnswers[uint8_t(in[0]) % 16]);
    Song i(put("song.mp3", in.substr(1)));
    const long start = peak_reset();
    const int r = scan_get_mp3tags(i.path, &i);
    const long grown = peak_kib() - start;
    bool genre_ok = i.genre == nullptr;
    for (int n = 0; n <= 148; ++n) genre_ok |= i.genre && !strcmp(i.genre, id3_genre_name(n));
    size_t total = 0;
    for (char* t : {i.title, i.artist, i.album, i.genre}) total += t ? strlen(t) : 0, free(t);
    return (r == 0 || r == -1) && grown <= 32 * 1024 && genre_ok && i.compilation <= 1 && total != size_t(-1)
               ? "" : "result, genre, compilation, or peak memory grew by " + to_string(grown) + " KiB";
  }
};

// iconv_string. Byte 0 picks the source charset: the autodetect names, the charsets their lists try, a few
// more (also names no iconv knows). Byte 1: bit 0 converts the terminating zero along, as callers do; bit 1
// passes a null resultp; bit 2 hands in a buffer to be reallocated; bits 3-4 pick the target; bit 5 makes a
// second call with the source byte 2 picks, after the family flags the first left. The rest is the text. A
// real charset measures again to the length it converted to, every byte of it readable.
struct IconvString : Target {
  string run(const string& in) override {
    static const char* const kFrom[] = {
        "autodetect_utf8", "autodetect_BIG5", "autodetect_GB", "autodetect_jp", "autodetect_kr", "UTF-8", "ISO-8859-1",
        "BIG5", "CP950", "BIG5-HKSCS", "EUC-TW", "EUC-CN", "GBK", "HZ", "ISO-2022-CN", "ISO-2022-CN-EXT", "GB18030",
        "ISO-2022-JP-2", "EUC-JP", "CP932", "ISO-2022-JP", "ISO-2022-JP-1", "SHIFT_JIS", "ISO-2022-KR", "CP949",
        "JOHAB", "EUC-KR", "KOI8-R", "CP1251", "CP1252", "UTF-16", "UTF-7", "UCS-4", "autodetect_JP", "autodetect_xx",
        ""};
    if (in.size() < 3) return "";
    const uint8_t opts = in[1];
    const char *to = std::vector<const char*>{"UTF-8", "UTF-16LE", "ISO-8859-1", "ASCII"}[(opts >> 3) & 3];
    const char *start = in.c_str() + 3, *end = in.c_str() + in.size() + (opts & 1);
    iconv_reset_family_tried();
    for (int call = 0; call < ((opts & 0x20) ? 2 : 1); ++call) {
      const char* from = kFrom[uint8_t(in[2 * call]) % (sizeof kFrom / sizeof *kFrom)];
      char *result = (opts & 4) ? strdup("before") : nullptr, *const before = result;
      errno = 0;
      const int r = iconv_string(to, from, start, end, (opts & 2) ? nullptr : &result), err = errno;
      size_t len = 0, sum = 0;
      const bool again = r == 0 && !(opts & 2) && strncmp(from, "autodetect_", 11);
      const bool same = !again || iconv_string_n(to, from, start, end, nullptr, &len) == 0;
      for (size_t n = 0; again && same && n < len; ++n) sum += uint8_t(result[n]);
      free((opts & 2) ? before : result);  // the caller's, also after a failed converting pass
      if ((r != 0 && r != -1) || (r == -1 && err == 0) || !same || sum == size_t(-1))
        return string(from) + ": result " + to_string(r) + ", errno " + to_string(err) + ", measured again " +
               to_string(same);
    }
    return "";
  }
};

struct CodePage : Target {  // CodePageType_from: a number of the table, and a terminated name
  string run(const string& in) override {
    memset(from_codepage, 'x', sizeof from_codepage);
    const int r = CodePageType_from(put("codepage", in).c_str());
    return r >= 1 && r <= 7 && terminated(from_codepage, sizeof from_codepage) ? "" : "codepage " + to_string(r);
  }
};

#ifdef MEDIAWALK_DETECTOR_CORE
// The charset detector on the input after byte 0 (up to a zero byte, as an argument ends) under the
// language setting byte 0 picks: a printable answer, the same when asked again.
struct Detector : Target {
  std::vector<std::unique_ptr<CharsetDetector>> detectors;
  Detector() {
    for (const char* setting : {"cp936", "cp950", "cp932", "cp949", "cp850", "none"})
      detectors.emplace_back(new CharsetDetector(put("codepage", setting).c_str()));
  }
  string run(const string& in) override {
    if (in.empty()) return "";
    CharsetDetector& detector = *detectors[uint8_t(in[0]) % 6];
    const long start = peak_reset();
    const string answer = detector.detect(in.c_str() + 1);
    const long grown = peak_kib() - start;
    const bool printable = std::all_of(answer.begin(), answer.end(), [](char c) { return c > ' ' && c <= '~'; });
    return grown <= 8 * 1024 && printable && detector.detect(in.c_str() + 1) == answer
               ? "" : "answer [" + answer + "], or peak memory grew by " + to_string(grown) + " KiB";
  }
};
#endif

// The targets by the name of their fuzz binary, seed folder and regression folder.
template <class T>
std::unique_ptr<Target> make() {
  return std::make_unique<T>();
}
using Entry = std::pair<const char*, std::unique_ptr<Target> (*)()>;
inline const std::vector<Entry> kTargets = {
    {"mp3fileinfo", make<Mp3FileInfo>}, {"img_size", make<ImgSize>},       {"video_info", make<VideoInfoTarget>},
    {"readconfig", make<ReadConfig>},   {"sharefolder", make<ShareFolder>}, {"mntpath", make<MntPath>},
    {"xmldb", make<Xmldb>},             {"playlist", make<PlaylistTarget>}, {"mp3tags", make<Mp3Tags>},
    {"iconv_string", make<IconvString>}, {"codepage", make<CodePage>},
#ifdef MEDIAWALK_DETECTOR_CORE
    {"detector", make<Detector>},
#endif
};

// run() and the check every target shares: no descriptor (or FILE) left open.
inline string checked_run(Target& target, const uint8_t* data, size_t size) {
  const auto lowest_free_fd = [] { return Fd(open("/dev/null", O_RDONLY | O_CLOEXEC)).fd; };
  const int fd = lowest_free_fd();
  const string failed = target.run(string(reinterpret_cast<const char*>(data), size));
  return failed.empty() && lowest_free_fd() != fd ? "descriptor left open" : failed;
}

}  // namespace fuzz
#endif  // MEDIAWALK_FUZZ_TARGETS_H_

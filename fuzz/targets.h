// One class per reader or parser: feeds it one untrusted input the way the
// scan would meet it (a file in the share, a configuration file, a playlist,
// a daemon's reply) and checks what must hold afterwards whatever the input.
// The libFuzzer targets (fuzz/*_fuzz.cc) and the regression replay of the unit
// tests (tests/fuzz_regress_test.cc) run the same code.
#ifndef MEDIAWALK_FUZZ_TARGETS_H_
#define MEDIAWALK_FUZZ_TARGETS_H_

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"
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

namespace fuzz {

class Target {
 public:
  virtual ~Target() = default;
  // Runs the routine on one input. Returns "" when everything that must hold
  // afterwards held, else what did not.
  virtual std::string run(const uint8_t* data, size_t size) = 0;
};

// scan_get_mp3fileinfo on a file holding the input, with the debug log on
// (into /dev/null) so that every message's arguments are formatted too.
class Mp3FileInfo : public Target {
 public:
  Mp3FileInfo() {
    err_log_target("/dev/null", kLogFile);
    err_log_set_level(9);
  }
  ~Mp3FileInfo() override { err_log_reset(); }

  std::string run(const uint8_t* data, size_t size) override {
    in_.write(data, size);
    std::string path = in_.path();
    char fname[] = "song.mp3";
    char type[] = "mp3";
    MusicFileInfo info = {};
    info.path = &path[0];
    info.fname = fname;
    info.type = type;
    const int fd = lowest_free_fd();
    const int r = scan_get_mp3fileinfo(path.c_str(), &info);
    if (lowest_free_fd() != fd) return "descriptor left open";
    if (r != 0 && r != -1) return format("result %d", r);
    if (info.file_size != static_cast<uint32_t>(size)) return format("file size %u of %zu", info.file_size, size);
    static const int32_t kRates[] = {0, 8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};
    bool rate_ok = false;
    for (int32_t rate : kRates) rate_ok = rate_ok || info.sample_rate == rate;
    if (!rate_ok) return format("sample rate %d", info.sample_rate);
    if (info.bitrate != 0 && (info.bitrate < 8 || info.bitrate > 448)) return format("bitrate %d", info.bitrate);
    if (info.song_length < 0) return format("song length %d", info.song_length);
    return "";
  }

 private:
  ScratchDir dir_;
  InputFile in_{&dir_, "song.mp3"};
};

// get_img_size on a file holding the input.
class ImgSize : public Target {
 public:
  std::string run(const uint8_t* data, size_t size) override {
    in_.write(data, size);
    ImageInfo info = {};
    snprintf(info.path, sizeof info.path, "%s", in_.path());
    const int fd = lowest_free_fd();
    const int r = get_img_size(&info);
    if (lowest_free_fd() != fd) return "descriptor left open";
    if (r != 0 && r != 1) return format("result %d", r);
    if (info.type < 0 || info.type > 4) return format("type %d", info.type);
    if (r == 0 && info.type != 1) return format("unrecognised file with type %d", info.type);
    return "";
  }

 private:
  ScratchDir dir_;
  InputFile in_{&dir_, "photo.jpg"};
};

// get_video_info on a file holding the input after its first byte, whose
// lowest bit asks for the playing time.
class VideoInfoTarget : public Target {
 public:
  std::string run(const uint8_t* data, size_t size) override {
    if (size < 1) return "";
    const bool duration = data[0] & 1;
    in_.write(data + 1, size - 1);
    VideoInfo info = {};
    if (duration) info.duration = kDurationRequest;
    const int fd = lowest_free_fd();
    const int r = get_video_info(in_.path(), &info);
    if (lowest_free_fd() != fd) return "descriptor left open";
    if (r != 0 && r != -1) return format("result %d", r);
    if (r != 0) return "";
    if (info.bitrate != 0) return format("bitrate %d", info.bitrate);
    if (info.mpeg_type != 1 && info.mpeg_type != 2) return format("mpeg type %d", info.mpeg_type);
    if (info.width < 0 || info.width > 4095 || info.height < 0 || info.height > 4095)
      return format("size %dx%d", info.width, info.height);
    if (duration ? info.duration < 0 : info.duration != 0) return format("duration %d", info.duration);
    return "";
  }

 private:
  ScratchDir dir_;
  InputFile in_{&dir_, "clip.mpg"};
};

// readconfig in its "-RC" form on a file holding the input. The record sits
// alone on the heap so that a copy past its end is seen.
class ReadConfig : public Target {
 public:
  std::string run(const uint8_t* data, size_t size) override {
    in_.write(data, size);
    std::string path = in_.path();
    char prog[] = "mediawalk";
    char rc[] = "-RC";
    char* argv[] = {prog, rc, &path[0], nullptr};
    std::unique_ptr<ConfigData> cd(new ConfigData());
    const int fd = lowest_free_fd();
    const int r = readconfig(3, argv, cd.get());
    if (lowest_free_fd() != fd) return "descriptor left open";
    if (r != 0 && r != -1) return format("result %d", r);
    if (!terminated(cd->sharepath, sizeof cd->sharepath)) return "sharepath unterminated";
    if (!terminated(cd->sharename, sizeof cd->sharename)) return "sharename unterminated";
    if (!terminated(cd->mntpath, sizeof cd->mntpath)) return "mntpath unterminated";
    if (!terminated(cd->sd_status, sizeof cd->sd_status)) return "sd_status unterminated";
    return "";
  }

 private:
  ScratchDir dir_;
  InputFile in_{&dir_, "upnpav.conf"};
};

// The "ShareFolder:" reader on a file holding the input, into a 512-byte
// heap buffer of its own.
class ShareFolder : public Target {
 public:
  std::string run(const uint8_t* data, size_t size) override {
    in_.write(data, size);
    std::unique_ptr<char[]> dest(new char[512]());
    const int fd = lowest_free_fd();
    const int r = get_sharefolder_from(in_.path(), dest.get());
    if (lowest_free_fd() != fd) return "descriptor left open";
    if (r != 1) return format("result %d", r);
    if (!terminated(dest.get(), 512)) return "unterminated";
    const size_t len = strlen(dest.get());
    // Untouched (no key) or a value that ends in "/".
    if (len > 0 && dest[len - 1] != '/') return "no trailing slash";
    return "";
  }

 private:
  ScratchDir dir_;
  InputFile in_{&dir_, "upnpav.conf"};
};

// The mount path rule on the input as a device path (cut at its first zero).
class MntPath : public Target {
 public:
  std::string run(const uint8_t* data, size_t size) override {
    const std::string device(reinterpret_cast<const char*>(data), size);
    std::unique_ptr<char[]> dest(new char[256]());
    const int r = get_mntpath(device.c_str(), dest.get());
    if (r != 0 && r != -1) return format("result %d", r);
    if (!terminated(dest.get(), 256)) return "unterminated";
    if (r == 0 && strncmp(dest.get(), "/mnt/", 5) != 0) return "not under /mnt/";
    if (r == -1 && dest[0] != '\0') return "written on failure";
    return "";
  }
};

// The xmldb client against a daemon that answers with the input: a thread of
// this process accepts one connection on a UNIX socket, reads the request and
// writes the reply in chunks the input chooses, then hangs up.
//
// Input: byte 0 picks the operation (low 4 bits), whether the daemon hangs
// up before reading the request (bit 7), and whether it interrupts the
// client with a caught signal while the client waits, before the first and
// the next few chunks (bit 6: the scanner has handlers of its own); byte 1 the reply buffer size of the
// buffer readers (1 + 8 * byte); then chunks, each a length byte and up to
// that many reply bytes, sent one send() each. A zero length hangs up there.
class Xmldb : public Target {
 public:
  Xmldb() {
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    if (sock_.size() >= sizeof addr.sun_path) {
      fprintf(stderr, "socket path too long: %s\n", sock_.c_str());
      abort();
    }
    memcpy(addr.sun_path, sock_.c_str(), sock_.size());
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listen_fd_, 4) != 0) {
      perror(sock_.c_str());
      abort();
    }
    // Caught, and without SA_RESTART, so that a blocked call returns EINTR.
    struct sigaction sa = {};
    sa.sa_handler = [](int) {};
    sigemptyset(&sa.sa_mask);
    sigaction(kInterrupt, &sa, &saved_action_);
  }
  ~Xmldb() override {
    sigaction(kInterrupt, &saved_action_, nullptr);
    close(listen_fd_);
  }

  std::string run(const uint8_t* data, size_t size) override {
    if (size < 2) return "";
    const int op = data[0] & 0x0F;
    const bool hang_up_first = data[0] & 0x80;
    const bool interrupt = data[0] & 0x40;
    const size_t buf_size = 1 + 8 * static_cast<size_t>(data[1]);
    std::vector<std::string> chunks;
    for (size_t at = 2; at < size;) {
      const size_t len = data[at++];
      if (len == 0) break;
      const size_t take = len < size - at ? len : size - at;
      chunks.emplace_back(reinterpret_cast<const char*>(data + at), take);
      at += take;
    }
    std::string reply;
    for (const std::string& c : chunks) reply += c;

    Request req;
    const pthread_t client = pthread_self();
    std::thread daemon([&] { serve(chunks, hang_up_first, interrupt ? &client : nullptr, &req); });
    const char* sock = sock_.c_str();
    const char* node = "/runtime/scan_media/total_file";
    // A value the daemon chose: the set payload must stay within its bound.
    const std::string value = reply.substr(0, reply.find('\0'));
    std::unique_ptr<char[]> buf(new char[buf_size]);
    memset(buf.get(), 'x', buf_size);
    char* out_text = nullptr;
    size_t out_len = 0;
    FILE* out = open_memstream(&out_text, &out_len);
    int r = 0;
    uint16_t action = 0;
    enum { kStatus, kBuffer, kStream } kind = kStatus;
    switch (op) {
      case 0: r = xmldbc_get(sock, 0, node, buf.get(), buf_size), action = 1, kind = kBuffer; break;
      case 1: r = xmldbc_act10(sock, 0, node, buf.get(), buf_size), action = 10, kind = kBuffer; break;
      case 2: r = xmldbc_get_wb(sock, 0, node, out), action = 1, kind = kStream; break;
      case 3: r = xmldbc_act10_wb(sock, 0, node, out), action = 10, kind = kStream; break;
      case 4: r = xmldbc_act14_wb(sock, 0, node, out), action = 14, kind = kStream; break;
      case 5: r = xmldbc_set(sock, 0, node, value.c_str()), action = 2; break;
      case 6: r = xmldbc_set11(sock, 0, node, value.c_str()), action = 11; break;
      case 7: r = xmldbc_act3(sock, 0, node), action = 3; break;
      case 8: r = xmldbc_act4(sock, 0, node), action = 4; break;
      case 9: r = xmldbc_act5(sock, 0, node), action = 5; break;
      case 10: r = xmldbc_act6(sock, 0, node), action = 6; break;
      case 11: r = xmldbc_act12(sock, 0, node), action = 12; break;
      default: r = xmldbc_act13(sock, 0, node), action = 13; break;
    }
    daemon.join();
    fclose(out);
    const std::string written(out_text, out_len);
    free(out_text);

    if (req.seen) {
      if (req.action != action) return format("action %u for %u", req.action, action);
      if (req.length != req.payload.size() || req.payload.empty() || req.payload.back() != '\0' ||
          strlen(req.payload.c_str()) + 1 != req.length)
        return format("payload length %u for %zu payload bytes", req.length, req.payload.size());
      if ((action == 2 || action == 11) && req.length > 511) return format("set payload of %u bytes", req.length);
    }
    if (hang_up_first) return r == 0 || r == -1 ? "" : format("result %d after hang-up", r);
    switch (kind) {
      case kBuffer: {
        if (r != 0) return format("result %d", r);
        if (!terminated(buf.get(), buf_size)) return "reply buffer unterminated";
        const size_t len = strlen(buf.get());
        if (len > reply.size() || memcmp(buf.get(), reply.data(), len) != 0) return "reply buffer is not the reply";
        break;
      }
      case kStream:
        if (r != 0) return format("result %d", r);
        if (written.size() > reply.size() || memcmp(written.data(), reply.data(), written.size()) != 0)
          return "copied reply is not the reply";
        break;
      case kStatus: {
        uint8_t head[12] = {};
        memcpy(head, reply.data(), reply.size() < 12 ? reply.size() : 12);
        int32_t status;
        memcpy(&status, head + 8, sizeof status);
        if (r != status) return format("status %d for %d", r, status);
        break;
      }
    }
    return "";
  }

 private:
  struct Request {
    bool seen = false;
    uint16_t action = 0, length = 0;
    std::string payload;
  };

  void serve(const std::vector<std::string>& chunks, bool hang_up_first, const pthread_t* client, Request* req) {
    // The client always connects; the wait is bounded all the same, so a
    // client that gave up early cannot leave this thread behind.
    pollfd p = {listen_fd_, POLLIN, 0};
    if (poll(&p, 1, 5000) != 1) return;
    Fd conn(accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC));
    if (conn.fd < 0 || hang_up_first) return;
    uint8_t head[12];
    if (recv(conn.fd, head, sizeof head, MSG_WAITALL) != static_cast<ssize_t>(sizeof head)) return;
    memcpy(&req->action, head, 2);
    memcpy(&req->length, head + 2, 2);
    req->payload.resize(req->length);
    const ssize_t got = req->length ? recv(conn.fd, &req->payload[0], req->length, MSG_WAITALL) : 0;
    req->payload.resize(got > 0 ? static_cast<size_t>(got) : 0);
    req->seen = true;
    int interrupts = client ? 4 : 0;
    for (const std::string& c : chunks) {
      if (interrupts-- > 0) {
        usleep(1000);  // long enough for the client to block on the reply
        pthread_kill(*client, kInterrupt);
      }
      if (send(conn.fd, c.data(), c.size(), MSG_NOSIGNAL) <= 0) return;
    }
  }

  static constexpr int kInterrupt = SIGURG;

  ScratchDir dir_;
  std::string sock_ = dir_.file("xmldb_sock");
  int listen_fd_ = -1;
  struct sigaction saved_action_ = {};
};

// parser_playlist on a library database of its own: songs and two playlist
// rows (list.m3u and list.pls, both holding the input after its first byte)
// in one folder. Bit 0 of byte 0 opens the driver's transaction first.
class PlaylistTarget : public Target {
 public:
  PlaylistTarget() {
    if (sqlite3_open(db_path_.c_str(), &db_) != SQLITE_OK) abort();
    Use use(db_);
    exec("PRAGMA synchronous=OFF;");
    exec("PRAGMA journal_mode=MEMORY;");
    exec("PRAGMA locking_mode=EXCLUSIVE;");
    create_schema();
    const char* const songs[] = {"a.mp3", "b.mp3", "A.MP3", "a.Mp3", "it's.mp3", "#EXTINF:1,x", "File1=c.mp3"};
    int no = 1;
    for (const char* name : songs) row(no++, dir_.path().c_str(), name, "mp3");
    row(no++, (dir_.path() + "sub/").c_str(), "a.mp3", "mp3");
    row(kM3uNo, dir_.path().c_str(), "list.m3u", "m3u");
    row(kPlsNo, dir_.path().c_str(), "list.pls", "pls");
    tables_ = count("select count(*) from sqlite_master;");
    rows_ = count("select count(*) from music_tbl;");
  }
  ~PlaylistTarget() override {
    sqlite3_close(db_);
    unlink((db_path_ + "-journal").c_str());
  }

  std::string run(const uint8_t* data, size_t size) override {
    if (size < 1) return "";
    m3u_.write(data + 1, size - 1);
    pls_.write(data + 1, size - 1);
    Use use(db_);
    exec("update music_tbl set PlsFile = 'unset' where EXT_fname == 'm3u' or EXT_fname == 'pls';");
    if (data[0] & 1) exec("BEGIN;");
    const int fd = lowest_free_fd();
    const int r = parser_playlist();
    if (lowest_free_fd() != fd) return "descriptor left open";
    if (!sqlite3_get_autocommit(db_)) exec("COMMIT;");
    if (r != 1) return format("result %d", r);
    if (count("select count(*) from sqlite_master;") != tables_) return "schema changed";
    if (count("select count(*) from music_tbl;") != rows_) return "music rows added or lost";
    for (int no : {kM3uNo, kPlsNo}) {
      const std::string list = text(format("select PlsFile from music_tbl where No == '%d';", no));
      int entries = 0;
      for (size_t at = 0; at < list.size(); ++entries) {
        const size_t comma = list.find(',', at);
        if (comma == std::string::npos || comma == at) return format("PlsFile of %d is [%s]", no, list.c_str());
        const int song = atoi(list.substr(at, comma - at).c_str());
        // A line that closes the quoted name may widen the look-up to other
        // rows (the line goes into the statement as it is), but it can only
        // ever name a row that exists.
        if (list.find_first_not_of("0123456789", at) != comma || !((song >= 1 && song <= 8) || song == kM3uNo || song == kPlsNo))
          return format("PlsFile of %d names [%s]", no, list.c_str());
        at = comma + 1;
      }
      if (entries > 256) return format("PlsFile of %d lists %d songs", no, entries);
    }
    return "";
  }

 private:
  static constexpr int kM3uNo = 20;
  static constexpr int kPlsNo = 21;

  // db_ptr is the process-wide handle the phase uses; it points here while
  // this target works and goes back to what it was afterwards.
  struct Use {
    sqlite3* saved;
    explicit Use(sqlite3* db) : saved(db_ptr) { db_ptr = db; }
    ~Use() { db_ptr = saved; }
  };

  void exec(const char* sql) {
    if (!sql_exec(sql)) {
      fprintf(stderr, "%s: %s\n", sql, zErrMsg);
      abort();
    }
  }
  void exec(const std::string& sql) { exec(sql.c_str()); }

  // One row in the shape the walk inserts for an untagged file.
  void row(int no, const char* folder, const char* name, const char* ext) {
    exec(format("insert into music_tbl values (\"%d\",\"%s\",\"%s\",\"%s\",\"%s\",\"%s\",\"2020-01-01T00:00:00\","
                "\"10\",\"0\",\"0\",\"0\",\"0\",\"0\",\"0\",\"0\",\"0\",\"1\",\"0\",\"%llu\",\"4000000000001\","
                "\"0\",\"0\",\"0\");",
                no, folder, name, folder, name, ext, 3000000000000ULL + no));
  }

  std::string text(const std::string& sql) {
    Table t;
    if (!sql_table(sql.c_str(), &t) || t.rows < 1) return "<none>";
    return t.at(1, 0) ? t.at(1, 0) : "<null>";
  }
  int count(const char* sql) { return atoi(text(sql).c_str()); }

  ScratchDir dir_;
  InputFile m3u_{&dir_, "list.m3u"};
  InputFile pls_{&dir_, "list.pls"};
  std::string db_path_ = dir_.file("upnpav.db");
  sqlite3* db_ = nullptr;
  int tables_ = 0;
  int rows_ = 0;
};

// scan_get_mp3tags on a file holding the input after its first byte. The
// charset detector is a stand-in on PATH that answers what byte 0 picks
// (every answer the reader maps, and some it does not), so that every
// conversion route is reached; its start is part of every input's cost.
class Mp3Tags : public Target {
 public:
  Mp3Tags() {
    const std::string script = dir_.file("detect_char_encode");
    const std::string body = "#!/bin/sh\nexec cat '" + std::string(answer_.path()) + "'\n";
    FILE* f = fopen(script.c_str(), "w");
    if (f == nullptr || fputs(body.c_str(), f) < 0 || fclose(f) != 0 || chmod(script.c_str(), 0755) != 0) abort();
    const char* old = getenv("PATH");
    had_path_ = old != nullptr;
    if (had_path_) old_path_ = old;
    // The script's cat is found through the system folders behind it.
    setenv("PATH", (dir_.path() + ":/usr/bin:/bin").c_str(), 1);
  }
  ~Mp3Tags() override {
    if (had_path_)
      setenv("PATH", old_path_.c_str(), 1);
    else
      unsetenv("PATH");
  }

  std::string run(const uint8_t* data, size_t size) override {
    if (size < 1) return "";
    static const char* const kAnswers[] = {
        "",       "windows-1251", "IBM866",     "x-mac-cyrillic", "windows-1252", "KOI8-R",     "gb18030",
        "Big5",   "IBM855",       "x-euc-tw",   "ISO-8859-7",     "KOI8-R\n",     "UTF-8",      "EUC-KR",
        "SHIFT_JIS", "a-very-long-answer-past-the-read-limit"};
    const char* answer = kAnswers[data[0] % (sizeof kAnswers / sizeof kAnswers[0])];
    answer_.write(reinterpret_cast<const uint8_t*>(answer), strlen(answer));
    in_.write(data + 1, size - 1);
    std::string path = in_.path();
    char fname[] = "song.mp3";
    char type[] = "mp3";
    MusicFileInfo info = {};
    info.path = &path[0];
    info.fname = fname;
    info.type = type;
    const int fd = lowest_free_fd();
    const PeakGrowth growth;
    const int r = scan_get_mp3tags(path.c_str(), &info);
    const long grown = growth.kib();
    const int fd_after = lowest_free_fd();
    std::string failed;
    if (fd_after != fd) failed = "descriptor left open";
    // A tag is held in memory, with what its frames inflate to up to the
    // reader's bound, never more.
    if (grown > 32 * 1024) failed = format("peak memory grew by %ld KiB", grown);
    if (r != 0 && r != -1) failed = format("result %d", r);
    // Every text the reader set is a terminated heap string (ASan checks the
    // reads); the genre is a name of the genre table.
    size_t total = 0;
    for (char* text : {info.title, info.artist, info.album, info.genre}) total += text ? strlen(text) : 0;
    volatile size_t keep = total;  // the reads above must happen
    (void)keep;
    if (info.genre != nullptr) {
      bool known = false;
      for (int n = 0; n <= 148 && !known; ++n) known = strcmp(info.genre, id3_genre_name(n)) == 0;
      if (!known) failed = format("genre [%s]", info.genre);
    }
    if (info.compilation > 1) failed = format("compilation %u", info.compilation);
    for (char* text : {info.title, info.artist, info.album, info.genre}) free(text);
    return failed;
  }

 private:
  ScratchDir dir_;
  InputFile in_{&dir_, "song.mp3"};
  InputFile answer_{&dir_, "answer"};
  bool had_path_ = false;
  std::string old_path_;
};

// iconv_string over every source name it accepts. Byte 0 picks the source
// charset: the five autodetect names, the charsets their lists try, and a few
// more (also names no iconv knows). Byte 1: bit 0 converts the input's
// terminating zero along, as the callers do; bit 1 passes a null resultp;
// bit 2 hands in an existing buffer to be reallocated; bits 3-4 pick the
// target; bit 5 makes a second call with the source byte 2 picks, after
// whatever family flags the first call left. The rest is the text.
class IconvString : public Target {
 public:
  std::string run(const uint8_t* data, size_t size) override {
    if (size < 3) return "";
    static const char* const kSources[] = {
        "autodetect_utf8", "autodetect_BIG5", "autodetect_GB", "autodetect_jp", "autodetect_kr",
        "UTF-8", "ISO-8859-1", "BIG5", "CP950", "BIG5-HKSCS", "EUC-TW", "EUC-CN", "GBK", "HZ",
        "ISO-2022-CN", "ISO-2022-CN-EXT", "GB18030", "ISO-2022-JP-2", "EUC-JP", "CP932", "ISO-2022-JP",
        "ISO-2022-JP-1", "SHIFT_JIS", "ISO-2022-KR", "CP949", "JOHAB", "EUC-KR", "KOI8-R", "CP1251",
        "CP1252", "UTF-16", "UTF-7", "UCS-4", "autodetect_JP", "autodetect_xx", ""};
    static const char* const kTargets[] = {"UTF-8", "UTF-16LE", "ISO-8859-1", "ASCII"};
    constexpr size_t kSourceCount = sizeof kSources / sizeof kSources[0];
    const uint8_t opts = data[1];
    const char* to = kTargets[(opts >> 3) & 3];
    // The text with a terminator behind it; whether it is converted along is
    // the input's choice.
    const std::string text(reinterpret_cast<const char*>(data + 3), size - 3);
    const char* start = text.c_str();
    const char* end = start + text.size() + ((opts & 1) ? 1 : 0);

    iconv_reset_family_tried();
    std::string failed = convert_once(to, kSources[data[0] % kSourceCount], start, end, opts);
    if (failed.empty() && (opts & 0x20))
      failed = convert_once(to, kSources[data[2] % kSourceCount], start, end, opts);
    return failed;
  }

 private:
  static std::string convert_once(const char* to, const char* from, const char* start, const char* end,
                                  uint8_t opts) {
    const bool measure_only = opts & 2;
    char* result = (opts & 4) ? static_cast<char*>(malloc(7)) : nullptr;
    if (result) memcpy(result, "before", 7);
    char* const before = result;
    errno = 0;
    const int r = iconv_string(to, from, start, end, measure_only ? nullptr : &result);
    const int err = errno;
    std::string failed;
    if (r != 0 && r != -1) failed = format("%s: result %d", from, r);
    if (r == -1 && err == 0) failed = format("%s: failure without errno", from);
    if (r == 0 && !measure_only && strncmp(from, "autodetect_", 11) != 0) {
      // A real charset converts the same way again: its measured length must
      // be what was allocated, and every byte of it readable.
      size_t len = 0;
      if (iconv_string_n(to, from, start, end, nullptr, &len) != 0) {
        failed = format("%s: measuring again failed", from);
      } else if (len > 0) {
        unsigned sum = 0;
        for (size_t i = 0; i < len; ++i) sum += static_cast<unsigned char>(result[i]);
        if (sum == 0xFFFFFFFFu) failed = "unreachable";  // keeps the reads
      }
    }
    // The caller owns whatever its pointer holds afterwards, also after a
    // failure in the converting pass.
    free(measure_only ? before : result);
    return failed;
  }
};

// CodePageType_from on a file holding the input.
class CodePage : public Target {
 public:
  std::string run(const uint8_t* data, size_t size) override {
    in_.write(data, size);
    memset(from_codepage, 'x', sizeof from_codepage);
    const int fd = lowest_free_fd();
    const int r = CodePageType_from(in_.path());
    if (lowest_free_fd() != fd) return "descriptor left open";
    static const char* const kNames[] = {nullptr,         "autodetect_BIG5", "autodetect_GB", "autodetect_jp",
                                         "autodetect_kr", "autodetect_utf8", "KOI8-R",        "ISO-8859-1"};
    if (r < 1 || r > 7) return format("codepage %d", r);
    if (!terminated(from_codepage, sizeof from_codepage)) return "from_codepage unterminated";
    if (strcmp(from_codepage, kNames[r]) != 0) return format("codepage %d with [%s]", r, from_codepage);
    return "";
  }

 private:
  ScratchDir dir_;
  InputFile in_{&dir_, "codepage"};
};

#ifdef MEDIAWALK_DETECTOR_CORE
// The charset detector on the input after its first byte (up to a zero byte,
// as an argument would end), under the language setting that byte picks.
class Detector : public Target {
 public:
  Detector() {
    for (const char* setting : {"cp936", "cp950", "cp932", "cp949", "cp850", "none"}) {
      in_.write(reinterpret_cast<const uint8_t*>(setting), strlen(setting));
      detectors_.emplace_back(new CharsetDetector(in_.path()));
    }
  }
  std::string run(const uint8_t* data, size_t size) override {
    if (size < 1) return "";
    CharsetDetector& detector = *detectors_[data[0] % detectors_.size()];
    const std::string sample(reinterpret_cast<const char*>(data + 1), size - 1);
    const long peak = peak_rss_kib();
    const std::string answer = detector.detect(sample.c_str());
    if (peak_rss_kib() - peak > 8 * 1024) return format("peak memory grew by %ld KiB", peak_rss_kib() - peak);
    for (char c : answer)
      if (c <= ' ' || c > '~') return "answer with byte " + std::to_string(static_cast<unsigned char>(c));
    // The state is reset between samples: asked again, it answers the same.
    if (detector.detect(sample.c_str()) != answer) return "second answer differs";
    return "";
  }

 private:
  ScratchDir dir_;
  InputFile in_{&dir_, "codepage"};
  std::vector<std::unique_ptr<CharsetDetector>> detectors_;
};
#endif

// The targets by name, as the fuzz binaries, the seed folders and the
// regression folders are named.
struct Entry {
  const char* name;
  std::unique_ptr<Target> (*make)();
};

template <class T>
std::unique_ptr<Target> make() {
  return std::unique_ptr<Target>(new T());
}

inline const std::vector<Entry>& all_targets() {
  static const std::vector<Entry> kTargets = {
      {"mp3fileinfo", make<Mp3FileInfo>}, {"img_size", make<ImgSize>},       {"video_info", make<VideoInfoTarget>},
      {"readconfig", make<ReadConfig>},   {"sharefolder", make<ShareFolder>}, {"mntpath", make<MntPath>},
      {"xmldb", make<Xmldb>},             {"playlist", make<PlaylistTarget>}, {"mp3tags", make<Mp3Tags>},
      {"iconv_string", make<IconvString>}, {"codepage", make<CodePage>},
#ifdef MEDIAWALK_DETECTOR_CORE
      {"detector", make<Detector>},
#endif
  };
  return kTargets;
}

}  // namespace fuzz

// The two libFuzzer entry points for target class T. A failed check aborts,
// which libFuzzer reports as a crash and saves the input.
#define MEDIAWALK_FUZZ_TARGET(T)                                                  \
  static std::unique_ptr<fuzz::Target> the_target;                               \
  extern "C" int LLVMFuzzerInitialize(int*, char***) {                           \
    fuzz::silence_stdout();                                                       \
    the_target.reset(new T());                                                    \
    return 0;                                                                     \
  }                                                                               \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {      \
    const std::string failed = the_target->run(data, size);                       \
    if (!failed.empty()) {                                                        \
      fprintf(stderr, "check failed: %s\n", failed.c_str());                      \
      abort();                                                                    \
    }                                                                             \
    return 0;                                                                     \
  }

#endif  // MEDIAWALK_FUZZ_TARGETS_H_

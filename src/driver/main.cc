// mediawalk: rebuilds the media server's library database from the share.
//
// One run, in a fixed order: refuse to start when the server is off or
// another scan is marked as running, mark this one, count the files, throw
// away the previous database, create a fresh one inside one transaction, run
// the phases, commit, and publish the totals. A failed phase is logged and
// passed over; only failures before the database exists end the run early.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <pthread.h>

#include <set>
#include <string>

#include "driver/config.h"
#include "driver/progress.h"
#include "encoding/codepage.h"
#include "library/flags.h"
#include "library/entry_rule.h"
#include "library/gathered_journal.h"
#include "library/media_types.h"
#include "library/objid.h"
#include "library/playlist.h"
#include "library/schema.h"
#include "library/sort.h"
#include "library/sql.h"
#include "library/walk.h"
#include "log/out_buffer.h"
#include "platform/command.h"
#include "platform/holders.h"
#include "platform/read_ahead.h"
#include "platform/spawn.h"
#include "platform/text.h"
#include "platform/xmldb.h"

namespace {

constexpr char kMarker[] = "/tmp/mediawalking.tmp";
constexpr char kProgressFile[] = "/tmp/mediawalkbar_result";
constexpr char kResultFile[] = "/tmp/mediawalk.result";

// Created empty at the start and never written; other programs of the
// appliance look at it. Left to be closed by process exit.
FILE* result_file = nullptr;

// Only async-signal-safe calls: the signal may land while stdio is locked.
// What was printed before and still waits in the gathered page goes out
// first (log/out_buffer.h); a SIGTERM that lands while a page is written
// comes back here once the write has returned.
extern "C" void on_terminate(int sig) {
  if (out_hold_signal(sig)) return;
  out_write_waiting();
  static const char kMessage[] = "mediawalk(): terminate\n";
  ssize_t ignored = write(STDOUT_FILENO, kMessage, sizeof kMessage - 1);
  (void)ignored;
  kill_running_helper();
  unlink(kMarker);
  _exit(0);
}

void install_termination_handler() {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = on_terminate;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGSEGV, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

// True when path (a trailing slash aside) is a symbolic link; the run says
// so once per path. Anyone may plant one in /tmp, and anyone who can write
// to the volume's top folder one at the database folder, to have root write
// through it; such a link is never followed.
bool said_is_link(const char* path) {
  static std::set<std::string> said;
  std::string bare(path);
  if (bare.size() > 1 && bare.back() == '/') bare.pop_back();
  struct stat st;
  if (lstat(bare.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return false;
  if (said.insert(bare).second) printf("mediawalk(): %s is a symbolic link, not followed\n", bare.c_str());
  return true;
}

// Opens one of the fixed files under /tmp with flags, as a shell redirection
// or fopen would (mode 0666 less the umask) but never through a link, and
// without waiting for a reader when someone put a FIFO there.
int open_fixed(const char* path, int flags) {
  const int fd = open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
  if (fd < 0) (void)said_is_link(path);  // whichever error the kernel gives for it
  if (fd >= 0) (void)fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  return fd;
}

// fopen(path, "w") without following a link.
FILE* create_fixed(const char* path) {
  Fd fd(open_fixed(path, O_WRONLY | O_CREAT | O_TRUNC));
  FILE* f = fd.fd < 0 ? nullptr : fdopen(fd.fd, "w");
  if (f != nullptr) fd.release();
  return f;
}

// The same line twice, deliberately: the web interface reads it so.
void write_progress_file(int32_t total, int32_t scanned, int done) {
  UniqueFile f(create_fixed(kProgressFile));
  if (!f) return;
  for (int i = 0; i < 2; ++i) fprintf(f.get(), "%d,%d,%d\n", total, scanned, done);
}

const char* database_vfs();

// Opens the database with SQLite refusing a link anywhere on the path it is
// given. That path is the configured one with the folder holding the system
// folder resolved first: links the mount path itself goes through are the
// appliance's own, and are followed as the folder checks follow them.
int open_database(const char* db_file, const char* mount_path) {
  // db_file is the mount path text followed by the folder and file names.
  const char* slash = strrchr(mount_path, '/');
  const size_t kept = slash == nullptr ? 0 : size_t(slash + 1 - mount_path);
  const std::string parent = kept == 0 ? "." : std::string(mount_path, kept);
  char real[PATH_MAX];
  if (realpath(parent.c_str(), real) == nullptr) return SQLITE_CANTOPEN;
  std::string path = real;
  if (path.back() != '/') path += '/';
  path += db_file + kept;
  return sqlite3_open_v2(path.c_str(), &db_ptr, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW,
                         database_vfs());
}

bool can_open_folder(const char* path) {
  UniqueDir d(opendir(path));
  return d != nullptr;
}

#ifndef MEDIAWALK_LITERAL_SQL
// Only the main thread touches the database, so the connection needs no
// mutexes, and nothing reads SQLite's memory statistics. Set before SQLite
// starts up; neither reaches the file.
void use_single_thread_sqlite() {
  (void)sqlite3_config(SQLITE_CONFIG_MULTITHREAD);
  (void)sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

// SQLite's own file access, with each transaction's journal put into its file
// in one write (library/gathered_journal.h).
const char* database_vfs() { return gathered_journal_vfs(); }

// Once the first m3u playlist has committed the walk, every later statement
// is a transaction of its own: one per song, photo and folder on a large
// share. Under SQLite's defaults each syncs twice and creates and deletes the
// journal file, which made a scan of 100,000 files take over half an hour.
// With these, a commit is a few writes. The database's bytes stay the same
// (the test build keeps the defaults, and the identity test compares the two
// files); a killed run still leaves a journal that undoes the transaction it
// cut. Only a power cut during the run can now leave a broken file where it
// left a partial one, and the next run builds it anew either way.
// Holding the file lock for the whole run spares every commit its lock round
// trip and its re-read of the header; only the header's two transaction
// counters (bytes 24-27 and 92-95) then differ, which no reader uses.
void use_quick_commits() {
  (void)sql_exec("PRAGMA synchronous=OFF;");
  (void)sql_exec("PRAGMA journal_mode=PERSIST;");
  (void)sql_exec("PRAGMA locking_mode=EXCLUSIVE;");
  sql_reuse_statements(true);
}

// Deletes the kept journal, as the default mode would have, and puts the
// finished file on disk before the totals say the scan is done.
void close_database(const char* db_file, const char* db_folder) {
  sql_reuse_statements(false);
  (void)sql_exec("PRAGMA journal_mode=DELETE;");
  sqlite3_close(db_ptr);
  db_ptr = nullptr;
  const std::string folder(db_folder, strlen(db_folder) - 1);  // O_NOFOLLOW needs no trailing slash
  const char* const paths[] = {db_file, folder.c_str()};
  for (const char* path : paths) {
    Fd fd(open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (fd.fd >= 0) (void)fsync(fd.fd);
  }
}
#else
void use_single_thread_sqlite() {}
const char* database_vfs() { return nullptr; }
void use_quick_commits() {}
void close_database(const char*, const char*) {
  sqlite3_close(db_ptr);
  db_ptr = nullptr;
}
#endif

// The files the walk's readers read: music, photos and videos.
bool read_in_walk(const char* name) {
  const char* dot = strrchr(name, '.');
  const MediaClass media_class = dot == nullptr ? kClassNone : media_class_of(dot);
  return media_class == kClassMusic || media_class == kClassPhoto || media_class == kClassVideo;
}

// A line that starts a phase is written at once, with what waits before it.
void phase_line(const char* text) {
  puts(text);
  out_flush();
}

// The length of the share root's path when it ends in "/", else 0: a root
// without its closing "/" has its names joined to its own, and the helpers
// that list or advise ahead never go where such a scan goes.
size_t share_root_len(const char* sharefolder) {
  const size_t len = strlen(sharefolder);
  return len > 0 && sharefolder[len - 1] == '/' ? len : 0;
}

// The folders the count goes into: any but a hidden one.
bool entered_in_count(const char* name) { return !is_hidden_name(name); }

int run(int argc, char** argv) {
  (void)argc;  // the configuration always comes from /etc/upnpav.conf
  install_termination_handler();
  init_objid_counters();
  readconfig(1, argv, &global_cdata);  // a missing file leaves the record empty

  if (strcmp(global_cdata.sd_status, "inactive") == 0) return 1;

  {
    // A marker that is a link is not looked through: it counts as one that
    // cannot be created, below.
    Fd marker(open(kMarker, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (marker.fd >= 0) {
      puts("mediawalking");
      return -1;
    }
  }
  {
    // What "pidof mediawalk > /tmp/mediawalking.tmp" did, without a shell.
    Fd marker(open_fixed(kMarker, O_WRONLY | O_CREAT | O_EXCL));
    const char* const pidof[] = {"pidof", "mediawalk", nullptr};
    if (marker.fd >= 0) (void)run_program(pidof, marker.fd);
  }
  write_progress_file(0, 0, 0);
  result_file = create_fixed(kResultFile);

  codepage = CodePageType();
  if (codepage == 0) {
    printf("Codepage[%d] not found, set to default fromcode\n", 0);
    memcpy(from_codepage, "autodetect_utf8", 16);
    codepage = 5;
  }

  char mount_path[128];
  memset(mount_path, 0, sizeof mount_path);
  memset(sharefolder, 0, sizeof sharefolder);
  copy_bounded(mount_path, global_cdata.mntpath);
  copy_bounded(sharefolder, global_cdata.sharepath);

  if (!can_open_folder(mount_path)) {
    unlink(kMarker);
    return -1;
  }
  // The folder is glued to the mount path without a separator, so a mount
  // path without a trailing slash puts it beside the mount point.
  char system_folder[sizeof mount_path + 20];
  char db_folder[sizeof mount_path + 35];
  snprintf(system_folder, sizeof system_folder, "%s.systemfile/", mount_path);
  snprintf(db_folder, sizeof db_folder, "%s.systemfile/.upnpav-db/", mount_path);

  {
    UniqueDir share(opendir(sharefolder));
    if (!share) {
      unlink(kMarker);
      return -1;
    }
    if (const size_t root_len = share_root_len(sharefolder))
      list_ahead_start(dirfd(share.get()), root_len, kPathLimit, entered_in_count);
    const int32_t counted = Cnt_total_file(sharefolder, share.get());
    (void)list_ahead_finish();
    if (counted == 0) {
      puts("Cnt_total_file():NULL(No content available)");
      total_file_cnt = 1;  // the total never stays 0
    }
  }
  printf("total_file_cnt[%d]\n", total_file_cnt.load());
  out_flush();

  if (!can_open_folder(mount_path)) {
    puts("<mediawalk> \"/mnt/HD_a4\" not found");
    unlink(kMarker);
    return -1;
  }
  // A link anywhere from the system folder to the journal is not followed:
  // nothing is made or deleted through it, and the run ends as it does when
  // the database cannot be opened.
  bool link_on_path = said_is_link(system_folder) || said_is_link(db_folder);
  if (!link_on_path) {
    if (can_open_folder(system_folder)) {
      if (!can_open_folder(db_folder)) mkdir(db_folder, 0700);
    } else {
      mkdir(system_folder, 0700);
      mkdir(db_folder, 0700);
    }
  }

  char db_file[512];
  char journal_file[512];
  // The mount path is at most 127 bytes, so both names fit with room to spare.
  const int n = snprintf(db_file, sizeof db_file, "%supnpav.db", db_folder);
  if (n < 0 || snprintf(journal_file, sizeof journal_file, "%s-journal", db_file) < 0) return -1;
  link_on_path = link_on_path || said_is_link(db_file) || said_is_link(journal_file);
  if (!link_on_path) {
    remove(db_file);
    remove(journal_file);
  }
  phase_line("SQLite db file create\r");

  use_single_thread_sqlite();
  if (link_on_path || open_database(db_file, mount_path) != SQLITE_OK) {
    printf("1mediawalk():Open DB fail[%s]\n", db_file);
    unlink(kMarker);
    if (result_file) fclose(result_file);
    return -1;
  }
  if (db_ptr == nullptr) {
    unlink(kMarker);
    if (result_file) fclose(result_file);
    return -1;
  }
  sql_guard_connection();

  use_quick_commits();
  phase_line("creat table-->");
  // Left open on purpose: the walk's many single-row inserts run inside it.
  // The first m3u playlist commits it early; the final COMMIT then fails
  // unexamined, as the media server has always had it.
  (void)sql_exec("BEGIN;");
  create_schema();

  if (db_ptr == nullptr) {
    printf("create zErrMsg[%s]\n", zErrMsg);
    unlink(kMarker);
    if (result_file) fclose(result_file);
    return -1;
  }

  {
    // Never joined: it ends itself once scan_finished is set, or with the process.
    // It starts with SIGTERM blocked, so the signal is always taken by this
    // thread: taken by the other one, this thread would go on printing between
    // the termination line and the exit.
    sigset_t term, old;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &term, &old);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, progress_thread, nullptr) == 0) pthread_detach(thread);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
  }

  phase_line("Scan Music -->");
  {
    const Fd root(open(sharefolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));  // as the walk opens it
    read_ahead_start(root.fd, share_root_len(sharefolder), read_in_walk);
  }
  if (ScanMusic(sharefolder, 0) == 0) puts("1scan file fail");
  while (queue_has_folders()) {
    int layer = 0;
    delqueue(sharefolder, &layer);
    if (ScanMusic(sharefolder, layer) == 0) puts("2scan file fail");
  }
  read_ahead_stop();

  phase_line("Parse playlist-->");
  if (parser_playlist() == 0) puts("parser_playlist fail");
  phase_line("Sort DBtable-->");
  if (sort_dbtable() == 0) puts("Sort DBtable fail");
  phase_line("Assign path_objid_tbl media-->");
  if (Assign_pathtbl_media() == 0) puts("Assign path_objid_tbl media fail");
  record_objid_tbl();  // its result is not examined

  (void)sql_exec("COMMIT;");
  close_database(db_file, db_folder);

  phase_line("Cover old-DB table-->");
  {
    // Prints into the same output, after the phase line that has just gone out.
    const char* const date[] = {"date", nullptr};
    (void)run_program(date, -1);
  }
  printf("\n");

  unlink(kMarker);
  puts("Finish-->");
  printf("total_scan_cnt[%d]\n", total_scan_cnt.load());
  out_flush();
  scan_finished = 1;
  const int32_t total = total_file_cnt, scanned = total_scan_cnt;
  write_progress_file(total, scanned, 1);

  char total_text[128];
  char scanned_text[128];
  snprintf(total_text, sizeof total_text, "%d", total);
  snprintf(scanned_text, sizeof scanned_text, "%d", scanned);
  // Results are not examined: a missing daemon must not disturb the scan.
  if (total_text[0] != '\0') xmldbc_set(nullptr, 0, "/runtime/scan_media/total_file", total_text);
  // Tests the total's text, not this one; a number never formats empty.
  if (total_text[0] != '\0') xmldbc_set(nullptr, 0, "/runtime/scan_media/total_scan_file", scanned_text);
  xmldbc_set(nullptr, 0, "/runtime/scan_media/scan_done", "1");
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  // Gathered a page at a time into a pipe or file; line-buffered on a
  // terminal. Either way the output of date and a termination message land
  // in order with ours.
  if (!out_buffer_start(on_terminate)) setvbuf(stdout, nullptr, _IOLBF, 0);
  return run(argc, argv);
}

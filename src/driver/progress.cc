#include "driver/progress.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "library/entry_rule.h"
#include "platform/holders.h"
#include "platform/xmldb.h"

namespace {

constexpr unsigned kPublishPeriodSeconds = 3;

std::atomic<ProgressPublisher> publisher{nullptr};

void publish(const char* node, const char* value) {
  ProgressPublisher p = publisher.load();
  // Failures are not looked at: the next period publishes again.
  if (p != nullptr)
    (void)p(node, value);
  else
    (void)xmldbc_set(nullptr, 0, node, value);
}

}  // namespace

void set_progress_publisher(ProgressPublisher p) { publisher.store(p); }

int32_t Cnt_total_file(const char* path, DIR* dir) {
  int32_t count = 0;
  const size_t path_len = strlen(path);
  // Entries are reached through the folder's descriptor, never through a
  // link above them. A path without its closing "/" (a root so configured)
  // joins its names into those of its siblings, which are asked for as given.
  const bool in_folder = path_len > 0 && path[path_len - 1] == '/';
  const int base = in_folder ? dirfd(dir) : AT_FDCWD;
  struct dirent64* entry;
  while ((entry = readdir64(dir)) != nullptr) {
    const char* name = entry->d_name;
    const size_t sum = path_len + strlen(name);
    // Up to 512 bytes composed, plus the "/" a folder gets and the terminator.
    char full[kPathLimit + 2];
    memset(full, 0, sizeof full);
    if (sum <= kPathLimit) snprintf(full, sizeof full, "%s%s", path, name);

    // A name too long to compose ends here, with an empty file field. The
    // call's result is shown, not errno: -1 and its text.
    const char* rel = full[0] == '\0' ? "" : in_folder ? name : full;
    // The listing's own type of an entry is what a status query that does
    // not follow a link would say of it; only a file system that leaves it
    // unknown is asked, sparing the count one system call per entry (and on
    // a cold disk the read of every inode).
    struct stat64 st;
    st.st_mode = DTTOIF(entry->d_type);
    const int rc = full[0] != '\0' && entry->d_type != DT_UNKNOWN ? 0 : fstatat64(base, rel, &st, AT_SYMLINK_NOFOLLOW);
    if (rc != 0) {
      printf("<mediawalk>Cnt_total_file(): lstat error:[%s],%d,file:[%s]\n", strerror(rc), rc, full);
      continue;
    }
    if (sum >= kPathLimit) {
      printf("<Cnt_total_file>Cnt_total_file(): file path too long %d\n", static_cast<int>(sum));
      continue;
    }
    MediaName media;
    const EntryKind kind = judge_entry(name, st.st_mode, &media);
    if (kind == EntryKind::kLink) {
      printf("Link File: [%s]\n", full);
      continue;
    }
    if (kind == EntryKind::kFolder) {
      full[sum] = '/';
      full[sum + 1] = '\0';
      const int fd = openat(base, in_folder ? name : full, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      UniqueDir sub(fd >= 0 ? fdopendir(fd) : nullptr);
      if (!sub) {
        if (fd >= 0) close(fd);
        printf("<mediawalk>Cnt_total_file(): opendir error:[%s],file:[%s]\n", strerror(errno), full);
        continue;
      }
      count += Cnt_total_file(full, sub.get());
      continue;
    }
    if (kind != EntryKind::kMedia) continue;
    ++total_file_cnt;
    ++count;
  }
  return count;
}

void* progress_thread(void*) {
  while (scan_finished.load() != 1) {
    char file_text[128];
    snprintf(file_text, sizeof file_text, "%d", total_file_cnt.load());
    if (file_text[0] != '\0') publish("/runtime/scan_media/total_file", file_text);
    char scan_text[128];
    snprintf(scan_text, sizeof scan_text, "%d", total_scan_cnt.load());
    if (scan_text[0] != '\0') publish("/runtime/scan_media/total_scan_file", scan_text);
    sleep(kPublishPeriodSeconds);
  }
  pthread_exit(nullptr);
}

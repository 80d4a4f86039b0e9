#include "platform/read_ahead.h"

#include <dirent.h>
#include <fcntl.h>
#include <string.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/holders.h"
#include "platform/regular_file.h"

namespace {

// What the readers read of a file lies mostly in its first 128 KiB (tags,
// headers, the first frames); an MP3's bitrate comes from a window in its
// middle, and a tag may sit at its end. A huge or sparse file gets no more.
constexpr off_t kHead = 128 * 1024;
constexpr off_t kMiddle = 32 * 1024;
constexpr off_t kTail = 4 * 1024;

// Files in a row whose head the helpers found in the cache, after which the
// cache is taken for warm; and, then, the entries the walk passes between
// two hand-overs that look whether it still is.
constexpr int kWarmRun = 64;
constexpr unsigned kWarmProbe = 256;

struct Job {
  unsigned long long seq;         // the entry's place in the walk
  std::shared_ptr<Fd> folder;     // the helpers' own descriptor of the entry's folder
  std::string name;
  bool next_folder = false;       // name is the path below `folder`, the root, of the folder walked next
};

struct Helper {
  std::mutex mu;
  std::condition_variable wake;
  std::deque<Job> jobs;               // never more than kReadAheadFiles
  unsigned long long walk_seq = 0;    // the entry the walk is at
  unsigned long long folder_seq = 0;  // the number of entry 0 of the folder being walked
  size_t handed = 0;                  // entries of that folder handed over or passed
  std::shared_ptr<Fd> folder;         // the helpers' descriptor of that folder
  bool next_handed = false;           // the folder walked next was handed for that folder
  std::shared_ptr<Fd> root;           // the share root, when its path ends in "/"
  size_t root_len = 0;                // the length of that path
  bool stop = false;
  bool (*wanted)(const char* name) = nullptr;
  std::vector<std::thread> threads;
  std::atomic<int> cached_in_row{0};
  unsigned warm_passed = 0;  // entries the walk passed since the last hand-over on a warm cache
};

Helper* helper = nullptr;

// Starts kReadAheadThreads threads running fn(arg), as many as can start,
// with SIGTERM blocked in them so that the signal is always taken by the
// main thread. They run as batch threads: as much time on a processor as
// before, but a helper woken by its disk read no longer takes the processor
// from the walk at once (on two cores the walk was put aside about once per
// twenty files on a cold disk, now about once per 150).
template <typename T>
void start_helpers(std::vector<std::thread>* threads, void (*fn)(T*), T* arg) {
  sigset_t term, old;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, &old);
  try {
    for (int i = 0; i < kReadAheadThreads; ++i) {
      threads->emplace_back(fn, arg);
      sched_param none{};
      (void)pthread_setschedparam(threads->back().native_handle(), SCHED_BATCH, &none);
    }
  } catch (const std::system_error&) {
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void advise(Helper* h, const Job& job) {
  // Opened as the readers open it: a FIFO, device or link is refused without blocking.
  struct stat st;
  Fd fd(open_regular_at(job.folder->fd, job.name.c_str(), &st));
  if (fd.fd < 0 || st.st_size <= 0) return;
  // A read that may not wait for the disk tells whether the head is cached.
  char byte;
  struct iovec one = {&byte, 1};
  if (preadv2(fd.fd, &one, 1, 0, RWF_NOWAIT) == 1)
    h->cached_in_row.fetch_add(1, std::memory_order_relaxed);
  else
    h->cached_in_row.store(0, std::memory_order_relaxed);
  const off_t size = st.st_size;
  (void)posix_fadvise(fd.fd, 0, size < kHead ? size : kHead, POSIX_FADV_WILLNEED);
  if (size <= kHead) return;
  (void)posix_fadvise(fd.fd, size / 2, kMiddle, POSIX_FADV_WILLNEED);
  const off_t tail = size - kTail > kHead ? size - kTail : kHead;
  (void)posix_fadvise(fd.fd, tail, size - tail, POSIX_FADV_WILLNEED);
}

// The walk is past entry seq.
bool passed(Helper* h, unsigned long long seq) {
  std::lock_guard<std::mutex> lock(h->mu);
  return h->stop || seq <= h->walk_seq;
}

// Advises the first files of the folder the walk takes next, so that its
// first entries are not read one after another when the walk gets there: the
// window handed inside a folder starts at the walk. The folder is listed
// (at most kListedNames names) and taken in the walk's order.
void advise_next_folder(Helper* h, const Job& job) {
  // Reached as the walk reaches it, then opened for reading.
  const Fd path(open_path_below(job.folder->fd, job.name.c_str()));
  if (path.fd < 0) return;
  auto folder = std::make_shared<Fd>(openat(path.fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder->fd < 0) return;
  std::vector<std::string> names;
  {
    UniqueDir dir(fdopendir(fcntl(folder->fd, F_DUPFD_CLOEXEC, 0)));
    struct dirent64* entry;
    while (dir && names.size() < kListedNames && (entry = readdir64(dir.get())) != nullptr) {
      const char* name = entry->d_name;
      if (name[0] != '.' && (entry->d_type == DT_REG || entry->d_type == DT_UNKNOWN) && h->wanted(name))
        names.emplace_back(name);
    }
  }
  const size_t n = names.size() < size_t(kReadAheadFiles) ? names.size() : size_t(kReadAheadFiles);
  std::partial_sort(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(n), names.end(),
                    [](const std::string& a, const std::string& b) { return strcoll(a.c_str(), b.c_str()) < 0; });
  for (size_t i = 0; i < n && !passed(h, job.seq); ++i) advise(h, Job{job.seq, folder, names[i]});
}

void run(Helper* h) {
  for (;;) {
    Job job;
    {
      std::unique_lock<std::mutex> lock(h->mu);
      h->wake.wait(lock, [h] { return h->stop || !h->jobs.empty(); });
      if (h->stop) return;
      job = std::move(h->jobs.front());
      h->jobs.pop_front();
      if (job.seq <= h->walk_seq) continue;  // the walk got there first
    }
    // Judged here rather than in the walk, which then pays only for the hand-over.
    if (job.next_folder)
      advise_next_folder(h, job);
    else if (h->wanted(job.name.c_str()))
      advise(h, job);
  }
}

}  // namespace

void read_ahead_start(int root_fd, size_t root_len, bool (*wanted)(const char* name)) {
  if (helper != nullptr || wanted == nullptr) return;
  Helper* h = new Helper;
  h->wanted = wanted;
  if (root_fd >= 0 && root_len > 0) {
    h->root = std::make_shared<Fd>(fcntl(root_fd, F_DUPFD_CLOEXEC, 0));
    h->root_len = root_len;
  }
  start_helpers(&h->threads, run, h);
  if (!h->threads.empty())
    helper = h;
  else
    delete h;
}

void read_ahead_at(int folder_fd, const std::vector<std::string>& names, size_t index, const char* next_folder) {
  Helper* h = helper;
  if (h == nullptr || folder_fd < 0 || index >= names.size()) return;
  std::lock_guard<std::mutex> lock(h->mu);
  if (index == 0) {  // a new folder: numbered on past every entry of the last one
    h->folder_seq += static_cast<unsigned long long>(h->handed) + 1;
    h->handed = 0;
    h->next_handed = false;
    h->folder = std::make_shared<Fd>(fcntl(folder_fd, F_DUPFD_CLOEXEC, 0));
  }
  h->walk_seq = h->folder_seq + static_cast<unsigned long long>(index);
  while (!h->jobs.empty() && h->jobs.front().seq <= h->walk_seq) h->jobs.pop_front();
  if (h->handed <= index) h->handed = index + 1;
  if (!h->folder || h->folder->fd < 0) return;
  // On a warm cache waking the helpers costs the walk more than they save
  // it: they are handed a window only now and then, to see whether it still is.
  if (h->cached_in_row.load(std::memory_order_relaxed) >= kWarmRun && ++h->warm_passed % kWarmProbe != 0) return;
  const size_t end = names.size() - index > kReadAheadFiles ? index + 1 + kReadAheadFiles : names.size();
  bool pushed = false;
  for (; h->handed < end; ++h->handed) {
    const std::string& name = names[h->handed];
    if (name[0] == '.') continue;
    h->jobs.push_back(Job{h->folder_seq + static_cast<unsigned long long>(h->handed), h->folder, name});
    pushed = true;
  }
  // Once the window reaches the folder's end, the folder walked next: its
  // entries are numbered from the one past this folder's last.
  const size_t root_len = h->root ? h->root_len : 0;
  if (h->handed == names.size() && !h->next_handed && next_folder != nullptr && root_len > 0 &&
      strlen(next_folder) > root_len) {
    h->next_handed = true;
    h->jobs.push_back(Job{h->folder_seq + names.size() + 1, h->root, next_folder + root_len, true});
    pushed = true;
  }
  // Woken for half a window at a time, or the end of the folder: on a warm
  // cache the helpers sleep between hand-overs, and waking one for every
  // entry cost the walk a wake-up call per file.
  if (pushed && (h->jobs.size() >= kReadAheadFiles / 2 || h->handed == names.size())) h->wake.notify_all();
}

void read_ahead_stop() {
  Helper* h = helper;
  if (h == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(h->mu);
    h->stop = true;
    h->jobs.clear();
    h->folder.reset();
  }
  h->wake.notify_all();
  for (std::thread& t : h->threads) t.join();
  helper = nullptr;
  delete h;
}

// ---------------------------------------------------------------------------
// Folders listed ahead of the count.

namespace {

// A listed folder and the subfolders it holds, taken in order.
struct Frame {
  std::shared_ptr<Fd> folder;
  size_t path_len = 0;  // of the folder's path with its "/"
  std::vector<std::string> subfolders;
  size_t next = 0;
};

struct Lister {
  std::mutex mu;
  std::condition_variable wake;
  std::vector<Frame> frames;  // the folder listed last on top
  size_t names = 0;           // subfolder names held in frames
  int busy = 0;               // helpers listing a folder
  size_t listed = 0;          // folders listed
  size_t path_limit = 0;
  bool (*wanted)(const char* name) = nullptr;
  std::vector<std::thread> threads;
};

Lister* lister = nullptr;

// The subfolders of the folder open as fd (its path path_len bytes long)
// that `wanted` accepts and whose paths stay below the limit, as the count
// would go into them: by the listing's type, asked only when it is unknown.
void subfolders_of(const Lister& l, int fd, size_t path_len, std::vector<std::string>* out) {
  UniqueDir dir(fdopendir(fcntl(fd, F_DUPFD_CLOEXEC, 0)));
  struct dirent64* entry;
  while (dir && (entry = readdir64(dir.get())) != nullptr) {
    const char* sub = entry->d_name;
    if (!l.wanted(sub) || path_len + strlen(sub) >= l.path_limit) continue;
    bool folder = entry->d_type == DT_DIR;
    struct stat st;
    if (entry->d_type == DT_UNKNOWN && fstatat(fd, sub, &st, AT_SYMLINK_NOFOLLOW) == 0) folder = S_ISDIR(st.st_mode);
    if (folder) out->emplace_back(sub);
  }
}

// Lists the folder `name` of parent, opened as the count opens it (never
// through a link), into frame.
void list_folder(const Lister& l, int parent, const std::string& name, size_t parent_len, Frame* frame) {
  auto folder = std::make_shared<Fd>(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder->fd < 0) return;
  frame->folder = folder;
  frame->path_len = parent_len + name.size() + 1;
  subfolders_of(l, folder->fd, frame->path_len, &frame->subfolders);
}

void list(Lister* l) {
  for (;;) {
    std::shared_ptr<Fd> parent;
    std::string name;
    size_t path_len;
    {
      std::unique_lock<std::mutex> lock(l->mu);
      l->wake.wait(lock, [l] { return !l->frames.empty() || l->busy == 0; });
      if (l->frames.empty()) break;  // every folder listed
      Frame& top = l->frames.back();
      parent = top.folder;
      path_len = top.path_len;
      name = std::move(top.subfolders[top.next++]);
      --l->names;
      if (top.next == top.subfolders.size()) l->frames.pop_back();
      ++l->busy;
    }
    Frame frame;
    list_folder(*l, parent->fd, name, path_len, &frame);
    {
      std::lock_guard<std::mutex> lock(l->mu);
      --l->busy;
      if (frame.folder) ++l->listed;
      const size_t room = kListedNames - l->names;
      if (frame.subfolders.size() > room) frame.subfolders.resize(room);
      if (!frame.subfolders.empty() && l->frames.size() < kListedFolders) {
        l->names += frame.subfolders.size();
        l->frames.push_back(std::move(frame));
      }
    }
    l->wake.notify_all();
  }
  l->wake.notify_all();
}

}  // namespace

void list_ahead_start(int folder_fd, size_t path_len, size_t path_limit, bool (*wanted)(const char* name)) {
  if (lister != nullptr || wanted == nullptr || folder_fd < 0) return;
  Lister* l = new Lister;
  l->wanted = wanted;
  l->path_limit = path_limit;
  Frame root;
  // Opened anew: a copy of the descriptor would share the count's place in its listing.
  root.folder = std::make_shared<Fd>(openat(folder_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  root.path_len = path_len;
  if (root.folder->fd >= 0) subfolders_of(*l, root.folder->fd, path_len, &root.subfolders);
  if (root.subfolders.size() > kListedNames) root.subfolders.resize(kListedNames);
  if (root.subfolders.empty()) {
    delete l;
    return;
  }
  l->names = root.subfolders.size();
  l->frames.push_back(std::move(root));
  start_helpers(&l->threads, list, l);
  if (l->threads.empty()) {
    delete l;
    return;
  }
  lister = l;
}

size_t list_ahead_finish() {
  Lister* l = lister;
  if (l == nullptr) return 0;
  for (std::thread& t : l->threads) t.join();
  const size_t listed = l->listed;
  lister = nullptr;
  delete l;
  return listed;
}

#include "log/err_log.h"

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>
#include <time.h>

#include "log/out_buffer.h"

namespace {

// Module N of this table has the bit 1 << N.
constexpr const char* kModuleNames[] = {
    "config", "webserver", "database", "scan", "query", "index",
    "browse", "playlist",  "art",      "daap", "main",  "rend",
};

constexpr uint32_t kAllModules = 0xFFFFFFFF;

int debug_level = 0;
uint32_t module_mask = kAllModules;
int log_target = kLogStderr;
FILE* log_file = nullptr;
// Makes one message, with its fatal copy and "Aborting" lines, one unit of
// output when both threads log.
pthread_mutex_t log_mutex = PTHREAD_MUTEX_INITIALIZER;

void close_target() {
  if (log_target == kLogSyslog) {
    closelog();
  } else if (log_target == kLogFile && log_file != nullptr) {
    fclose(log_file);
    log_file = nullptr;
  }
}

void write_to_file(int level, const char* msg) {
  if (log_file == nullptr) return;
  char stamp[256];
  const time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr || strftime(stamp, sizeof stamp, "%Y-%m-%d %T", &local) == 0)
    stamp[0] = '\0';
  fprintf(log_file, "%s: %s", stamp, msg);
  if (level == 0) fprintf(log_file, "%s: Aborting\n", stamp);
  fflush(log_file);
}

}  // namespace

void err_log(int level, uint32_t module, const char* fmt, ...) {
  // Level 0 is fatal and passes every filter.
  if (level != 0 && (level > debug_level || (module & module_mask) == 0)) return;

  char msg[1024];  // up to 1,023 bytes of text; longer messages are cut
  va_list ap;
  va_start(ap, fmt);
  if (vsnprintf(msg, sizeof msg, fmt, ap) < 0) msg[0] = '\0';
  va_end(ap);

  pthread_mutex_lock(&log_mutex);
  out_flush();  // what was printed before comes first where both outputs meet
  // A fatal message must reach the console even when the log goes elsewhere;
  // the renderer module keeps its fatal messages in the log only.
  if (level == 0 && log_target != kLogStderr && (module & kLogModuleRend) == 0) {
    fputs(msg, stderr);
    fputs("Aborting\n", stderr);
    fflush(stderr);
  }
  switch (log_target) {
    case kLogSyslog:
      syslog(LOG_NOTICE, "%s", msg);
      if (level == 0) syslog(LOG_INFO, "Aborting\n");
      break;
    case kLogFile:
      write_to_file(level, msg);
      break;
    case kLogStderr:
      fputs(msg, stderr);  // unbuffered: no flush needed
      if (level == 0) fputs("Aborting\n", stderr);
      break;
    default:
      break;
  }
  pthread_mutex_unlock(&log_mutex);

  if (level == 0) exit(1);
}

void err_log_target(const char* name, int target) {
  if (target == log_target) return;
  close_target();
  if (target == kLogSyslog) {
    openlog(name, LOG_PID, LOG_DAEMON);
  } else if (target == kLogFile) {
    log_file = name != nullptr ? fopen(name, "a") : nullptr;
    if (log_file == nullptr) {
      fprintf(stderr, "Error opening %s: %s\n", name != nullptr ? name : "(null)", strerror(errno));
      exit(1);
    }
  }
  log_target = target;
}

int err_log_modules(char* names) {
  module_mask = kLogModuleAny;
  char* save = nullptr;
  for (char* name = names != nullptr ? strtok_r(names, ",", &save) : nullptr; name != nullptr;
       name = strtok_r(nullptr, ",", &save)) {
    uint32_t bit = 0;
    for (size_t i = 0; i < sizeof kModuleNames / sizeof kModuleNames[0]; ++i) {
      if (strcasecmp(name, kModuleNames[i]) == 0) {
        bit = uint32_t{1} << i;
        break;
      }
    }
    if (bit == 0) {
      err_log(1, kLogModuleAny, "Unknown module: %s\n", name);
      return 1;
    }
    err_log(9, kLogModuleAny, "Adding module %s to debug list (0x%08x)\n", name, bit);
    module_mask |= bit;
  }
  err_log(5, kLogModuleAny, "Debug mask is 0x%08x\n", module_mask);
  return 0;
}

void err_log_set_level(int level) { debug_level = level; }

int err_log_level() { return debug_level; }

uint32_t err_log_mask() { return module_mask; }

int err_log_current_target() { return log_target; }

void err_log_reset() {
  close_target();
  log_target = kLogStderr;
  debug_level = 0;
  module_mask = kAllModules;
}

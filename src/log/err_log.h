// Levelled, module-filtered logging for the metadata readers.
//
// Start-up state: target standard error, debug level 0, every module on.
// In that state only fatal (level 0) messages are written.
#ifndef MEDIAWALK_LOG_ERR_LOG_H_
#define MEDIAWALK_LOG_ERR_LOG_H_

#include <stdint.h>

// Module bits, in the order err_log_modules knows their names: "config",
// "webserver", "database", "scan", "query", "index", "browse", "playlist",
// "art", "daap", "main", "rend" have the bits 0x1 to 0x800.
constexpr uint32_t kLogModuleScan = 0x8;
constexpr uint32_t kLogModuleRend = 0x800;      // fatal messages of it skip the console copy
constexpr uint32_t kLogModuleAny = 0x80000000;  // belongs to no module; always passes

enum LogTarget { kLogStderr = 0, kLogSyslog = 1, kLogFile = 2 };

// Writes the message when level is 0 (fatal: "Aborting", exit status 1) or
// when level <= the debug level (signed) and module shares a bit with the
// mask. The formatted text is cut at 1,023 bytes; no line end is added.
// Does not return at level 0.
void err_log(int level, uint32_t module, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// Switches the output target; name is the syslog identity (1, kept by
// openlog, so it must outlive the target) or the file path (2, opened for
// appending; failure prints "Error opening ..." and exits with status 1).
// Asking for the current target does nothing, whatever the name.
void err_log_target(const char* name, int target);

// Builds the module mask from "name,name,..." (names case-insensitive, empty
// pieces skipped; the text is cut up in place). Returns 0 when every name was
// known, 1 at the first unknown one, keeping the bits added before it.
int err_log_modules(char* names);

// Nothing in a scan run raises the debug level; tests and tools may.
void err_log_set_level(int level);

// Read-only views of the state, for tools and tests.
int err_log_level();
uint32_t err_log_mask();
int err_log_current_target();

// Back to the start-up state, closing a syslog or file target first.
void err_log_reset();

#endif  // MEDIAWALK_LOG_ERR_LOG_H_

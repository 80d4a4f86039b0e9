// Levelled, module-filtered logging for the metadata readers.
#ifndef MEDIAWALK_LOG_ERR_LOG_H_
#define MEDIAWALK_LOG_ERR_LOG_H_

#include <stdint.h>

constexpr uint32_t kLogModuleScan = 0x8;
constexpr uint32_t kLogModuleAny = 0x80000000;  // belongs to no module; always passes

enum LogTarget { kLogStderr = 0, kLogSyslog = 1, kLogFile = 2 };

// Writes the message when level is 0 (fatal: "Aborting", exit status 1) or
// when level <= the debug level and module shares a bit with the mask.
void err_log(int level, uint32_t module, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// Switches the output target; name is the syslog identity (1) or file path (2).
void err_log_target(const char* name, int target);

// Builds the module mask from "name,name,...". Returns 0 when every name was
// known, 1 at the first unknown one.
int err_log_modules(char* names);

// Nothing in a scan run raises the debug level; tests and tools may.
void err_log_set_level(int level);

#endif  // MEDIAWALK_LOG_ERR_LOG_H_

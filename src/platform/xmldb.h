// Client of the appliance's configuration database daemon xmldb: one UNIX
// stream connection per request.
//
// Every operation takes the socket path first (null means
// /var/run/xmldb_sock; at most 108 bytes of it are used) and the flags word
// second, which is passed to the daemon untouched (the scanner passes 0).
// A request is a 12-byte header in host byte order, then the payload:
//   0  u16 action   request kind
//   2  u16 length   payload bytes, the terminating zero included
//   4  u32 flags
//   8  u32 reserved always 0
//   12 payload      the text, zero-terminated
// Status kinds answer with 12 bytes whose third 32-bit word is the result.
// Text kinds answer with text ended by a zero byte or by the daemon closing.
//
// Every operation returns -1 at once, printing nothing, when the daemon
// cannot be reached or the request cannot be sent, and also when a text
// argument is null or the payload would not fit the 16-bit length. A daemon
// that accepts but never answers blocks the call.
//
// Operations ending in _wb copy the text reply onto out (standard output
// when null) and return 0. xmldbc_get and xmldbc_act10 keep what their first
// successful read brings into buf[size]: at most size-1 bytes, always
// zero-terminated, as the daemon answers in one piece. They return 0, or -1
// without connecting when buf is null or size is 0.
#ifndef MEDIAWALK_PLATFORM_XMLDB_H_
#define MEDIAWALK_PLATFORM_XMLDB_H_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

// Action 1: reads the node's value into buf[size].
int xmldbc_get(const char* sockpath, uint32_t flags, const char* node, char* buf, size_t size);
// Action 1: copies the node's value onto out.
int xmldbc_get_wb(const char* sockpath, uint32_t flags, const char* node, FILE* out);

// Sets node to value (action 2, payload "node value", cut to 510 bytes).
// Returns the daemon's status word, or -1 when it cannot be reached.
int xmldbc_set(const char* sockpath, uint32_t flags, const char* node, const char* value);

// Actions 3, 4, 5, 6, 12 and 13: send text, return the daemon's status word.
int xmldbc_act3(const char* sockpath, uint32_t flags, const char* text);
int xmldbc_act4(const char* sockpath, uint32_t flags, const char* text);
int xmldbc_act5(const char* sockpath, uint32_t flags, const char* text);
int xmldbc_act6(const char* sockpath, uint32_t flags, const char* text);
int xmldbc_act12(const char* sockpath, uint32_t flags, const char* text);
int xmldbc_act13(const char* sockpath, uint32_t flags, const char* text);

// Action 10: sends text; the text reply goes into buf[size] or onto out.
int xmldbc_act10(const char* sockpath, uint32_t flags, const char* text, char* buf, size_t size);
int xmldbc_act10_wb(const char* sockpath, uint32_t flags, const char* text, FILE* out);

// Action 11: formed exactly as xmldbc_set ("node value", cut to 510 bytes).
int xmldbc_set11(const char* sockpath, uint32_t flags, const char* node, const char* value);

// Action 14: sends text; the text reply goes onto out.
int xmldbc_act14_wb(const char* sockpath, uint32_t flags, const char* text, FILE* out);

#endif  // MEDIAWALK_PLATFORM_XMLDB_H_

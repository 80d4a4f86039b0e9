// Client of the appliance's configuration database daemon xmldb: one UNIX
// stream connection per request.
#ifndef MEDIAWALK_PLATFORM_XMLDB_H_
#define MEDIAWALK_PLATFORM_XMLDB_H_

#include <stdint.h>

// Sets node to value (action 2, payload "node value", cut to 510 bytes).
// sockpath null means /var/run/xmldb_sock. Returns the daemon's status word,
// or -1 when it cannot be reached.
int xmldbc_set(const char* sockpath, uint32_t flags, const char* node, const char* value);

#endif  // MEDIAWALK_PLATFORM_XMLDB_H_

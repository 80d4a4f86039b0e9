#include "platform/xmldb.h"

#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/holders.h"

namespace {

constexpr const char* kDefaultSocket = "/var/run/xmldb_sock";
constexpr size_t kHeaderSize = 12;
constexpr size_t kMaxPayload = 0xFFFF;  // the header's length field is 16 bits

// The daemon expects the 108-byte path field of a full sockaddr_un (110
// bytes); a path of 108 bytes or more is used unterminated, as the kernel allows.
static_assert(sizeof(sockaddr_un) == 110, "connect is given the whole UNIX address");

// Returns the connected descriptor, or -1. Close-on-exec from the start, so a
// command run by the other thread meanwhile does not inherit it.
int xmldb_connect(const char* sockpath) {
  const char* path = sockpath != nullptr ? sockpath : kDefaultSocket;
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path, strnlen(path, sizeof addr.sun_path));
  if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Header, then payload, each in one send. MSG_NOSIGNAL: a daemon that went
// away is an error result, not a SIGPIPE ending the scan. A short send is
// not an error; only a send that moved nothing is.
int xmldb_send(int fd, uint16_t action, uint32_t flags, const char* payload, uint16_t length) {
  uint8_t head[kHeaderSize] = {};  // bytes 8..11 are reserved and stay zero
  memcpy(head, &action, sizeof action);
  memcpy(head + 2, &length, sizeof length);
  memcpy(head + 4, &flags, sizeof flags);
  if (send(fd, head, sizeof head, MSG_NOSIGNAL) <= 0) return -1;
  if (send(fd, payload, length, MSG_NOSIGNAL) <= 0) return -1;
  return 0;
}

// The payload length of text: its bytes and the zero. False for a null text
// or one the 16-bit length field cannot describe.
bool payload_length(const char* text, uint16_t* length) {
  if (text == nullptr) return false;
  const size_t n = strnlen(text, kMaxPayload) + 1;
  if (n > kMaxPayload) return false;
  *length = static_cast<uint16_t>(n);
  return true;
}

// Waits without a time limit. A hang-up or error counts as readable: the read
// that follows reports it, where waiting again would spin forever.
void wait_readable(int fd) {
  for (;;) {
    pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, -1) > 0 && p.revents != 0) return;
  }
}

// Copies the reply onto out until a chunk ends in a zero byte, the daemon
// closes, or a read fails.
void copy_reply(int fd, FILE* out) {
  char chunk[1024];
  for (;;) {
    wait_readable(fd);
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n <= 0) return;
    if (chunk[n - 1] == '\0') {
      fwrite(chunk, 1, strnlen(chunk, static_cast<size_t>(n)), out);
      return;
    }
    fwrite(chunk, 1, static_cast<size_t>(n), out);
  }
}

// Reads the reply into buf[size], size >= 1, leaving room for the zero that
// ends it. Returns the bytes received.
size_t read_reply(int fd, char* buf, size_t size) {
  const size_t room = size - 1;
  size_t got = 0;
  do {
    wait_readable(fd);
    const ssize_t n = read(fd, buf + got, room - got);
    if (n <= 0) break;
    got += static_cast<size_t>(n);
    if (buf[got - 1] == '\0') break;
    // A read never exceeds the room left, so this loop ends after the first
    // successful read: the daemon answers in one piece, and a reply that
    // straggles in is deliberately not waited for.
  } while (got > room);
  buf[got] = '\0';
  return got;
}

int status_request(const char* sockpath, uint16_t action, uint32_t flags, const char* payload, uint16_t length) {
  Fd fd(xmldb_connect(sockpath));
  if (fd.fd < 0 || xmldb_send(fd.fd, action, flags, payload, length) < 0) return -1;
  uint8_t reply[kHeaderSize] = {};  // a short reply leaves zeros, never stale bytes
  (void)recv(fd.fd, reply, sizeof reply, MSG_WAITALL);  // the count is not examined
  uint32_t status;
  memcpy(&status, reply + 8, sizeof status);
  return static_cast<int>(status);
}

int text_status_request(const char* sockpath, uint16_t action, uint32_t flags, const char* text) {
  uint16_t length;
  if (!payload_length(text, &length)) return -1;
  return status_request(sockpath, action, flags, text, length);
}

int stream_request(const char* sockpath, uint16_t action, uint32_t flags, const char* text, FILE* out) {
  uint16_t length;
  if (!payload_length(text, &length)) return -1;
  Fd fd(xmldb_connect(sockpath));
  if (fd.fd < 0 || xmldb_send(fd.fd, action, flags, text, length) < 0) return -1;
  copy_reply(fd.fd, out != nullptr ? out : stdout);
  return 0;
}

int buffer_request(const char* sockpath, uint16_t action, uint32_t flags, const char* text, char* buf,
                   size_t size) {
  uint16_t length;
  if (buf == nullptr || size == 0 || !payload_length(text, &length)) return -1;
  Fd fd(xmldb_connect(sockpath));
  if (fd.fd < 0 || xmldb_send(fd.fd, action, flags, text, length) < 0) return -1;
  (void)read_reply(fd.fd, buf, size);  // callers go by the zero-terminated text
  return 0;
}

// "node value" in 512 bytes: at most 510 characters and the zero.
int set_request(const char* sockpath, uint16_t action, uint32_t flags, const char* node, const char* value) {
  if (node == nullptr || value == nullptr) return -1;
  char payload[512];
  snprintf(payload, sizeof payload - 1, "%s %s", node, value);
  payload[sizeof payload - 1] = '\0';
  return text_status_request(sockpath, action, flags, payload);
}

}  // namespace

int xmldbc_get(const char* sockpath, uint32_t flags, const char* node, char* buf, size_t size) {
  return buffer_request(sockpath, 1, flags, node, buf, size);
}

int xmldbc_get_wb(const char* sockpath, uint32_t flags, const char* node, FILE* out) {
  return stream_request(sockpath, 1, flags, node, out);
}

int xmldbc_set(const char* sockpath, uint32_t flags, const char* node, const char* value) {
  return set_request(sockpath, 2, flags, node, value);
}

int xmldbc_act3(const char* sockpath, uint32_t flags, const char* text) {
  return text_status_request(sockpath, 3, flags, text);
}

int xmldbc_act4(const char* sockpath, uint32_t flags, const char* text) {
  return text_status_request(sockpath, 4, flags, text);
}

int xmldbc_act5(const char* sockpath, uint32_t flags, const char* text) {
  return text_status_request(sockpath, 5, flags, text);
}

int xmldbc_act6(const char* sockpath, uint32_t flags, const char* text) {
  return text_status_request(sockpath, 6, flags, text);
}

int xmldbc_act10(const char* sockpath, uint32_t flags, const char* text, char* buf, size_t size) {
  return buffer_request(sockpath, 10, flags, text, buf, size);
}

int xmldbc_act10_wb(const char* sockpath, uint32_t flags, const char* text, FILE* out) {
  return stream_request(sockpath, 10, flags, text, out);
}

int xmldbc_set11(const char* sockpath, uint32_t flags, const char* node, const char* value) {
  return set_request(sockpath, 11, flags, node, value);
}

int xmldbc_act12(const char* sockpath, uint32_t flags, const char* text) {
  return text_status_request(sockpath, 12, flags, text);
}

int xmldbc_act13(const char* sockpath, uint32_t flags, const char* text) {
  return text_status_request(sockpath, 13, flags, text);
}

int xmldbc_act14_wb(const char* sockpath, uint32_t flags, const char* text, FILE* out) {
  return stream_request(sockpath, 14, flags, text, out);
}

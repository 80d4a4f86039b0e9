// Explicit-order integer reads for the metadata readers. Callers check that
// the bytes are there first (Bytes::has); nothing here reads past p[3].
#ifndef MEDIAWALK_METADATA_BYTES_H_
#define MEDIAWALK_METADATA_BYTES_H_

#include <stddef.h>
#include <stdint.h>

inline uint16_t get_be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
inline uint16_t get_le16(const uint8_t* p) { return uint16_t(p[1] << 8 | p[0]); }
inline uint32_t get_be32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
inline uint32_t get_le32(const uint8_t* p) {
  return uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
}

struct Bytes {  // a read-only view; has() cannot overflow
  const uint8_t* data;
  size_t size;
  bool has(size_t off, size_t len) const { return off <= size && len <= size - off; }
};

#endif  // MEDIAWALK_METADATA_BYTES_H_

#include "driver/config.h"

#include <stdio.h>
#include <string.h>

#include "platform/holders.h"
#include "platform/text.h"

ConfigData global_cdata;
char sharefolder[513];

namespace {

constexpr char kConfigFile[] = "/etc/upnpav.conf";
constexpr size_t kLineMax = 512;  // a line of this many bytes without a newline is an error

struct Key {
  const char* name;
  size_t field_offset;
  size_t cleared;  // bytes zero-filled before the copy: the field's width
};

// Matching order matters: every key is searched from where the previous match
// left the value pointer, so a value naming a later key fills that key too.
const Key kKeys[] = {
    {"sharepath", offsetof(ConfigData, sharepath), sizeof(ConfigData::sharepath)},
    {"mntpath", offsetof(ConfigData, mntpath), sizeof(ConfigData::mntpath)},
    {"sd_status", offsetof(ConfigData, sd_status), sizeof(ConfigData::sd_status)},
    {"sharename", offsetof(ConfigData, sharename), sizeof(ConfigData::sharename)},
};

// One line, newline included and terminated. The value pointer moves from
// where it stood by the key's length plus one separator byte, not from where
// the key was found: only a key at the very start of a line reads right.
void parse_line(const char* line, ConfigData* cdata) {
  const char* value = line;
  for (const Key& key : kKeys) {
    if (strstr(value, key.name) == nullptr) continue;
    value += strlen(key.name) + 1;  // the key lies at or after value, so this stays in the line
    char* field = reinterpret_cast<char*>(cdata) + key.field_offset;
    memset(field, 0, key.cleared);
    size_t len = strlen(value);
    if (len == 1 && value[0] == '\n') len = 0;
    if (len > 0) {
      size_t n = len - 1;                           // all but the newline; a CR stays
      if (n > key.cleared - 1) n = key.cleared - 1;  // never past the field
      memcpy(field, value, n);
    }
  }
}

}  // namespace

int readconfig_file(const char* file, const char* progname, ConfigData* cdata) {
  UniqueFile f(fopen(file, "r"));
  if (!f) {
    printf("error happen: %s\n", progname);
    return -1;
  }
  char line[kLineMax + 2];  // 512 bytes may be collected plus the newline... and a terminator
  size_t count = 0;
  memset(line, 0, sizeof line);
  for (;;) {
    // A last line without a newline is never processed: the end of the file
    // ends the read before it is looked at.
    if (feof(f.get())) return 0;
    const int c = fgetc(f.get());
    if (c == EOF) return 0;
    line[count] = static_cast<char>(c);
    if (c != '\n') {
      if (++count >= kLineMax) {
        puts("error: singel line string too long");
        printf("error happen: %s\n", progname);
        return -1;
      }
      continue;
    }
    parse_line(line, cdata);
    memset(line, 0, sizeof line);
    count = 0;
  }
}

int readconfig(int argc, char** argv, ConfigData* cdata) {
  const char* progname = argc > 0 && argv && argv[0] ? argv[0] : "";
  if (argc == 1) return readconfig_file(kConfigFile, progname, cdata);
  if (argc == 3 && strcmp(argv[1], "-RC") == 0) return readconfig_file(argv[2], progname, cdata);
  printf("error happen: %s\n", progname);
  return -1;
}

int get_sharefolder_from(const char* file, char* dest) {
  UniqueFile f(fopen(file, "r"));
  if (!f) {
    puts("UPNPPROC: Can not open upnpav.conf.");
    return 0;
  }
  static constexpr char kKey[] = "ShareFolder:";
  char line[kLineMax];
  for (;;) {
    memset(line, 0, sizeof line);
    if (fgets(line, sizeof line, f.get()) == nullptr) return 1;  // not found: dest untouched
    const char* at = strstr(line, kKey);
    if (at == nullptr) continue;
    char value[kLineMax];
    copy_bounded(value, at + strlen(kKey));
    const size_t len = strlen(value);
    if (len > 0) value[len - 1] = '\0';  // the last character, normally the newline
    const size_t vlen = strlen(value);
    // dest holds 512 bytes: the value is at most 498 bytes here, so "/" fits.
    memcpy(dest, value, vlen + 1);
    if (vlen == 0 || value[vlen - 1] != '/') {
      dest[vlen] = '/';
      dest[vlen + 1] = '\0';
    }
    return 1;
  }
}

int get_sharefolder(char* dest) { return get_sharefolder_from(kConfigFile, dest); }

int get_mntpath(const char* device, char* dest) {
  char copy[256];
  copy_bounded(copy, device);
  char* rest = copy;
  char* piece = nullptr;
  for (int i = 0; i < 3; ++i) {
    piece = strsep(&rest, "/");
    if (piece == nullptr) return -1;
  }
  if (char* g = strchr(piece, 'g')) {
    snprintf(dest, 256, "/mnt/vg%s/lvnas_default/", g + 1);
    return 0;
  }
  if (char* d = strchr(piece, 'd')) {
    snprintf(dest, 256, "/mnt/md%s/", d + 1);
    return 0;
  }
  return -1;
}

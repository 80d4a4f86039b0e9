// Share configuration: /etc/upnpav.conf and the older "ShareFolder:" setting.
#ifndef MEDIAWALK_DRIVER_CONFIG_H_
#define MEDIAWALK_DRIVER_CONFIG_H_

struct ConfigData {
  char sharepath[256];
  char sharename[256];
  char mntpath[256];
  char sd_status[10];
};

extern ConfigData global_cdata;
// The folder being scanned: first the share path, then each queued folder
// (a 511-byte folder path with its "/" and the terminator).
extern char sharefolder[513];

// Reads the settings into *cdata. argc 1: /etc/upnpav.conf; argc 3 with
// argv[1] "-RC": the file argv[2]. Returns 0 when the file was read to its
// end, -1 on any error ("error happen: %s\n" with argv[0]).
int readconfig(int argc, char** argv, ConfigData* cdata);

// Same parser on an explicit file; the program name only names the errors.
int readconfig_file(const char* file, const char* progname, ConfigData* cdata);

// Copies the "ShareFolder:" value of /etc/upnpav.conf into dest (512 bytes),
// with a trailing "/" added if missing. Returns 1 when the file opened
// (found or not), 0 when it could not be opened.
int get_sharefolder(char* dest);
// Same on an explicit file, for tests.
int get_sharefolder_from(const char* file, char* dest);

// Turns a volume's device path into its mount path in dest (256 bytes).
// Returns 0 when written, -1 when the device path fits neither form.
int get_mntpath(const char* device, char* dest);

#endif  // MEDIAWALK_DRIVER_CONFIG_H_

// detect_char_encode: names the charset of a short text sample.
//
// The tag reader starts it once per MP3 file with the raw bytes of the tag's
// texts as its one argument, reads at most 18 bytes of what it prints and
// picks the conversion by exact comparison. So the answer is printed in the
// spelling the reader expects and without a trailing newline; an empty or
// undetectable sample prints nothing. The exit status is always 0: the reader
// does not look at it, and a failure must only mean "no answer".
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <uchardet/uchardet.h>

namespace {

// The detection library's names, and the spellings the tag reader compares.
// Names not in this table are printed as the library gives them.
const struct {
  const char* library_name;
  const char* answer;
} kSpellings[] = {
    {"WINDOWS-1251", "windows-1251"}, {"IBM866", "IBM866"},     {"MAC-CYRILLIC", "x-mac-cyrillic"},
    {"WINDOWS-1252", "windows-1252"}, {"KOI8-R", "KOI8-R"},     {"GB18030", "gb18030"},
    {"BIG5", "Big5"},                 {"IBM855", "IBM855"},     {"EUC-TW", "x-euc-tw"},
    {"ISO-8859-7", "ISO-8859-7"},
};

const char* answer_for(const char* library_name) {
  for (const auto& s : kSpellings)
    if (strcasecmp(library_name, s.library_name) == 0) return s.answer;
  return library_name;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argv[1][0] == '\0') return 0;
  uchardet_t detector = uchardet_new();
  if (detector == nullptr) return 0;
  const char* sample = argv[1];
  if (uchardet_handle_data(detector, sample, strlen(sample)) == 0) {
    uchardet_data_end(detector);
    const char* name = uchardet_get_charset(detector);
    if (name != nullptr && name[0] != '\0') fputs(answer_for(name), stdout);
  }
  uchardet_delete(detector);
  return 0;
}

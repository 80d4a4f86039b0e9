// Test cases kept as data: tables under tests/data/cases/, one case a line.
//
// A line holds fields separated by TABs; blank lines and lines starting with "#" are skipped.
// The first field names the case (letters, digits and "_"), the test shows it. A field is text
// with the escapes \t \n \r \\ \0 and \xHH, or, starting with "x:", bytes written as
// space-separated tokens: hex pairs ("49443303"), a repeated byte ("00*4096") or 'quoted text'.
#ifndef MEDIAWALK_TESTS_CASE_TABLE_H_
#define MEDIAWALK_TESTS_CASE_TABLE_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

struct Case {
  std::string name;
  std::vector<std::string> f;  // the fields after the name, decoded
  int line = 0;
  // Field `i`, or "" when the line is shorter.
  const std::string& at(size_t i) const {
    static const std::string none;
    return i < f.size() ? f[i] : none;
  }
  long num(size_t i) const { return strtol(at(i).c_str(), nullptr, 0); }
};

inline std::ostream& operator<<(std::ostream& os, const Case& c) {
  return os << c.name << " (line " << c.line << ")";
}

inline std::string decode_field(const std::string& s) {
  std::string out;
  auto hex = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
  if (s.compare(0, 2, "x:") == 0) {
    std::istringstream in(s.substr(2));
    std::string tok;
    while (in >> tok) {
      if (tok[0] == '\'') {
        while (tok.size() < 2 || tok.back() != '\'') {
          std::string more;
          if (!(in >> more)) break;
          tok += " " + more;
        }
        out += tok.substr(1, tok.size() - 2);
      } else if (size_t star = tok.find('*'); star != std::string::npos) {
        out.append(strtoul(tok.c_str() + star + 1, nullptr, 10), char(hex(tok[0]) << 4 | hex(tok[1])));
      } else {
        for (size_t i = 0; i + 1 < tok.size(); i += 2) out += char(hex(tok[i]) << 4 | hex(tok[i + 1]));
      }
    }
    return out;
  }
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '\\' || i + 1 == s.size()) {
      out += s[i];
      continue;
    }
    char e = s[++i];
    if (e == 'x' && i + 2 < s.size()) {
      out += char(hex(s[i + 1]) << 4 | hex(s[i + 2]));
      i += 2;
    } else {
      out += e == 't' ? '\t' : e == 'n' ? '\n' : e == 'r' ? '\r' : e == '0' ? '\0' : e;
    }
  }
  return out;
}

// Reads tests/data/cases/<file>; a missing or empty table is one failing case, never zero cases.
inline std::vector<Case> load_table(const std::string& file) {
  std::vector<Case> cases;
  std::ifstream in(std::string(MEDIAWALK_TEST_DATA) + "/cases/" + file);
  std::string line;
  for (int n = 1; std::getline(in, line); ++n) {
    if (line.empty() || line[0] == '#') continue;
    Case c;
    c.line = n;
    std::istringstream fields(line);
    std::string field;
    for (bool first = true; std::getline(fields, field, '\t'); first = false) {
      if (first)
        c.name = field;
      else
        c.f.push_back(decode_field(field));
    }
    cases.push_back(c);
  }
  if (cases.empty()) cases.push_back(Case{"missing_table_" + file.substr(0, file.find('.')), {}, 0});
  return cases;
}

inline std::string case_name(const ::testing::TestParamInfo<Case>& info) {
  std::string n = info.param.name;
  for (char& ch : n)
    if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
  return n;
}

// One parametrised suite over a table; the body sees the case as `c`:
//   TABLE_TEST(Suite, "file.tsv") { EXPECT_EQ(f(c.at(0)), c.at(1)); }
#define TABLE_TEST(suite, file)                                                             \
  class suite : public ::testing::TestWithParam<Case> {};                                   \
  static void suite##_run(const Case& c);                                                 \
  TEST_P(suite, Case) {                                                                     \
    ASSERT_NE(GetParam().line, 0) << "no table at tests/data/cases/" << file;               \
    suite##_run(GetParam());                                                                \
  }                                                                                         \
  INSTANTIATE_TEST_SUITE_P(Table, suite, ::testing::ValuesIn(load_table(file)), case_name); \
  static void suite##_run([[maybe_unused]] const Case& c)

#endif  // MEDIAWALK_TESTS_CASE_TABLE_H_

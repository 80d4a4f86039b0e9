// The detector's answers: the language setting decides between readings it is unsure of.
#include "detector_core.h"

#include <gtest/gtest.h>

#include <string>

#include "../case_table.h"
#include "../temp_tree.h"

namespace {

// "(unchanged)": the answer the detector gives with no setting.
TABLE_TEST(DetectorPrior, "detector_prior.tsv") {
  TempTree tree;
  const std::string none = tree.root() + "none";
  CharsetDetector with_setting((c.at(0) == "-" ? none : tree.file("codepage", c.at(0))).c_str());
  const std::string expected = c.at(2) == "(unchanged)" ? CharsetDetector(none.c_str()).detect(c.at(1).c_str()) : c.at(2);
  EXPECT_EQ(with_setting.detect(c.at(1).c_str()), expected);
  EXPECT_EQ(with_setting.detect(c.at(1).c_str()), expected);  // asked again, it answers alike
}

}  // namespace

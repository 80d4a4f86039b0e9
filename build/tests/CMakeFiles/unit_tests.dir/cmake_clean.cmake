file(REMOVE_RECURSE
  "CMakeFiles/unit_tests.dir/driver/config_test.cc.o"
  "CMakeFiles/unit_tests.dir/driver/config_test.cc.o.d"
  "CMakeFiles/unit_tests.dir/library/objid_test.cc.o"
  "CMakeFiles/unit_tests.dir/library/objid_test.cc.o.d"
  "CMakeFiles/unit_tests.dir/library/sql_test.cc.o"
  "CMakeFiles/unit_tests.dir/library/sql_test.cc.o.d"
  "unit_tests"
  "unit_tests.pdb"
  "unit_tests[1]_tests.cmake"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/unit_tests.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()

file(REMOVE_RECURSE
  "CMakeFiles/mediawalk.dir/src/driver/main.cc.o"
  "CMakeFiles/mediawalk.dir/src/driver/main.cc.o.d"
  "mediawalk"
  "mediawalk.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/mediawalk.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()

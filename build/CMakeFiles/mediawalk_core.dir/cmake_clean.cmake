file(REMOVE_RECURSE
  "CMakeFiles/mediawalk_core.dir/src/driver/config.cc.o"
  "CMakeFiles/mediawalk_core.dir/src/driver/config.cc.o.d"
  "CMakeFiles/mediawalk_core.dir/src/library/objid.cc.o"
  "CMakeFiles/mediawalk_core.dir/src/library/objid.cc.o.d"
  "CMakeFiles/mediawalk_core.dir/src/library/schema.cc.o"
  "CMakeFiles/mediawalk_core.dir/src/library/schema.cc.o.d"
  "CMakeFiles/mediawalk_core.dir/src/library/sql.cc.o"
  "CMakeFiles/mediawalk_core.dir/src/library/sql.cc.o.d"
  "libmediawalk_core.a"
  "libmediawalk_core.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/mediawalk_core.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()


# Consider dependencies only in project.
set(CMAKE_DEPENDS_IN_PROJECT_ONLY OFF)

# The set of languages for which implicit dependencies are needed:
set(CMAKE_DEPENDS_LANGUAGES
  )

# The set of dependency files which are needed:
set(CMAKE_DEPENDS_DEPENDENCY_FILES
  "/work/main/src/driver/config.cc" "CMakeFiles/mediawalk_core.dir/src/driver/config.cc.o" "gcc" "CMakeFiles/mediawalk_core.dir/src/driver/config.cc.o.d"
  "/work/main/src/library/objid.cc" "CMakeFiles/mediawalk_core.dir/src/library/objid.cc.o" "gcc" "CMakeFiles/mediawalk_core.dir/src/library/objid.cc.o.d"
  "/work/main/src/library/schema.cc" "CMakeFiles/mediawalk_core.dir/src/library/schema.cc.o" "gcc" "CMakeFiles/mediawalk_core.dir/src/library/schema.cc.o.d"
  "/work/main/src/library/sql.cc" "CMakeFiles/mediawalk_core.dir/src/library/sql.cc.o" "gcc" "CMakeFiles/mediawalk_core.dir/src/library/sql.cc.o.d"
  )

# Targets to which this target links.
set(CMAKE_TARGET_LINKED_INFO_FILES
  )

# Fortran module output directory.
set(CMAKE_Fortran_TARGET_MODULE_DIR "")

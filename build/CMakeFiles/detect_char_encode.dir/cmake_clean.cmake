file(REMOVE_RECURSE
  "CMakeFiles/detect_char_encode.dir/tools/detect_char_encode/detect_char_encode.cc.o"
  "CMakeFiles/detect_char_encode.dir/tools/detect_char_encode/detect_char_encode.cc.o.d"
  "detect_char_encode"
  "detect_char_encode.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/detect_char_encode.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()

# CMake generated Testfile for 
# Source directory: /work/main/tests
# Build directory: /work/main/build/tests
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
include("/work/main/build/tests/unit_tests[1]_include.cmake")
add_test([=[tools.detector]=] "/root/.pyenv/shims/python3" "-m" "unittest" "-v" "test_detector")
set_tests_properties([=[tools.detector]=] PROPERTIES  ENVIRONMENT "DETECTOR_BIN=/work/main/build/detect_char_encode;MEDIAWALK_LAUNCHER=" TIMEOUT "300" WORKING_DIRECTORY "/work/main/tests/tools" _BACKTRACE_TRIPLES "/work/main/tests/CMakeLists.txt;30;add_test;/work/main/tests/CMakeLists.txt;0;")

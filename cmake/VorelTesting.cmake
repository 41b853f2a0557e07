# Test helpers shared by every directory that registers tests.
include(GoogleTest)

# The tests that start threads of their own, by the names of their suites;
# they carry the label "threaded", which the ThreadSanitizer job selects.
set(VOREL_THREADED_TESTS "*Driver*:*Threaded*")

# Registers the GoogleTest cases of TARGET with ctest, each with a TIMEOUT
# (seconds) and the label "threaded" when its name matches
# VOREL_THREADED_TESTS. The executable lists its cases at build time, once for
# each of the two label sets.
#   vorel_discover_tests(TARGET [TEST_PREFIX prefix] [TIMEOUT seconds])
function(vorel_discover_tests target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "TEST_PREFIX;TIMEOUT" "")
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 300)
  endif()
  gtest_discover_tests(${target} TEST_PREFIX "${arg_TEST_PREFIX}" DISCOVERY_TIMEOUT 60
                       TEST_FILTER "${VOREL_THREADED_TESTS}"
                       PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS threaded)
  gtest_discover_tests(${target} TEST_PREFIX "${arg_TEST_PREFIX}" DISCOVERY_TIMEOUT 60
                       TEST_FILTER "-${VOREL_THREADED_TESTS}"
                       PROPERTIES TIMEOUT ${arg_TIMEOUT})
endfunction()

# Runs a program of examples/ and compares its standard output with a file.
#   vorel_add_output_test(NAME name COMMAND program [args...] EXPECTED file [THREADED])
function(vorel_add_output_test)
  cmake_parse_arguments(PARSE_ARGV 0 arg "THREADED" "NAME;EXPECTED" "COMMAND")
  list(POP_FRONT arg_COMMAND program)
  add_test(NAME ${arg_NAME}
           COMMAND ${CMAKE_COMMAND} "-DPROGRAM=$<TARGET_FILE:${program}>" "-DARGS=${arg_COMMAND}"
                   "-DEXPECTED=${arg_EXPECTED}" -P ${PROJECT_SOURCE_DIR}/cmake/CompareOutput.cmake)
  set_tests_properties(${arg_NAME} PROPERTIES TIMEOUT 60)
  if(arg_THREADED)
    set_tests_properties(${arg_NAME} PROPERTIES LABELS threaded)
  endif()
endfunction()

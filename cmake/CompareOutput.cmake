# Runs PROGRAM with the ;-list ARGS and fails unless it exits with 0 and its
# standard output equals the file EXPECTED.
#   cmake -DPROGRAM=... -DARGS=... -DEXPECTED=... -P CompareOutput.cmake
execute_process(COMMAND ${PROGRAM} ${ARGS}
                RESULT_VARIABLE status OUTPUT_VARIABLE actual ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} ${ARGS} exited with ${status}\n${errors}")
endif()
file(READ ${EXPECTED} expected)
if(NOT actual STREQUAL expected)
  message(FATAL_ERROR "${PROGRAM} ${ARGS}: the output differs from ${EXPECTED}\n"
                      "expected:\n${expected}\nprinted:\n${actual}")
endif()

# Fails when the built library holds a fused multiply-add instruction: every
# result is defined by separate multiplications and additions, each rounded.
# Run with -DOBJDUMP=<objdump> -DLIBRARY=<the library file>.
execute_process(
  COMMAND ${OBJDUMP} -d --no-show-raw-insn ${LIBRARY}
  OUTPUT_VARIABLE listing
  RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "${OBJDUMP} could not read ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]*[ \t]vfn?m(add|sub)[a-z0-9]*[ \t][^\n]*" fused "${listing}")
list(LENGTH fused count)
if(count GREATER 0)
  list(SUBLIST fused 0 5 first)
  list(JOIN first "\n" shown)
  message(FATAL_ERROR "${count} fused multiply-add instructions in ${LIBRARY}, among them:\n${shown}")
endif()
string(LENGTH "${listing}" size)
if(size LESS 1000)
  message(FATAL_ERROR "no code listed for ${LIBRARY}")
endif()
message(STATUS "no fused multiply-add in ${LIBRARY}")

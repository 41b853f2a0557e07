# vorel_find_python(<variable> <imports>)
#
# Sets <variable> to the first of `python3` on PATH and /usr/bin/python3 that
# runs the Python statement <imports> (e.g. "import numpy, pandas"), or to ""
# when neither does. A developer's own interpreter (pyenv, a venv) often comes
# first on PATH without the packages the tests need; Debian's has them once
# scripts/install-deps ran.
function(vorel_find_python variable imports)
  find_program(vorel_path_python python3 NO_CACHE)
  set(found "")
  foreach(candidate ${vorel_path_python} /usr/bin/python3)
    if(NOT EXISTS "${candidate}")
      continue()
    endif()
    execute_process(COMMAND ${candidate} -c "${imports}"
                    RESULT_VARIABLE lacks OUTPUT_QUIET ERROR_QUIET)
    if(NOT lacks)
      set(found "${candidate}")
      break()
    endif()
  endforeach()
  set(${variable} "${found}" PARENT_SCOPE)
endfunction()

# Configures, builds and runs the project of this folder: vorel built from
# SOURCE_DIR with the host implementation of host.cpp in place of vorel::host.
#   cmake -DVOREL_SOURCE_DIR=... -DWORK_DIR=... -DCOMPILER=... [-DLAUNCHER=ccache] -P check.cmake
file(REMOVE_RECURSE ${WORK_DIR})
include(${CMAKE_CURRENT_LIST_DIR}/../run.cmake)

# Unoptimised: the point is the linking, and it keeps the build short.
run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR} -B ${WORK_DIR} -DCMAKE_BUILD_TYPE=Debug
    -DVOREL_SOURCE_DIR=${VOREL_SOURCE_DIR} -DCMAKE_CXX_COMPILER=${COMPILER}
    -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER})
run(${CMAKE_COMMAND} --build ${WORK_DIR} --target own_host_check -j2)
run(${WORK_DIR}/own_host_check)
if(NOT LAST_OUTPUT MATCHES "own host ok")
  message(FATAL_ERROR "own_host_check printed: ${LAST_OUTPUT}")
endif()

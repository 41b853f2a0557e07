# Installs the built library into WORK_DIR/prefix, then configures, builds and
# runs the consumer project against it: once through find_package, once by
# compiling by hand with the flags from the pkg-config file.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix} --config ${CONFIG})
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)
if(NOT LAST_OUTPUT MATCHES "consumer ok")
  message(FATAL_ERROR "consumer printed: ${LAST_OUTPUT}")
endif()

find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB_RECURSE pcfiles ${prefix}/*/vorel.pc)
list(GET pcfiles 0 pcfile)
get_filename_component(pcdir ${pcfile} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pcdir})
# The directories it names must be those the library and headers went to,
# below the prefix given at install time, whatever the library directory
# (the ci preset installs to a multiarch lib/<triplet>).
run(${PKG_CONFIG} --variable=libdir vorel)
string(STRIP "${LAST_OUTPUT}" libdir)
file(GLOB libraries ${libdir}/libvorel.*)
if(NOT libraries OR NOT libdir MATCHES "^${prefix}/")
  message(FATAL_ERROR "vorel.pc names libdir ${libdir}, which holds no libvorel")
endif()
run(${PKG_CONFIG} --variable=includedir vorel)
string(STRIP "${LAST_OUTPUT}" includedir)
if(NOT EXISTS ${includedir}/vorel/vorel.h OR NOT includedir MATCHES "^${prefix}/")
  message(FATAL_ERROR "vorel.pc names includedir ${includedir}, which holds no vorel/vorel.h")
endif()
run(${PKG_CONFIG} --cflags --libs vorel)
string(STRIP "${LAST_OUTPUT}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ ${SOURCE_DIR}/main.cpp -o ${WORK_DIR}/consumer-pc ${flags})
run(${WORK_DIR}/consumer-pc)
if(NOT LAST_OUTPUT MATCHES "consumer ok")
  message(FATAL_ERROR "pkg-config consumer printed: ${LAST_OUTPUT}")
endif()

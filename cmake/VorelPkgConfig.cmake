# vorel.pc for pkg-config. Its prefix is the one the library is installed to,
# taken at install time (so `cmake --install --prefix DIR` is honoured), and its
# directories are the configured ones below that prefix: lib, lib64 or a
# multiarch lib/<triplet> alike.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(VOREL_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(VOREL_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
set(VOREL_PC_PREFIX "@VOREL_PC_PREFIX@")  # filled in at install time
configure_file(${CMAKE_CURRENT_LIST_DIR}/vorel.pc.in ${PROJECT_BINARY_DIR}/vorel.pc.in @ONLY)
install(CODE "
  set(VOREL_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${PROJECT_BINARY_DIR}/vorel.pc.in\" \"${PROJECT_BINARY_DIR}/vorel.pc\" @ONLY)")
install(FILES ${PROJECT_BINARY_DIR}/vorel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Only the public headers (include/) are installed; what lies under src/ stays inside the library.
install(TARGETS pelm pelm_testing EXPORT pelmTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/pelm ${PROJECT_BINARY_DIR}/include/pelm
  ${PROJECT_SOURCE_DIR}/testing/include/pelm
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.hpp")
install(EXPORT pelmTargets NAMESPACE pelm:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelm)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/pelmConfig.cmake.in
  ${PROJECT_BINARY_DIR}/pelmConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelm)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/pelmConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pelmConfig.cmake ${PROJECT_BINARY_DIR}/pelmConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelm)

# pkg-config: `pkg-config --cflags --libs pelm`; the libraries libpelm calls are listed for `--static`.
# The prefix is found from the file's own place, so that an install moved elsewhere (or made with --prefix)
# still points at itself.
set(PELM_PC_REQUIRES_PRIVATE "libcurl, openssl, sdbus-c++, libsystemd")
file(RELATIVE_PATH PELM_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/pelm.pc.in ${PROJECT_BINARY_DIR}/pelm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pelm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pelm)

if(TARGET pelm-cli)
  install(TARGETS pelm-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
if(TARGET pelm-server)
  install(TARGETS pelm-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

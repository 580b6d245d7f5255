include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS pelm EXPORT pelmTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/src/pelm DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.hpp")
install(EXPORT pelmTargets NAMESPACE pelm:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelm)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/pelmConfig.cmake.in
  ${PROJECT_BINARY_DIR}/pelmConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelm)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/pelmConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pelmConfig.cmake ${PROJECT_BINARY_DIR}/pelmConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelm)
if(TARGET pelm-cli)
  install(TARGETS pelm-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Only the public headers (include/) are installed; what lies under src/ stays inside the library.
# Each file belongs to one component, and each component becomes one Debian package (cmake/package.cmake):
# Runtime the shared library, Development what a host builds with, Tools `pelm`, Server `pelm-server`,
# Python the package `pelm` for Debian's Python 3.
# Debian names a shared library's package after its soname, so that two majors can be installed side by side.
set(PELM_PACKAGE_Runtime libpelm${PROJECT_VERSION_MAJOR})
set(PELM_PACKAGE_Development libpelm-dev)
set(PELM_PACKAGE_Tools pelm-tools)
set(PELM_PACKAGE_Server pelm-server)
set(PELM_PACKAGE_Python python3-pelm)
# Every package carries the licence in Debian's copyright format, and a Debian changelog, where Debian looks
# for them (the changelog is made by cmake/package.cmake).
function(pelm_install_copyright component)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${PELM_PACKAGE_${component}} COMPONENT ${component})
endfunction()

install(TARGETS pelm pelm_testing EXPORT pelmTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/pelm ${PROJECT_BINARY_DIR}/include/pelm
  ${PROJECT_SOURCE_DIR}/testing/include/pelm
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development FILES_MATCHING PATTERN "*.hpp")
install(EXPORT pelmTargets NAMESPACE pelm:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelm COMPONENT Development)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/pelmConfig.cmake.in
  ${PROJECT_BINARY_DIR}/pelmConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelm)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/pelmConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pelmConfig.cmake ${PROJECT_BINARY_DIR}/pelmConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelm COMPONENT Development)

# pkg-config: `pkg-config --cflags --libs pelm`; the libraries libpelm calls are listed for `--static`.
# The prefix is found from the file's own place, so that an install moved elsewhere (or made with --prefix)
# still points at itself.
# A shared libpelm carries its libraries as its own dependencies; only a static one needs their .pc files, so
# only a static one names them (a machine with just the packages has none of their -dev files).
if(PELM_SHARED)
  set(PELM_PC_REQUIRES_PRIVATE_LINE "")
else()
  set(PELM_PC_REQUIRES_PRIVATE_LINE "Requires.private: libcurl, openssl, sdbus-c++, libsystemd")
endif()
file(RELATIVE_PATH PELM_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/pelm.pc.in ${PROJECT_BINARY_DIR}/pelm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pelm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
include(cmake/package.cmake)  # the packages' settings and changelog; CPack itself is included last
pelm_install_copyright(Runtime)
pelm_install_copyright(Development)
# The examples, to be built against the install as they stand.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/minimal_host ${PROJECT_SOURCE_DIR}/examples/glib_host
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${PELM_PACKAGE_Development}/examples COMPONENT Development)

if(TARGET pelm-cli)
  install(TARGETS pelm-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
  pelm_install_copyright(Tools)
endif()
if(TARGET pelm-server)
  install(TARGETS pelm-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Server)
  pelm_install_copyright(Server)
  # The service: the demo data it serves until it is given other data, and its systemd unit.
  install(FILES ${PROJECT_SOURCE_DIR}/data/demo_seed.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/pelm-server COMPONENT Server)
  set(PELM_SERVER_STATE_DIR ${CMAKE_INSTALL_FULL_LOCALSTATEDIR}/lib/pelm-server)
  set(PELM_SERVER_DATA_DIR ${CMAKE_INSTALL_FULL_DATADIR}/pelm-server)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/pelm-server.service.in
    ${PROJECT_BINARY_DIR}/pelm-server.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pelm-server.service
    DESTINATION lib/systemd/system COMPONENT Server)
endif()
if(TARGET pelm_python)
  # Where Debian keeps modules for every Python 3; the module is linked statically, so it needs no libpelm.
  set(PELM_PYTHON_DIR lib/python3/dist-packages/pelm)
  install(TARGETS pelm_python LIBRARY DESTINATION ${PELM_PYTHON_DIR} COMPONENT Python)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/pelm/ DESTINATION ${PELM_PYTHON_DIR} COMPONENT Python
    FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/python/
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${PELM_PACKAGE_Python}/examples COMPONENT Python
    FILES_MATCHING PATTERN "*.py")
  install(FILES ${PROJECT_SOURCE_DIR}/examples/minimal_host/entrance.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${PELM_PACKAGE_Python}/examples COMPONENT Python)
  pelm_install_copyright(Python)
endif()

include(CPack)

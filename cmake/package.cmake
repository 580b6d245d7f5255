# Debian packages, one per install component: `scripts/package.sh` builds them into build/packages/.
# Dependencies on Debian's libraries are read from the binaries by dpkg-shlibdeps; the others are named here.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pelm)
set(CPACK_PACKAGE_VENDOR "the pelm developers")
set(CPACK_PACKAGE_CONTACT "pelm developers <pelm@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_OUTPUT_FILE_PREFIX ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime Development)
if(PELM_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL Tools)
endif()
if(PELM_BUILD_SERVER)
  list(APPEND CPACK_COMPONENTS_ALL Server)
endif()
if(TARGET pelm_python)
  list(APPEND CPACK_COMPONENTS_ALL Python)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(PELM_DEB_VERSION "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)  # only the library's package has one

# The Debian changelog every package carries, dated now (or at SOURCE_DATE_EPOCH, for a reproducible build).
string(TIMESTAMP PELM_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.Debian.in ${PROJECT_BINARY_DIR}/debian/changelog.Debian
  @ONLY)
file(ARCHIVE_CREATE OUTPUT ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz
  PATHS ${PROJECT_BINARY_DIR}/debian/changelog.Debian FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9 MTIME 0)

# The maintainer scripts go in under the names dpkg expects.
function(pelm_control_files component)
  set(files)
  foreach(pair ${ARGN})
    string(REPLACE "=" ";" pair ${pair})
    list(GET pair 0 source)
    list(GET pair 1 name)
    configure_file(${PROJECT_SOURCE_DIR}/packaging/${source} ${PROJECT_BINARY_DIR}/debian/${component}/${name}
      COPYONLY)
    list(APPEND files ${PROJECT_BINARY_DIR}/debian/${component}/${name})
  endforeach()
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${files} PARENT_SCOPE)
endfunction()

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${PELM_PACKAGE_${component}})
endforeach()

set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "beacon-triggered content for Linux hosts: the shared library
pelm fetches an app's configuration from a content server, watches Bluetooth
Low Energy beacons through BlueZ, asks the server for the content that
belongs to a beacon as the user comes near it or leaves it, and uploads each
store visit.")
# The loader's cache is brought up to date by dpkg's trigger, once for all the libraries of a run.
pelm_control_files(Runtime libpelm.triggers=triggers)

set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "beacon-triggered content for Linux hosts: development files
The headers, the CMake package (find_package(pelm)), the pkg-config file
(pelm) and the testing library for building host apps with pelm, and two
example hosts to start from.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${PELM_PACKAGE_Runtime} (= ${PELM_DEB_VERSION}), nlohmann-json3-dev (>= 3.10)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)

set(CPACK_DEBIAN_TOOLS_DESCRIPTION "beacon-triggered content for Linux hosts: the pelm tool
pelm simulates a store visit against an embedded content server, replays
Bluetooth recordings to the visits a phone would log, records
advertisements, and checks a server and this machine.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)

set(CPACK_DEBIAN_SERVER_DESCRIPTION "beacon-triggered content for Linux hosts: reference content server
pelm-server serves app configurations and beacon contents over HTTPS and
stores the uploaded visits in SQLite or PostgreSQL. The service runs as the
user pelm with its data in /var/lib/pelm-server.")
set(CPACK_DEBIAN_SERVER_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS "adduser")
pelm_control_files(Server pelm-server.postinst=postinst pelm-server.prerm=prerm pelm-server.postrm=postrm)

set(CPACK_DEBIAN_PYTHON_DESCRIPTION "beacon-triggered content for Linux hosts: Python 3 package
The package pelm: a host app in Python (content, status lines and visit
events as callbacks, on a blocking loop or asyncio), and recordings read as
numpy columns and replayed into the visits a phone would log, as pandas
DataFrames, with the embedded reference server.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
# The module is built for this Python 3 only, as Debian's own python3-* packages of compiled modules are.
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
  "python3 (>= ${Python_VERSION_MAJOR}.${Python_VERSION_MINOR}), python3 (<< ${Python_VERSION_MAJOR}.${Python_VERSION_MINOR}.999)")
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS "python3-numpy, python3-pandas")
# Python's bytecode cache is made at install and removed before removal, as Debian's Python packages do.
pelm_control_files(Python python3-pelm.postinst=postinst python3-pelm.prerm=prerm)

# include(CPack) comes last in install.cmake, once every install rule is known.

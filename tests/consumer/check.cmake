# Installs the built tree into a scratch prefix, then configures, builds and runs a consumer of it.
file(REMOVE_RECURSE ${WORK_DIR})
# Installs write a manifest into the build tree, so they take turns (the examples install too).
execute_process(COMMAND flock ${BUILD_DIR}/install.lock ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
  RESULT_VARIABLE result OUTPUT_QUIET)
if(result)
  message(FATAL_ERROR "install failed")
endif()
# Only the public headers travel: nothing from src/.
file(GLOB_RECURSE internal RELATIVE ${CONSUMER_DIR}/../../src/pelm ${CONSUMER_DIR}/../../src/pelm/*.hpp)
foreach(header IN LISTS internal)
  if(EXISTS ${WORK_DIR}/prefix/include/pelm/${header})
    message(FATAL_ERROR "the internal header ${header} was installed")
  endif()
endforeach()

# Each installed header is a host's to include on its own: it compiles alone, and (but for the test kit) it
# shows the host only its API, with no private member function, JSON binding or test hook. How long each took is printed (a figure to
# watch, not a pass mark).
file(GLOB_RECURSE installed RELATIVE ${WORK_DIR}/prefix/include ${WORK_DIR}/prefix/include/pelm/*.hpp)
foreach(header IN LISTS installed)
  file(WRITE ${WORK_DIR}/alone.cpp "#include <${header}>\n")
  string(TIMESTAMP started "%s%f")
  execute_process(COMMAND ${CXX} -std=c++20 -fsyntax-only -Wall -Wextra -Wpedantic -Werror
    -I${WORK_DIR}/prefix/include ${WORK_DIR}/alone.cpp RESULT_VARIABLE result ERROR_VARIABLE errors)
  string(TIMESTAMP ended "%s%f")
  if(result)
    message(FATAL_ERROR "${header} does not compile on its own:\n${errors}")
  endif()
  math(EXPR milliseconds "(${ended} - ${started}) / 1000")
  message(STATUS "${header} alone: ${milliseconds} ms")

  # pelm::testing is the hosts' own test kit: its doubles are for tests by design.
  if(header MATCHES "^pelm/testing/")
    continue()
  endif()
  file(READ ${WORK_DIR}/prefix/include/${header} text)
  if(text MATCHES "Mappable|JSONReader|JSONWriter|mapping\\(|RawValues|for tests|friend struct")
    message(FATAL_ERROR "${header} shows the library's machinery: ${CMAKE_MATCH_0}")
  endif()
  # Members are private from a class's opening to its first access label, and after each `private:`.
  file(STRINGS ${WORK_DIR}/prefix/include/${header} lines)
  set(section public)
  foreach(line IN LISTS lines)
    if(line MATCHES "^ *(public|protected|private):")
      set(section ${CMAKE_MATCH_1})
    elseif(line MATCHES "^ *class [A-Za-z_]+[^;]*{")
      set(section private)
    elseif(line MATCHES "^ *struct [A-Za-z_]+[^;]*{" AND NOT section STREQUAL private)
      set(section public)
    elseif(section STREQUAL private AND NOT line MATCHES "^ *//" AND NOT line MATCHES "="
           AND line MATCHES "^ *[^ (<].*[ *&~][A-Za-z_][A-Za-z0-9_]* *\\(")
      message(FATAL_ERROR "${header} declares a private member function: ${line}")
    endif()
  endforeach()
endforeach()

execute_process(COMMAND ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build -G Ninja
  -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "configuring the consumer failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "building the consumer failed")
endif()
execute_process(COMMAND ${WORK_DIR}/build/consumer RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "the consumer failed")
endif()
execute_process(COMMAND ${WORK_DIR}/build/host_test RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "the host's test with the installed pelm::testing kit failed")
endif()

# The shared library exports the pelm namespace and nothing else: an instantiation of the standard library
# it exported would be bound by hosts in place of their own.
file(GLOB shared_library ${WORK_DIR}/prefix/lib*/libpelm.so ${WORK_DIR}/prefix/lib/*/libpelm.so)
if(shared_library)
  find_program(NM nm REQUIRED)
  execute_process(COMMAND ${NM} -D --defined-only -C ${shared_library} OUTPUT_VARIABLE symbols
    RESULT_VARIABLE result)
  if(result)
    message(FATAL_ERROR "nm could not read ${shared_library}")
  endif()
  string(REPLACE "\n" ";" symbols "${symbols}")
  set(foreign "")
  foreach(symbol IN LISTS symbols)
    string(REGEX REPLACE "^[0-9a-f]+ [A-Za-z] " "" name "${symbol}")
    if(NOT name STREQUAL "" AND NOT name MATCHES "^((typeinfo|typeinfo name|vtable|VTT|guard variable) for |(non-)?virtual thunk to )?pelm::"
       AND NOT name MATCHES "^PELM_[0-9.]+$")
      string(APPEND foreign "\n  ${name}")
    endif()
  endforeach()
  if(foreign)
    message(FATAL_ERROR "libpelm.so exports more than the pelm namespace:${foreign}")
  endif()
endif()

# The same consumer through pkg-config and a bare compiler.
find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB_RECURSE pc_file ${WORK_DIR}/prefix/pelm.pc)
get_filename_component(pc_dir "${pc_file}" DIRECTORY)
execute_process(COMMAND ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir} ${PKG_CONFIG} --cflags --libs pelm
  OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "pkg-config does not know pelm")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
execute_process(COMMAND ${CXX} ${CONSUMER_DIR}/main.cpp -o ${WORK_DIR}/pc-consumer ${flags} RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "building the consumer with pkg-config's flags failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${WORK_DIR}/prefix/lib ${WORK_DIR}/pc-consumer
  RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "the pkg-config consumer failed")
endif()

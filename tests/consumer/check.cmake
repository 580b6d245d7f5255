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

# `pelm settings` shows the stored app token masked, and whole only with --show-token.
#   cmake -DPELM=path/to/pelm -DWORK_DIR=dir -P token_masking.cmake
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
file(WRITE ${WORK_DIR}/shop.json "{\"pelm.apptoken\": \"secret-token-abcdef\", \"pelm.apihost\": \"h\"}\n")

execute_process(COMMAND ${PELM} settings --app shop --config-dir ${WORK_DIR}
  OUTPUT_VARIABLE masked RESULT_VARIABLE status)
if(NOT status EQUAL 0 OR NOT masked MATCHES "secre…cdef" OR masked MATCHES "secret-token-abcdef")
  message(FATAL_ERROR "the token is not masked (exit ${status}):\n${masked}")
endif()

execute_process(COMMAND ${PELM} settings --app shop --config-dir ${WORK_DIR} --show-token
  OUTPUT_VARIABLE whole RESULT_VARIABLE status)
if(NOT status EQUAL 0 OR NOT whole MATCHES "\"secret-token-abcdef\"")
  message(FATAL_ERROR "--show-token does not show the token (exit ${status}):\n${whole}")
endif()

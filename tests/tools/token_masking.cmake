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

# Every length: below ten characters nothing of the token is shown; from ten on, its first five and last four,
# never the whole. A short token shown whole is a token given away.
set(alphabet "ABCDEFGHIJKLMNOPQRSTUVWXYZ")
foreach(length RANGE 1 20)
  string(SUBSTRING "${alphabet}" 0 ${length} token)
  file(WRITE ${WORK_DIR}/shop.json "{\"pelm.apptoken\": \"${token}\", \"pelm.apihost\": \"h\"}\n")
  execute_process(COMMAND ${PELM} settings --app shop --config-dir ${WORK_DIR}
    OUTPUT_VARIABLE shown RESULT_VARIABLE status)
  string(REGEX MATCH "pelm.apptoken[^\n]*" line "${shown}")
  if(length LESS 10)
    set(expected "…")
  else()
    math(EXPR tail_at "${length} - 4")
    string(SUBSTRING "${token}" 0 5 head)
    string(SUBSTRING "${token}" ${tail_at} 4 tail)
    set(expected "${head}…${tail}")
  endif()
  if(NOT status EQUAL 0 OR NOT line MATCHES "\"${expected} \\(--show-token" OR (length GREATER 1 AND line MATCHES "${token}"))
    message(FATAL_ERROR "a token of ${length} characters is shown as '${line}', not '${expected}'")
  endif()
endforeach()

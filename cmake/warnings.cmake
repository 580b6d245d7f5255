# Our own targets build warning-free; third-party headers come in as SYSTEM includes.
function(pelm_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
endfunction()

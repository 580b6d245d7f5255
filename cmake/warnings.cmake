# Our own targets build warning-free; third-party headers come in as SYSTEM includes.
function(pelm_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # Reading and changing one object in unsequenced expressions: gcc and clang order them differently.
    target_compile_options(${target} PRIVATE -Wunsequenced)
  endif()
endfunction()

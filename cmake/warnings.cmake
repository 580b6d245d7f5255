# Our own targets build warning-free; third-party headers come in as SYSTEM includes.
function(pelm_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # Reading and changing one object in unsequenced expressions: gcc and clang order them differently.
    target_compile_options(${target} PRIVATE -Wunsequenced)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # gcc 12 at -O3 warns of an overlap inside libstdc++'s own `"text" + std::string` (its bug 105329): the
    # release build would fail on code that is fine.
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
endfunction()

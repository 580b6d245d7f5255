# The README's code is the example's code: fails when the two have drifted apart. LANG names the code block's
# language (cpp when not given).
if(NOT LANG)
  set(LANG cpp)
endif()
file(READ ${README} readme)
file(READ ${EXAMPLE} example)
string(FIND "${readme}" "```${LANG}\n${example}```" at)
if(at EQUAL -1)
  message(FATAL_ERROR "README.md no longer shows ${EXAMPLE} as it is: copy the file into its code block")
endif()

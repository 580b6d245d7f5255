# The README's "Getting started" code is the example's code: fails when the two have drifted apart.
file(READ ${README} readme)
file(READ ${EXAMPLE} example)
string(FIND "${readme}" "```cpp\n${example}```" at)
if(at EQUAL -1)
  message(FATAL_ERROR "README.md no longer shows ${EXAMPLE} as it is: copy the file into its code block")
endif()

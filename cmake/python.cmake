# Python and pybind11 for the package `pelm`. Debian's interpreter is the default: its numpy and pandas are
# what the tests use, and a pyenv or other python3 earlier on PATH has neither. `pip install` names its own.
set(PYBIND11_FINDPYTHON ON)
if(NOT DEFINED Python_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python_EXECUTABLE /usr/bin/python3)
endif()
find_package(Python 3.9 COMPONENTS Interpreter Development.Module QUIET)
if(Python_FOUND)
  find_package(pybind11 2.10 CONFIG QUIET)
endif()

// The module `pelm._pelm`: what the Python package `pelm` is built on. The package's own Python (python/pelm)
// gives it Python's types and names; this module only moves data across and keeps the GIL released while
// the library works or waits.
#include <pybind11/pybind11.h>

#include "bindings.hpp"

PYBIND11_MODULE(_pelm, module) {
    module.doc() = "pelm's library, lab and embedded server; use the package `pelm`, not this module";
    pelm::python::bindRecordings(module);
    pelm::python::bindRuns(module);
    pelm::python::bindHost(module);
}

#pragma once

#include <pybind11/pybind11.h>

namespace pelm::python {

/// pelm.read: a recording's advertisements, one by one or as columns.
void bindRecordings(pybind11::module_& module);
/// pelm.replay, pelm.simulate, pelm.report and the embedded server.
void bindRuns(pybind11::module_& module);
/// The host API: the stored configuration, the beacon and device status managers, the run loop.
void bindHost(pybind11::module_& module);

}  // namespace pelm::python

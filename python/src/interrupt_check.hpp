#pragma once

#include <chrono>
#include <optional>

#include <pybind11/pybind11.h>

namespace pelm::python {

/// Ctrl-C during a run that holds no GIL: asked between steps with the GIL released, it takes the GIL a
/// few times a second to let Python's handlers run. Once one raised (KeyboardInterrupt), the run is asked
/// to end, and rethrow() raises it in Python.
class InterruptCheck {
  public:
    bool operator()() {
        if (error_) return true;
        const auto now = std::chrono::steady_clock::now();
        if (now < next_) return false;
        next_ = now + std::chrono::milliseconds(50);
        pybind11::gil_scoped_acquire gil;
        if (PyErr_CheckSignals() != 0) error_.emplace();
        return error_.has_value();
    }
    /// Raises what a signal handler raised, if one did; call with the GIL held.
    void rethrow() {
        if (!error_) return;
        auto error = std::move(*error_);
        error_.reset();
        throw error;
    }

  private:
    std::chrono::steady_clock::time_point next_{};
    std::optional<pybind11::error_already_set> error_;
};

}  // namespace pelm::python

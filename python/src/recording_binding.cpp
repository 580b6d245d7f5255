// pelm.read: a recording's advertisements one at a time (a Python object each) or all at once as numpy
// columns, read here without a Python step per advertisement.
#include <memory>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <pelm/platform/ble/ibeacon_advertisement.hpp>
#include <pelm/platform/ble/recording_reader.hpp>

#include "bindings.hpp"
#include "recording_columns.hpp"

namespace py = pybind11;

namespace pelm::python {
namespace {

// Hands a column to numpy without copying it: the array owns the vector from now on.
template <class T>
py::array_t<T> toArray(MappedColumn<T>&& column) {
    auto* owned = new MappedColumn<T>(std::move(column));
    py::capsule free(owned, [](void* data) { delete static_cast<MappedColumn<T>*>(data); });
    return py::array_t<T>(static_cast<py::ssize_t>(owned->size()), owned->data(), free);
}

py::dict columnsOf(const std::filesystem::path& file) {
    RecordingColumns columns;
    {
        py::gil_scoped_release unlocked;
        columns = readColumns(file);
    }
    py::dict out;
    out["time"] = toArray(std::move(columns.time));
    out["address"] = toArray(std::move(columns.address));
    out["scanner"] = toArray(std::move(columns.scanner));
    out["rssi"] = toArray(std::move(columns.rssi));
    out["uuid"] = toArray(std::move(columns.uuid));
    out["major"] = toArray(std::move(columns.major));
    out["minor"] = toArray(std::move(columns.minor));
    out["power"] = toArray(std::move(columns.power));
    out["addresses"] = columns.addresses.texts();
    out["scanners"] = columns.scanners.texts();
    out["uuids"] = columns.uuids.texts();
    out["format"] = columns.format;
    out["warning"] = columns.warning;
    return out;
}

// One advertisement at a time, for a loop in Python: (time in µs, address, rssi, data, scanner, uuid or
// None, major, minor, power).
class Reader {
  public:
    explicit Reader(const std::filesystem::path& file) : reader_(platform::RecordingReader::open(file)) {}

    py::object next() {
        if (!reader_->next(heard_)) throw py::stop_iteration();
        const auto frame = platform::parseIBeacon(heard_.data);
        const py::bytes data(reinterpret_cast<const char*>(heard_.data.data()), heard_.data.size());
        py::object uuid = frame ? py::object(py::str(frame->proximityUUID.uuidString())) : py::none();
        return py::make_tuple(heard_.at.time_since_epoch().count(), heard_.address, heard_.rssi, data,
                              heard_.receiver, uuid, frame ? frame->major : -1, frame ? frame->minor : -1,
                              frame ? frame->measuredPower : 0);
    }
    std::string format() const { return reader_->format(); }
    std::optional<std::string> warning() const { return reader_->warning(); }
    std::string where() const { return reader_->where(); }

  private:
    std::unique_ptr<platform::RecordingReader> reader_;
    platform::HeardAdvertisement heard_;
};

}  // namespace

void bindRecordings(py::module_& module) {
    py::register_exception<platform::RecordingError>(module, "RecordingError", PyExc_ValueError);
    module.def("read_columns", &columnsOf, py::arg("path"));
    py::class_<Reader>(module, "Reader")
        .def(py::init<const std::filesystem::path&>(), py::arg("path"))
        .def("__iter__", [](Reader& self) -> Reader& { return self; })
        .def("__next__", &Reader::next)
        .def_property_readonly("format", &Reader::format)
        .def_property_readonly("warning", &Reader::warning)
        .def_property_readonly("where", &Reader::where);
}

}  // namespace pelm::python

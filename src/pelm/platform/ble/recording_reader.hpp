#pragma once

#include <cstdint>
#include <filesystem>
#include <istream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include <pelm/platform/ble/region_engine.hpp>

namespace pelm::platform {

/// A file that is not what it claims to be: `what()` names the byte offset (or line) and what was expected
/// there ("offset 16: expected a btsnoop record header of 24 bytes").
class RecordingError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Plays back a recording of Bluetooth LE traffic as the advertisements a radio heard, in file order, one at
/// a time: a file of any size is read in constant memory. Formats:
/// - btsnoop (datalinks 1001 H1, 1002 H4, 2001 BlueZ monitor) and pcap/pcapng (link types 187 H4, 201 H4 with
///   direction, 251 LE link layer, 256 LE link layer with radio header), where the advertisements are the
///   HCI LE advertising reports (legacy and extended) travelling from controller to host, or the
///   link-layer PDUs ADV_IND, ADV_NONCONN_IND, ADV_SCAN_IND and SCAN_RSP;
/// - the JSON-lines trace: one {"t", "address", "rssi", "data", "scanner"} object per line.
class RecordingReader {
  public:
    virtual ~RecordingReader() = default;

    /// Opens `file` and tells its format from its first bytes. Throws RecordingError when it is none of them
    /// (or cannot be read).
    static std::unique_ptr<RecordingReader> open(const std::filesystem::path& file);
    /// The same over any stream; `name` is what errors call it.
    static std::unique_ptr<RecordingReader> open(std::unique_ptr<std::istream> in, std::string name);

    /// The next advertisement (with its time and receiver set) into `heard`, false at the end of the
    /// recording. `heard` keeps the memory of its texts and data, so a loop over one advertisement reads a
    /// file of any length without allocating. Throws RecordingError at the first thing in the file that is
    /// not what the format says. A last record cut short ends the recording with a warning instead.
    virtual bool next(HeardAdvertisement& heard) = 0;
    /// The same, as a value; none at the end.
    std::optional<HeardAdvertisement> next();
    /// "btsnoop (H4)", "pcapng", "JSON trace", ...
    virtual std::string format() const = 0;

    /// Set once the recording ended on a record cut short: what was played is everything before it.
    const std::optional<std::string>& warning() const { return warning_; }
    /// Where the advertisement `next` handed out last stands in the file: its line, or the byte offset of
    /// its packet.
    std::uint64_t place() const { return place_; }
    /// A place of this file in words: "line 12" or "offset 4096".
    virtual std::string placeText(std::uint64_t place) const = 0;
    /// Where the advertisement handed out last stands, in words.
    std::string where() const { return placeText(place_); }

  protected:
    std::optional<std::string> warning_;
    std::uint64_t place_ = 0;
};

/// One line of the JSON trace for an advertisement (without the newline): {"t":...,"address":...,"rssi":...,
/// "data":"0201...","scanner":...}, "scanner" only when the advertisement names its receiver.
std::string traceLine(const HeardAdvertisement& heard);

}  // namespace pelm::platform

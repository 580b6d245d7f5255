#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <string>
#include <vector>

#include <pelm/platform/ble/recording_reader.hpp>

namespace pelm::platform::detail {

/// Reads a binary recording in order, knowing where it is, so every complaint can name a byte offset.
class ByteStream {
  public:
    ByteStream(std::unique_ptr<std::istream> in, std::string name)
        : in_(std::move(in)), name_(std::move(name)) {}

    /// Reads exactly `count` bytes into `out`. False at a clean end (no byte left); a part of them is a
    /// cut-short record, reported through `truncated`.
    bool read(std::size_t count, std::vector<std::uint8_t>& out, bool& truncated) {
        out.resize(count);
        in_->read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(count));
        const auto got = static_cast<std::size_t>(in_->gcount());
        offset_ += got;
        truncated = got != 0 && got < count;
        return got == count;
    }
    /// Skips `count` bytes; false when the file ends first.
    bool skip(std::size_t count) {
        std::vector<std::uint8_t> ignored;
        bool truncated = false;
        while (count > 0) {
            const auto step = std::min<std::size_t>(count, 65536);
            if (!read(step, ignored, truncated)) return false;
            count -= step;
        }
        return true;
    }
    std::uint64_t offset() const { return offset_; }
    [[noreturn]] void fail(std::uint64_t at, const std::string& expected) const {
        throw RecordingError(name_ + ": offset " + std::to_string(at) + ": expected " + expected);
    }
    const std::string& name() const { return name_; }

  private:
    std::unique_ptr<std::istream> in_;
    std::string name_;
    std::uint64_t offset_ = 0;
};

inline std::uint16_t be16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}
inline std::uint32_t be32(const std::uint8_t* p) {
    return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}
inline std::uint16_t le16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[1] << 8 | p[0]);
}
inline std::uint32_t le32(const std::uint8_t* p) {
    return std::uint32_t{p[3]} << 24 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[1]} << 8 | p[0];
}

}  // namespace pelm::platform::detail

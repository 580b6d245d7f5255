#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <istream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <pelm/platform/ble/recording_reader.hpp>

namespace pelm::platform::detail {

/// Reads a binary recording in order, knowing where it is, so every complaint can name a byte offset. It
/// reads the file in large blocks of its own: a record is a copy out of memory, not a call into the stream.
class ByteStream {
  public:
    /// `start`: what was read of the stream already, the first bytes of the file.
    ByteStream(std::unique_ptr<std::istream> in, std::string name, std::string_view start = {})
        : in_(std::move(in)), name_(std::move(name)), block_(kBlock) {
        std::copy(start.begin(), start.end(), block_.begin());
        end_ = start.size();
    }

    /// Reads exactly `count` bytes into `out`. False at a clean end (no byte left); a part of them is a
    /// cut-short record, reported through `truncated`.
    bool read(std::size_t count, std::vector<std::uint8_t>& out, bool& truncated) {
        out.resize(count);
        std::size_t got = 0;
        while (got < count) {
            if (begin_ == end_ && !refill()) break;
            const auto step = std::min(count - got, end_ - begin_);
            std::memcpy(out.data() + got, block_.data() + begin_, step);
            begin_ += step;
            got += step;
        }
        offset_ += got;
        truncated = got != 0 && got < count;
        return got == count;
    }
    /// Skips `count` bytes; false when the file ends first.
    bool skip(std::size_t count) {
        while (count > 0) {
            if (begin_ == end_ && !refill()) return false;
            const auto step = std::min(count, end_ - begin_);
            begin_ += step;
            offset_ += step;
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
    static constexpr std::size_t kBlock = 1 << 18;

    bool refill() {
        if (!*in_) return false;
        in_->read(block_.data(), static_cast<std::streamsize>(block_.size()));
        begin_ = 0;
        end_ = static_cast<std::size_t>(in_->gcount());
        return end_ > 0;
    }

    std::unique_ptr<std::istream> in_;
    std::string name_;
    std::vector<char> block_;
    std::size_t begin_ = 0, end_ = 0;  // what of block_ is read but not yet handed out
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

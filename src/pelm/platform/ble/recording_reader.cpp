#include <pelm/platform/ble/recording_reader.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <limits>

#include <pelm/model/hex_digits.hpp>
#include <pelm/model/json_binding.hpp>
#include <pelm/model/json_text.hpp>
#include <pelm/platform/ble/byte_stream.hpp>
#include <pelm/platform/ble/hci_packets.hpp>

namespace pelm::platform {
namespace {

using detail::be16;
using detail::be32;
using detail::ByteStream;
using detail::le16;
using detail::le32;
using Bytes = std::vector<std::uint8_t>;

// No HCI packet or link-layer frame comes near this; a larger record length is a broken file.
constexpr std::uint32_t kMaxPacketBytes = 1 << 16;

// A file may claim any time; one beyond what a Date holds is taken as the nearest it can hold.
Date fromMicroseconds(std::int64_t sinceEpoch) {
    constexpr auto limit =
        std::chrono::duration_cast<std::chrono::microseconds>(Date::duration::max()).count();
    return Date{std::chrono::duration_cast<Date::duration>(
        std::chrono::microseconds(std::clamp<std::int64_t>(sinceEpoch, -limit, limit)))};
}

// What a packet of one of the link types holds.
enum class Link { H1Event, H4, H4WithDirection, MonitorEvent, LinkLayer, LinkLayerWithRadio };

// Adds the advertisements of one packet to `out`; what the host sent to the controller has none.
void advertisementsIn(Link link, std::span<const std::uint8_t> packet, HeardBatch& out) {
    constexpr std::uint8_t kH4Event = 0x04;
    switch (link) {
        case Link::H1Event:
        case Link::MonitorEvent:
            return advertisementsInHciEvent(packet, out);
        case Link::H4:
            if (packet.empty() || packet[0] != kH4Event) return;
            return advertisementsInHciEvent(packet.subspan(1), out);
        case Link::H4WithDirection:
            // A 4-byte direction first: 1 is controller to host.
            if (packet.size() < 5 || be32(packet.data()) != 1 || packet[4] != kH4Event) return;
            return advertisementsInHciEvent(packet.subspan(5), out);
        case Link::LinkLayer:
            return advertisementInLinkLayerPacket(packet, -127, out);
        case Link::LinkLayerWithRadio: {
            // channel, signal, noise, offenses, reference access address (4), flags (2, little-endian)
            if (packet.size() < 10) return;
            const bool signalValid = (le16(&packet[8]) & 0x0002) != 0;
            const int rssi = signalValid ? static_cast<std::int8_t>(packet[1]) : -127;
            return advertisementInLinkLayerPacket(packet.subspan(10), rssi, out);
        }
    }
}

std::optional<Link> pcapLink(std::uint32_t linkType) {
    switch (linkType) {
        case 187:
            return Link::H4;
        case 201:
            return Link::H4WithDirection;
        case 251:
            return Link::LinkLayer;
        case 256:
            return Link::LinkLayerWithRadio;
        default:
            return std::nullopt;
    }
}

// Hands out the advertisements of one packet after another.
class PacketReader : public RecordingReader {
  public:
    bool next(HeardAdvertisement& heard) override {
        while (taken_ == pending_.size()) {
            pending_.clear();
            taken_ = 0;
            if (!nextPacket()) return false;
        }
        if (taken_ == 0) place_ = packetOffset_;
        // Swapped, not copied: the caller's buffers go back into the batch for the next packet.
        std::swap(heard, pending_[taken_++]);
        return true;
    }
    std::string placeText(std::uint64_t place) const override { return "offset " + std::to_string(place); }

  protected:
    /// Reads the next packet into pending_ (possibly nothing); false at the end.
    virtual bool nextPacket() = 0;
    void take(Link link, std::span<const std::uint8_t> packet, Date at, const std::string& receiver) {
        const auto before = pending_.size();
        advertisementsIn(link, packet, pending_);
        for (auto i = before; i < pending_.size(); ++i) {
            pending_[i].at = at;
            pending_[i].receiver = receiver;
        }
    }
    bool truncatedAt(std::uint64_t offset) {
        warning_ = "the last record, at offset " + std::to_string(offset) +
                   ", is cut short; played what came before";
        return false;
    }
    HeardBatch pending_;
    std::size_t taken_ = 0;           // pending_ before this index has been handed out
    std::uint64_t packetOffset_ = 0;  // where the packet of pending_ starts
};

class BtsnoopReader final : public PacketReader {
  public:
    explicit BtsnoopReader(ByteStream in) : in_(std::move(in)) {
        Bytes header;
        bool truncated = false;
        if (!in_.read(16, header, truncated) ||
            std::string(header.begin(), header.begin() + 8) != std::string("btsnoop\0", 8))
            in_.fail(0, "the btsnoop header \"btsnoop\\0\"");
        if (be32(&header[8]) != 1) in_.fail(8, "btsnoop version 1");
        datalink_ = be32(&header[12]);
        if (datalink_ != 1001 && datalink_ != 1002 && datalink_ != 2001)
            in_.fail(12, "a datalink of 1001 (H1), 1002 (H4) or 2001 (BlueZ monitor), not " +
                             std::to_string(datalink_));
    }
    std::string format() const override {
        return datalink_ == 1002   ? "btsnoop (H4)"
               : datalink_ == 1001 ? "btsnoop (H1)"
                                   : "btsnoop (BlueZ monitor)";
    }

  private:
    bool nextPacket() override {
        const auto start = packetOffset_ = in_.offset();
        bool truncated = false;
        if (!in_.read(24, record_, truncated)) return truncated ? truncatedAt(start) : false;
        const auto included = be32(&record_[4]);
        const auto flags = be32(&record_[8]);
        const auto stamp =
            static_cast<std::int64_t>(std::uint64_t{be32(&record_[16])} << 32 | be32(&record_[20]));
        if (included > kMaxPacketBytes || included > be32(&record_[0]))
            in_.fail(start,
                     "a record length up to its original length and 65536, not " + std::to_string(included));
        if (!in_.read(included, packet_, truncated)) return truncatedAt(start);
        // Microseconds since year 0 (Gregorian, proleptic); the difference to 1970 is fixed.
        constexpr std::int64_t kUnixEpoch = 0x00DCDDB30F2F8000;
        std::int64_t sinceEpoch = 0;
        if (__builtin_sub_overflow(stamp, kUnixEpoch, &sinceEpoch))
            sinceEpoch = std::numeric_limits<std::int64_t>::min();
        const auto at = fromMicroseconds(sinceEpoch);
        if (datalink_ == 2001) {
            constexpr std::uint32_t kEventPacket = 3;  // the opcode sits in the low half of the flags
            const auto index = flags >> 16;
            if ((flags & 0xFFFF) == kEventPacket) take(Link::MonitorEvent, packet_, at, receiverName(index));
        } else if ((flags & 0x01) != 0) {  // received: controller to host
            if (datalink_ == 1002) take(Link::H4, packet_, at, "");
            if (datalink_ == 1001 && (flags & 0x02) != 0) take(Link::H1Event, packet_, at, "");
        }
        return true;
    }

    // "hci0" for controller 0; the names are made once.
    const std::string& receiverName(std::uint32_t index) {
        if (index >= receiverNames_.size()) {
            for (auto i = receiverNames_.size(); i <= index; ++i)
                receiverNames_.push_back("hci" + std::to_string(i));
        }
        return receiverNames_[index];
    }

    ByteStream in_;
    std::uint32_t datalink_ = 0;
    Bytes record_, packet_;
    std::vector<std::string> receiverNames_;
};

class PcapReader final : public PacketReader {
  public:
    PcapReader(ByteStream in) : in_(std::move(in)) {
        Bytes header;
        bool truncated = false;
        if (!in_.read(24, header, truncated)) in_.fail(0, "a pcap header of 24 bytes");
        const auto magic = le32(header.data());
        bigEndian_ = magic == 0xD4C3B2A1 || magic == 0x4D3CB2A1;
        nanoseconds_ = magic == 0xA1B23C4D || magic == 0x4D3CB2A1;
        if (!bigEndian_ && magic != 0xA1B2C3D4 && magic != 0xA1B23C4D) in_.fail(0, "the pcap magic number");
        const auto type = u32(&header[20]) & 0x0FFFFFFF;
        const auto link = pcapLink(type);
        if (!link) in_.fail(20, "link type 187, 201, 251 or 256 (Bluetooth), not " + std::to_string(type));
        link_ = *link;
    }
    std::string format() const override { return "pcap"; }

  private:
    std::uint32_t u32(const std::uint8_t* p) const { return bigEndian_ ? be32(p) : le32(p); }
    bool nextPacket() override {
        const auto start = packetOffset_ = in_.offset();
        bool truncated = false;
        if (!in_.read(16, record_, truncated)) return truncated ? truncatedAt(start) : false;
        const auto included = u32(&record_[8]);
        if (included > kMaxPacketBytes)
            in_.fail(start + 8, "a packet length up to 65536, not " + std::to_string(included));
        if (!in_.read(included, packet_, truncated)) return truncatedAt(start);
        const std::int64_t seconds = u32(&record_[0]);
        const std::int64_t fraction = u32(&record_[4]);
        take(link_, packet_,
             fromMicroseconds(seconds * 1'000'000 + (nanoseconds_ ? fraction / 1000 : fraction)), "");
        return true;
    }

    ByteStream in_;
    bool bigEndian_ = false;
    bool nanoseconds_ = false;
    Link link_ = Link::H4;
    Bytes record_, packet_;
};

class PcapngReader final : public PacketReader {
  public:
    explicit PcapngReader(ByteStream in) : in_(std::move(in)) {}
    std::string format() const override { return "pcapng"; }

  private:
    struct Interface {
        std::optional<Link> link;
        std::string name;
        std::uint64_t ticksPerSecond = 1'000'000;
        std::uint32_t snapLength = 0;
    };
    std::uint16_t u16(const std::uint8_t* p) const { return bigEndian_ ? be16(p) : le16(p); }
    std::uint32_t u32(const std::uint8_t* p) const { return bigEndian_ ? be32(p) : le32(p); }

    bool nextPacket() override {
        const auto start = packetOffset_ = in_.offset();
        bool truncated = false;
        if (!in_.read(8, head_, truncated)) return truncated ? truncatedAt(start) : false;
        const auto type = le32(head_.data());  // the section header's type reads the same either way
        if (type == 0x0A0D0D0A) return sectionHeader(start);
        if (!sawSection_) in_.fail(start, "a pcapng section header block");
        const auto length = u32(&head_[4]);
        if (length < 12 || length % 4 != 0 || length > kMaxPacketBytes + 64)
            in_.fail(start + 4, "a block length that is a multiple of 4 from 12 to 65600, not " +
                                    std::to_string(length));
        if (!in_.read(length - 8, body_, truncated)) return truncatedAt(start);
        if (u32(&body_[length - 12]) != length)
            in_.fail(start + length - 4, "the block length repeated at its end");
        const std::span<const std::uint8_t> body(body_.data(), length - 12);
        switch (u32(head_.data())) {
            case 1:
                interfaceDescription(body, start);
                break;
            case 6:
                enhancedPacket(body, start);
                break;
            case 3:
                simplePacket(body, start);
                break;
            default:
                break;  // statistics, name resolution and the like
        }
        return true;
    }

    bool sectionHeader(std::uint64_t start) {
        bool truncated = false;
        Bytes magic;
        if (!in_.read(4, magic, truncated)) return truncatedAt(start);
        const auto order = le32(magic.data());
        if (order != 0x1A2B3C4D && order != 0x4D3C2B1A)
            in_.fail(start + 8, "the pcapng byte-order magic 1A2B3C4D");
        bigEndian_ = order == 0x4D3C2B1A;
        const auto length = u32(&head_[4]);
        if (length < 28 || length % 4 != 0 || length > kMaxPacketBytes)
            in_.fail(start + 4, "a section header length that is a multiple of 4 from 28 up");
        if (!in_.skip(length - 12)) return truncatedAt(start);
        sawSection_ = true;
        interfaces_.clear();  // interface numbers start afresh in every section
        return true;
    }

    void interfaceDescription(std::span<const std::uint8_t> body, std::uint64_t start) {
        if (body.size() < 8) in_.fail(start + 8, "an interface description of at least 8 bytes");
        Interface interface;
        interface.link = pcapLink(u16(&body[0]));
        interface.snapLength = u32(&body[4]);
        interface.name = "if" + std::to_string(interfaces_.size());
        for (std::size_t at = 8; at + 4 <= body.size();) {
            const auto code = u16(&body[at]);
            const auto size = u16(&body[at + 2]);
            if (code == 0 || at + 4 + size > body.size()) break;
            const auto value = body.subspan(at + 4, size);
            if (code == 2 && size > 0) interface.name.assign(value.begin(), value.end());  // if_name
            if (code == 9 && size >= 1) {                                                  // if_tsresol
                const auto exponent = value[0] & 0x7F;
                const bool binary = (value[0] & 0x80) != 0;
                if ((binary && exponent < 63) || (!binary && exponent <= 18)) {
                    std::uint64_t ticks = 1;
                    for (int i = 0; i < exponent; ++i) ticks *= binary ? 2 : 10;
                    interface.ticksPerSecond = ticks;
                }
            }
            at += 4 + (size + 3u) / 4 * 4;
        }
        while (!interface.name.empty() && interface.name.back() == '\0') interface.name.pop_back();
        interfaces_.push_back(std::move(interface));
    }

    void enhancedPacket(std::span<const std::uint8_t> body, std::uint64_t start) {
        if (body.size() < 20) in_.fail(start + 8, "an enhanced packet block of at least 20 bytes");
        const auto id = u32(&body[0]);
        if (id >= interfaces_.size())
            in_.fail(start + 8, "the number of an interface described before, not " + std::to_string(id));
        const auto ticks = std::uint64_t{u32(&body[4])} << 32 | u32(&body[8]);
        const auto captured = u32(&body[12]);
        if (captured > body.size() - 20) in_.fail(start + 20, "a captured length within the block");
        const auto& interface = interfaces_[id];
        if (!interface.link) return;
        const auto seconds = std::min<std::uint64_t>(ticks / interface.ticksPerSecond, 1ULL << 40);
        const auto micros =
            static_cast<std::uint64_t>(static_cast<long double>(ticks % interface.ticksPerSecond) * 1e6L /
                                       static_cast<long double>(interface.ticksPerSecond));
        lastTime_ = fromMicroseconds(static_cast<std::int64_t>(seconds * 1'000'000 + micros));
        take(*interface.link, body.subspan(20, captured), lastTime_, interface.name);
    }

    // A simple packet has no time of its own: it is taken as heard when the packet before it was.
    void simplePacket(std::span<const std::uint8_t> body, std::uint64_t start) {
        if (body.size() < 4) in_.fail(start + 8, "a simple packet block of at least 4 bytes");
        if (interfaces_.empty()) in_.fail(start, "an interface description before a simple packet block");
        const auto& interface = interfaces_[0];
        std::size_t captured = std::min<std::size_t>(u32(&body[0]), body.size() - 4);
        if (interface.snapLength != 0) captured = std::min<std::size_t>(captured, interface.snapLength);
        if (interface.link) take(*interface.link, body.subspan(4, captured), lastTime_, interface.name);
    }

    ByteStream in_;
    bool bigEndian_ = false;
    bool sawSection_ = false;
    std::vector<Interface> interfaces_;
    Date lastTime_{};
    Bytes head_, body_;
};

// Hexadecimal digits into bytes; false at anything else (the size is even).
bool decodeHex(std::string_view hex, std::vector<std::uint8_t>& out) {
    out.resize(hex.size() / 2);
    std::uint8_t bad = 0;
    for (std::size_t i = 0; i < out.size(); ++i) {
        const auto high = kHexDigitValues[static_cast<unsigned char>(hex[2 * i])];
        const auto low = kHexDigitValues[static_cast<unsigned char>(hex[2 * i + 1])];
        bad |= high | low;
        out[i] = static_cast<std::uint8_t>(high << 4 | (low & 0x0F));
    }
    return (bad & 0xF0) == 0;
}

// What a trace line does not tell, back to nothing in an advertisement that is being reused.
void clearUntold(HeardAdvertisement& heard) {
    heard.uniqueID.reset();
    heard.firmwareVersion.reset();
    heard.batteryLevel.reset();
    heard.transmissionPower.reset();
    heard.receiver.clear();
}

class TraceReader final : public RecordingReader {
  public:
    /// `start`: what was read of the stream already.
    TraceReader(std::unique_ptr<std::istream> in, std::string name, std::string_view start)
        : in_(std::move(in)), name_(std::move(name)), block_(kBlock) {
        std::copy(start.begin(), start.end(), block_.begin());
        end_ = start.size();
    }
    std::string format() const override { return "JSON trace"; }
    std::string placeText(std::uint64_t place) const override { return "line " + std::to_string(place); }

    bool next(HeardAdvertisement& heard) override {
        std::string_view line;
        while (readLine(line)) {
            ++lineNumber_;
            if (line.find_first_not_of(" \t\r") == std::string_view::npos) continue;
            place_ = lineNumber_;
            clearUntold(heard);
            if (!parseWrittenForm(line, heard)) parse(line, heard);
            return true;
        }
        return false;
    }

  private:
    static constexpr std::size_t kMaxLine = 1 << 16;
    // Read a block at a time; a block holds the longest line four times over.
    static constexpr std::size_t kBlock = 1 << 18;

    // The next line (without its newline) as a view into block_, valid until the next call; false at the end.
    bool readLine(std::string_view& line) {
        for (;;) {
            const auto* start = block_.data() + begin_;
            if (const auto* newline = static_cast<const char*>(std::memchr(start, '\n', end_ - begin_))) {
                line = std::string_view(start, static_cast<std::size_t>(newline - start));
                begin_ += line.size() + 1;
                return true;
            }
            if (end_ - begin_ > kMaxLine) {
                ++lineNumber_;
                fail("a line of at most 65536 characters");
            }
            if (atEnd_) return lastLine(line);
            refill();
        }
    }

    // Moves what is left of a line to the front of the block and reads on behind it.
    void refill() {
        std::memmove(block_.data(), block_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        if (*in_) {
            in_->read(block_.data() + end_, static_cast<std::streamsize>(block_.size() - end_));
            end_ += static_cast<std::size_t>(in_->gcount());
        }
        atEnd_ = !*in_;
    }

    // A last line without its newline is whole if it parses; a cut-short one is the recording's end.
    bool lastLine(std::string_view& line) {
        if (begin_ == end_) return false;
        line = std::string_view(block_.data() + begin_, end_ - begin_);
        begin_ = end_;
        if (!parseJSONText(line)) {
            warning_ = "line " + std::to_string(lineNumber_ + 1) + " is cut short; played what came before";
            return false;
        }
        return true;
    }

    // The form traceLine writes, read without a general JSON parser: {"t":N,"address":"A","rssi":N,
    // "data":"HEX"} with an optional "scanner" last, no white space and no escapes. Anything else is left
    // to the general reading below, which accepts the same lines and more.
    static bool parseWrittenForm(std::string_view line, HeardAdvertisement& heard) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.remove_suffix(1);
        const auto literal = [&](std::string_view text) {
            if (line.substr(0, text.size()) != text) return false;
            line.remove_prefix(text.size());
            return true;
        };
        const auto integer = [&](std::int64_t& out) {
            const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), out);
            if (error != std::errc() || end == line.data()) return false;
            line.remove_prefix(static_cast<std::size_t>(end - line.data()));
            return true;
        };
        // A string without escapes or control characters (which JSON would refuse), as it stands in the line.
        const auto text = [&](std::string_view& out) {
            bool ascii = true;
            for (std::size_t i = 0; i < line.size(); ++i) {
                const auto c = static_cast<unsigned char>(line[i]);
                if (c == '"') {
                    out = line.substr(0, i);
                    line.remove_prefix(i + 1);
                    return ascii || isValidUTF8(out);
                }
                if (c == '\\' || c < 0x20) return false;
                ascii = ascii && c < 0x80;
            }
            return false;
        };
        std::int64_t t = 0, rssi = 0;
        std::string_view address, hex, scanner;
        constexpr auto latest =
            std::chrono::duration_cast<std::chrono::milliseconds>(Date::duration::max()).count();
        if (!literal("{\"t\":") || !integer(t) || t < 0 || t > latest || !literal(",\"address\":\"") ||
            !text(address) || !literal(",\"rssi\":") || !integer(rssi) || rssi < -128 || rssi > 127 ||
            !literal(",\"data\":\"") || !text(hex) || hex.size() % 2 != 0) {
            return false;
        }
        if (literal(",\"scanner\":\"") && !text(scanner)) return false;
        if (line != "}" || !decodeHex(hex, heard.data)) return false;
        heard.address.assign(address);
        heard.receiver.assign(scanner);
        heard.at = Date{std::chrono::milliseconds(t)};
        heard.rssi = static_cast<int>(rssi);
        return true;
    }

    [[noreturn]] void fail(const std::string& expected) const {
        throw RecordingError(name_ + ": line " + std::to_string(lineNumber_) + ": expected " + expected);
    }

    void parse(std::string_view line, HeardAdvertisement& heard) const {
        const auto json = parseJSONText(line);
        if (!json || !json->is_object()) fail("a JSON object");
        const auto t = json->find("t");
        if (t == json->end() || !t->is_number_integer())
            fail("\"t\": milliseconds since 1970 as a whole number");
        const auto millis = t->get<std::int64_t>();
        constexpr auto latest =
            std::chrono::duration_cast<std::chrono::milliseconds>(Date::duration::max()).count();
        if (millis < 0 || millis > latest) fail("\"t\" between 1970 and 2262");
        heard.at = Date{std::chrono::milliseconds(millis)};
        const auto address = json->find("address");
        if (address == json->end() || !address->is_string()) fail("\"address\": a text");
        heard.address = address->get<std::string>();
        const auto rssi = json->find("rssi");
        if (rssi == json->end() || !rssi->is_number_integer() || rssi->get<std::int64_t>() < -128 ||
            rssi->get<std::int64_t>() > 127)
            fail("\"rssi\": dBm as a whole number from -128 to 127");
        heard.rssi = rssi->get<int>();
        const auto data = json->find("data");
        if (data == json->end() || !data->is_string()) fail("\"data\": the advertising data as hexadecimal");
        const auto& hex = data->get_ref<const std::string&>();
        if (hex.size() % 2 != 0) fail("\"data\" with an even number of hexadecimal digits");
        if (!decodeHex(hex, heard.data)) fail("\"data\" of hexadecimal digits only");
        if (const auto scanner = json->find("scanner"); scanner != json->end()) {
            if (!scanner->is_string()) fail("\"scanner\": a text");
            heard.receiver = scanner->get<std::string>();
        }
    }

    std::unique_ptr<std::istream> in_;
    std::string name_;
    std::size_t lineNumber_ = 0;
    std::vector<char> block_;
    std::size_t begin_ = 0, end_ = 0;  // what of block_ is read but not yet handed out
    bool atEnd_ = false;               // the stream has nothing more
};

}  // namespace

std::string traceLine(const HeardAdvertisement& heard) {
    std::string hex;
    hex.reserve(heard.data.size() * 2);
    for (const auto byte : heard.data) {
        hex += kHexDigits[byte >> 4];
        hex += kHexDigits[byte & 0x0F];
    }
    JSON line{
        {"t", std::chrono::duration_cast<std::chrono::milliseconds>(heard.at.time_since_epoch()).count()},
        {"address", heard.address},
        {"rssi", heard.rssi},
        {"data", hex}};
    if (!heard.receiver.empty()) line["scanner"] = heard.receiver;
    return jsonText(line);
}

std::optional<HeardAdvertisement> RecordingReader::next() {
    HeardAdvertisement heard;
    if (!next(heard)) return std::nullopt;
    return heard;
}

std::unique_ptr<RecordingReader> RecordingReader::open(const std::filesystem::path& file) {
    std::error_code ignored;
    if (std::filesystem::is_directory(file, ignored))
        throw RecordingError(file.string() + ": is a folder, not a recording");
    auto in = std::make_unique<std::ifstream>(file, std::ios::binary);
    if (!*in) throw RecordingError(file.string() + ": cannot be read: " + std::strerror(errno));
    return open(std::move(in), file.string());
}

std::unique_ptr<RecordingReader> RecordingReader::open(std::unique_ptr<std::istream> in, std::string name) {
    // The first bytes tell the format; they are handed to the reader rather than read again, so a pipe
    // plays as a file does.
    char first[4] = {};
    in->read(first, 4);
    const auto got = static_cast<std::size_t>(in->gcount());
    const std::string_view start(first, got);
    const auto magic = got == 4 ? le32(reinterpret_cast<const std::uint8_t*>(first)) : 0;
    if (start == "btsn") return std::make_unique<BtsnoopReader>(ByteStream(std::move(in), name, start));
    if (magic == 0xA1B2C3D4 || magic == 0xD4C3B2A1 || magic == 0xA1B23C4D || magic == 0x4D3CB2A1)
        return std::make_unique<PcapReader>(ByteStream(std::move(in), name, start));
    if (magic == 0x0A0D0D0A) return std::make_unique<PcapngReader>(ByteStream(std::move(in), name, start));
    if (got > 0 && first[0] == '{')
        return std::make_unique<TraceReader>(std::move(in), std::move(name), start);
    throw RecordingError(name +
                         ": offset 0: expected a btsnoop, pcap or pcapng header, or a JSON trace line");
}

}  // namespace pelm::platform

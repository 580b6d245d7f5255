#include "recording_columns.hpp"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>

#include <pelm/platform/ble/ibeacon_advertisement.hpp>
#include <pelm/platform/ble/recording_reader.hpp>

namespace pelm::python {

TextCodes::Key TextCodes::keyOf(std::string_view text) {
    Key key;
    key.length = text.size();
    const auto shown = std::min(text.size(), kInline);
    for (std::size_t word = 0; word < key.words.size() && word * 8 < shown; ++word) {
        const auto bytes = std::min<std::size_t>(8, shown - word * 8);
        if (bytes == 8) {
            std::memcpy(&key.words[word], text.data() + word * 8, 8);  // one load
        } else {
            std::memcpy(&key.words[word], text.data() + word * 8, bytes);
        }
    }
    if (text.size() > kInline) {
        key.hash = std::hash<std::string_view>{}(text);
        return key;
    }
    // A multiply-and-fold of the three words: a short text's hash in a few cycles.
    std::uint64_t hash = key.length * 0x9E3779B97F4A7C15ULL;
    for (const auto word : key.words) hash = (hash ^ word) * 0xBF58476D1CE4E5B9ULL;
    key.hash = hash ^ (hash >> 31);
    return key;
}

std::int32_t TextCodes::code(std::string_view text, const Key& key) {
    const auto mask = slots_.size() - 1;
    auto at = key.hash & mask;
    for (; slots_[at].code >= 0; at = (at + 1) & mask) {
        const auto& slot = slots_[at];
        // Word by word: std::array's == is a call to memcmp here.
        if (slot.words[0] == key.words[0] && slot.words[1] == key.words[1] && slot.words[2] == key.words[2] &&
            slot.length == key.length &&
            (key.length <= kInline || texts_[static_cast<std::size_t>(slot.code)] == text))
            return slot.code;
    }
    slots_[at] = {key.words, static_cast<std::uint32_t>(key.length),
                  static_cast<std::int32_t>(texts_.size())};
    texts_.emplace_back(text);
    const auto code = slots_[at].code;
    if (texts_.size() * 2 > slots_.size()) grow();
    return code;
}

void TextCodes::grow() {
    HugeVector<Slot> bigger(slots_.size() * 2);
    const auto mask = bigger.size() - 1;
    for (const auto& slot : slots_) {
        if (slot.code < 0) continue;
        auto at = keyOf(texts_[static_cast<std::size_t>(slot.code)]).hash & mask;
        while (bigger[at].code >= 0) at = (at + 1) & mask;
        bigger[at] = slot;
    }
    slots_.swap(bigger);
}

namespace {

// A recording names few UUIDs; they are told apart by their bytes, and written as text once each.
class UuidCodes {
  public:
    explicit UuidCodes(TextCodes& texts) : texts_(texts) {}
    std::int32_t code(const platform::ProximityUUID& uuid) {
        if (last_ >= 0 && uuid.bytes == lastBytes_) return last_;
        const auto found = codes_.find(uuid.bytes);
        last_ = found != codes_.end() ? found->second : codes_[uuid.bytes] = texts_.code(uuid.uuidString());
        lastBytes_ = uuid.bytes;
        return last_;
    }

  private:
    TextCodes& texts_;
    std::map<std::array<std::uint8_t, 16>, std::int32_t> codes_;
    std::array<std::uint8_t, 16> lastBytes_{};
    std::int32_t last_ = -1;
};

void add(RecordingColumns& columns, UuidCodes& uuids, const platform::HeardAdvertisement& heard,
         const TextCodes::Key& addressKey) {
    columns.time.push_back(heard.at.time_since_epoch().count());
    columns.address.push_back(columns.addresses.code(heard.address, addressKey));
    columns.scanner.push_back(columns.scanners.code(heard.receiver));
    columns.rssi.push_back(static_cast<std::int16_t>(heard.rssi));
    const auto frame = platform::parseIBeacon(heard.data);
    columns.uuid.push_back(frame ? uuids.code(frame->proximityUUID) : -1);
    columns.major.push_back(frame ? frame->major : -1);
    columns.minor.push_back(frame ? frame->minor : -1);
    columns.power.push_back(frame ? frame->measuredPower : 0);
}

// The reader on a thread of its own, a batch of advertisements at a time, while the caller's thread adds the
// batch before to the columns: each takes a core, so the columns cost little more time than the reader does.
// Batches go round between the two (their advertisements keep the memory of their texts).
class ReadAhead {
  public:
    static constexpr std::size_t kBatch = 4096;
    struct Batch {
        std::vector<platform::HeardAdvertisement> heard = std::vector<platform::HeardAdvertisement>(kBatch);
        std::size_t count = 0;
    };

    explicit ReadAhead(platform::RecordingReader& reader) : reader_(reader) {
        for (auto& batch : batches_) empty_.push_back(&batch);
        thread_ = std::thread([this] { read(); });
    }
    ~ReadAhead() {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    /// The next batch read, none at the end; rethrows what the reader threw.
    Batch* next() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !full_.empty() || ended_; });
        if (!full_.empty()) {
            auto* batch = full_.front();
            full_.pop_front();
            return batch;
        }
        if (error_) std::rethrow_exception(error_);
        return nullptr;
    }
    /// A batch added to the columns, for the reader to fill again.
    void done(Batch* batch) {
        {
            const std::lock_guard lock(mutex_);
            empty_.push_back(batch);
        }
        changed_.notify_all();
    }

  private:
    void read() {
        try {
            for (bool more = true; more;) {
                Batch* batch = nullptr;
                {
                    std::unique_lock lock(mutex_);
                    changed_.wait(lock, [this] { return !empty_.empty() || stopping_; });
                    if (stopping_) return;
                    batch = empty_.front();
                    empty_.pop_front();
                }
                batch->count = 0;
                while (batch->count < kBatch && (more = reader_.next(batch->heard[batch->count])))
                    ++batch->count;
                {
                    const std::lock_guard lock(mutex_);
                    full_.push_back(batch);
                }
                changed_.notify_all();
            }
        } catch (...) {
            const std::lock_guard lock(mutex_);
            error_ = std::current_exception();
        }
        {
            const std::lock_guard lock(mutex_);
            ended_ = true;
        }
        changed_.notify_all();
    }

    platform::RecordingReader& reader_;
    std::array<Batch, 4> batches_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Batch*> empty_, full_;
    bool ended_ = false, stopping_ = false;
    std::exception_ptr error_;
    std::thread thread_;
};

// A batch into the columns. The addresses' slots are asked for a few advertisements ahead, so that the table
// lookup finds them in the cache.
void addBatch(RecordingColumns& columns, UuidCodes& uuids, const ReadAhead::Batch& batch,
              std::vector<TextCodes::Key>& keys) {
    constexpr std::size_t kAhead = 8;
    keys.resize(batch.count);
    for (std::size_t i = 0; i < batch.count; ++i) keys[i] = TextCodes::keyOf(batch.heard[i].address);
    for (std::size_t i = 0; i < batch.count && i < kAhead; ++i) columns.addresses.prefetch(keys[i]);
    for (std::size_t i = 0; i < batch.count; ++i) {
        if (i + kAhead < batch.count) columns.addresses.prefetch(keys[i + kAhead]);
        add(columns, uuids, batch.heard[i], keys[i]);
    }
}

}  // namespace

RecordingColumns readColumns(const std::filesystem::path& file) {
    RecordingColumns columns;
    UuidCodes uuids(columns.uuids);
    const auto reader = platform::RecordingReader::open(file);
    columns.format = reader->format();
    {
        ReadAhead ahead(*reader);
        std::vector<TextCodes::Key> keys;
        while (auto* batch = ahead.next()) {
            addBatch(columns, uuids, *batch, keys);
            ahead.done(batch);
        }
    }
    columns.warning = reader->warning();
    return columns;
}

}  // namespace pelm::python

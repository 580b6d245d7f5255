#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <utility>

namespace pelm::python {

/// One column of a recording: values appended one by one, tens of millions of them, in memory mapped for
/// it alone. It grows by remapping, so no value is ever copied and no page touched twice: a vector would
/// copy each value once or twice as it grows, and the kernel's zeroing of fresh pages is much of the cost of
/// a big column. (Huge pages were slower still: each needs 2 MiB of memory never touched before.)
template <class T>
class MappedColumn {
  public:
    MappedColumn() = default;
    ~MappedColumn() {
        if (data_ != nullptr) ::munmap(data_, bytes_);
    }
    MappedColumn(MappedColumn&& other) noexcept { swap(other); }
    MappedColumn& operator=(MappedColumn&& other) noexcept {
        swap(other);
        return *this;
    }
    MappedColumn(const MappedColumn&) = delete;
    MappedColumn& operator=(const MappedColumn&) = delete;

    void push_back(T value) {
        if (size_ == ready_) makeRoom();
        data_[size_++] = value;
    }
    T* data() { return data_; }
    std::size_t size() const { return size_; }

  private:
    static constexpr std::size_t kFirstBytes = std::size_t{1} << 20;
    static constexpr std::size_t kPopulateBytes = std::size_t{4} << 20;

    // The next few megabytes are made present in one call, ahead of the values: a page fault for each 4 KiB
    // costs more than zeroing it. Where the kernel cannot (before Linux 5.14), the pages fault in as written.
    void makeRoom() {
        if (ready_ == capacity_) grow();
        const auto end = std::min(capacity_, ready_ + kPopulateBytes / sizeof(T));
#ifdef MADV_POPULATE_WRITE
        auto* from = reinterpret_cast<char*>(data_ + ready_);
        ::madvise(from, (end - ready_) * sizeof(T), MADV_POPULATE_WRITE);
#endif
        ready_ = end;
    }

    void grow() {
        const auto bytes = std::max(kFirstBytes, bytes_ * 2);
        void* block = data_ == nullptr
                          ? ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                          : ::mremap(data_, bytes_, bytes, MREMAP_MAYMOVE);
        if (block == MAP_FAILED) throw std::bad_alloc();
        data_ = static_cast<T*>(block);
        bytes_ = bytes;
        capacity_ = bytes / sizeof(T);
    }
    void swap(MappedColumn& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
        std::swap(ready_, other.ready_);
        std::swap(bytes_, other.bytes_);
    }

    T* data_ = nullptr;
    std::size_t size_ = 0, ready_ = 0, capacity_ = 0, bytes_ = 0;
};

}  // namespace pelm::python

#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

namespace pelm::python {

/// Memory for the table of a recording's senders, which is read at random once per advertisement: in 2 MiB
/// pages where the kernel gives them, so that a lookup costs no TLB miss. Blocks under a huge page come from
/// the ordinary heap. (The columns themselves are MappedColumns: for them huge pages were slower.)
template <class T>
struct HugePageAllocator {
    using value_type = T;
    static constexpr std::size_t kHugePage = std::size_t{2} << 20;

    HugePageAllocator() = default;
    template <class U>
    HugePageAllocator(const HugePageAllocator<U>&) noexcept {}

    T* allocate(std::size_t count) {
        const auto bytes = count * sizeof(T);
        if (bytes < kHugePage) return std::allocator<T>{}.allocate(count);
        const auto rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
        void* block = std::aligned_alloc(kHugePage, rounded);
        if (block == nullptr) throw std::bad_alloc();
        ::madvise(block, rounded, MADV_HUGEPAGE);  // advice only: without huge pages it works all the same
        return static_cast<T*>(block);
    }
    void deallocate(T* block, std::size_t count) noexcept {
        if (count * sizeof(T) < kHugePage) return std::allocator<T>{}.deallocate(block, count);
        std::free(block);
    }
    friend bool operator==(const HugePageAllocator&, const HugePageAllocator&) { return true; }
};

template <class T>
using HugeVector = std::vector<T, HugePageAllocator<T>>;

}  // namespace pelm::python

// The counting allocation functions behind AllocationGuard.
#include "tests/support/AllocationGuard.h"

#include <atomic>
#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define BRIGHTMIX_ALLOCATION_COUNTING 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define BRIGHTMIX_ALLOCATION_COUNTING 0
#endif
#endif
#ifndef BRIGHTMIX_ALLOCATION_COUNTING
#define BRIGHTMIX_ALLOCATION_COUNTING 1
#endif

namespace {
std::atomic<std::size_t> allocationCount{0};
std::atomic<int> activeGuards{0};

inline void noteAllocation() {
    if (activeGuards.load(std::memory_order_relaxed) > 0)
        allocationCount.fetch_add(1, std::memory_order_relaxed);
}
} // namespace

namespace brightmix::testing {

AllocationGuard::AllocationGuard() {
    activeGuards.fetch_add(1);
    start_ = allocationCount.load();
}

AllocationGuard::~AllocationGuard() {
    activeGuards.fetch_sub(1);
}

std::size_t AllocationGuard::allocations() const {
    return allocationCount.load() - start_;
}

bool AllocationGuard::isAvailable() {
    return BRIGHTMIX_ALLOCATION_COUNTING != 0;
}

} // namespace brightmix::testing

#if BRIGHTMIX_ALLOCATION_COUNTING

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* pointer);

void* malloc(std::size_t size) {
    noteAllocation();
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    noteAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, std::size_t size) {
    noteAllocation();
    return __libc_realloc(pointer, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    noteAllocation();
    return __libc_memalign(alignment, size);
}
void* memalign(std::size_t alignment, std::size_t size) {
    noteAllocation();
    return __libc_memalign(alignment, size);
}
int posix_memalign(void** result, std::size_t alignment, std::size_t size) {
    noteAllocation();
    void* pointer = __libc_memalign(alignment, size);
    if (pointer == nullptr) return 12; // ENOMEM
    *result = pointer;
    return 0;
}
void free(void* pointer) {
    __libc_free(pointer);
}
}

namespace {
void* countedNew(std::size_t size) {
    noteAllocation();
    void* pointer = __libc_malloc(size == 0 ? 1 : size);
    if (pointer == nullptr) throw std::bad_alloc();
    return pointer;
}
void* countedAlignedNew(std::size_t size, std::align_val_t alignment) {
    noteAllocation();
    void* pointer = __libc_memalign(static_cast<std::size_t>(alignment), size == 0 ? 1 : size);
    if (pointer == nullptr) throw std::bad_alloc();
    return pointer;
}
} // namespace

void* operator new(std::size_t size) {
    return countedNew(size);
}
void* operator new[](std::size_t size) {
    return countedNew(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    noteAllocation();
    return __libc_malloc(size == 0 ? 1 : size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    noteAllocation();
    return __libc_malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return countedAlignedNew(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return countedAlignedNew(size, alignment);
}
void operator delete(void* pointer) noexcept {
    __libc_free(pointer);
}
void operator delete[](void* pointer) noexcept {
    __libc_free(pointer);
}
void operator delete(void* pointer, std::size_t) noexcept {
    __libc_free(pointer);
}
void operator delete[](void* pointer, std::size_t) noexcept {
    __libc_free(pointer);
}
void operator delete(void* pointer, std::align_val_t) noexcept {
    __libc_free(pointer);
}
void operator delete[](void* pointer, std::align_val_t) noexcept {
    __libc_free(pointer);
}
void operator delete(void* pointer, std::size_t, std::align_val_t) noexcept {
    __libc_free(pointer);
}
void operator delete[](void* pointer, std::size_t, std::align_val_t) noexcept {
    __libc_free(pointer);
}

#endif

#include "tests/support/failing_allocations.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

// Atomics only: an allocation may happen before, and after, everything else in the process.
constinit std::atomic<bool> active = false;
constinit std::atomic<bool> allThreads = false;
constinit std::atomic<bool> fromThereOn = false;
constinit std::atomic<uint64_t> failingNumber = 0;
constinit std::atomic<uint64_t> asked = 0;
constinit thread_local bool thisThread = false;

bool mustFail() noexcept {
    if (!active || !(allThreads || thisThread)) return false;
    const uint64_t number = ++asked;
    return number == failingNumber || (fromThereOn && number > failingNumber);
}

void* allocate(std::size_t size, std::size_t alignment) noexcept {
    if (mustFail()) return nullptr;
    if (alignment <= alignof(std::max_align_t)) return std::malloc(size == 0 ? 1 : size);
    return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
    if (void* memory = allocate(size, alignment)) return memory;
    throw std::bad_alloc();
}

}  // namespace

FailingAllocations::FailingAllocations(uint64_t nth, Extent extent, Threads threads) noexcept {
    asked = 0;
    failingNumber = nth;
    fromThereOn = extent == Extent::FromThereOn;
    allThreads = threads == Threads::All;
    thisThread = true;
    active = true;
}

FailingAllocations::~FailingAllocations() {
    end();
}

void FailingAllocations::end() noexcept {
    active = false;
    thisThread = false;
}

bool FailingAllocations::happened() const noexcept {
    return asked >= failingNumber;
}

void* operator new(std::size_t size) {
    return allocateOrThrow(size, 1);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size, 1);
}
void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
    return allocate(size, 1);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
    return allocate(size, 1);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment,
                   const std::nothrow_t& /*unused*/) noexcept {
    return allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment,
                     const std::nothrow_t& /*unused*/) noexcept {
    return allocate(size, static_cast<std::size_t>(alignment));
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*unused*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*unused*/) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t /*alignment*/) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/,
                       std::align_val_t /*alignment*/) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t /*alignment*/,
                     const std::nothrow_t& /*unused*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t /*alignment*/,
                       const std::nothrow_t& /*unused*/) noexcept {
    std::free(memory);
}

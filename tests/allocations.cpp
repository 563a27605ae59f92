#include "tests/allocations.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace mervane::test::allocations {

std::atomic<long> left{-1};
std::atomic<bool> failsOnwards{false};
std::atomic<int>* insideModule = nullptr;
std::atomic<unsigned long> number{0};
std::atomic<unsigned long> inUse{0};
std::atomic<unsigned long> peak{0};

static bool fails() {
    number.fetch_add(1, std::memory_order_relaxed);
    if (left.load() < 0 || (insideModule != nullptr && insideModule->load() > 0)) return false;
    if (left.load() > 0) return left.fetch_sub(1) < 0;
    if (!failsOnwards) left = -1;
    return true;
}

// malloc keeps one word of its own in front of each block.
static unsigned long sizeOf(void* memory) { return memory == nullptr ? 0 : malloc_usable_size(memory) + sizeof(std::size_t); }

}  // namespace mervane::test::allocations

using namespace mervane::test;

void* operator new(std::size_t size) {
    void* const memory = allocations::fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    allocations::inUse += allocations::sizeOf(memory);
    allocations::peak = std::max(allocations::peak.load(), allocations::inUse.load());
    return memory;
}

void operator delete(void* memory) noexcept {
    allocations::inUse -= allocations::sizeOf(memory);
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

#include "tests/allocations.h"

#include <cstdlib>
#include <new>

namespace mervane::test::allocations {

std::atomic<long> left{-1};
std::atomic<bool> failsOnwards{false};
std::atomic<int>* insideModule = nullptr;
std::atomic<unsigned long> number{0};
std::atomic<unsigned long> bytes{0};

static bool fails() {
    number.fetch_add(1, std::memory_order_relaxed);
    if (left.load() < 0 || (insideModule != nullptr && insideModule->load() > 0)) return false;
    if (left.load() > 0) return left.fetch_sub(1) < 0;
    if (!failsOnwards) left = -1;
    return true;
}

}  // namespace mervane::test::allocations

void* operator new(std::size_t size) {
    mervane::test::allocations::bytes.fetch_add(size, std::memory_order_relaxed);
    void* const memory = mervane::test::allocations::fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

// Preloaded: the allocation of C++ whose number MERVANE_FAILING_NEW gives fails, and the next one too, as the memory for the
// error is asked for. Not within SoftHSM, which does not survive it.

#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>

namespace {

bool isWithinModule() {
    std::array<void*, 64> frames{};
    const auto number = static_cast<std::size_t>(::backtrace(frames.data(), static_cast<int>(frames.size())));
    return std::ranges::any_of(std::span(frames).first(number), [](void* frame) {
        Dl_info info{};
        return ::dladdr(frame, &info) != 0 && std::strstr(info.dli_fname, "softhsm") != nullptr;
    });
}

bool fails() {
    static const char* const wanted = std::getenv("MERVANE_FAILING_NEW");
    static const long failing = wanted == nullptr ? 0 : std::atol(wanted);
    static std::atomic<long> number = 0;
    const long mine = ++number;
    return failing != 0 && (mine == failing || mine == failing + 1) && !isWithinModule();
}

}  // namespace

void* operator new(std::size_t size) {
    void* const memory = fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

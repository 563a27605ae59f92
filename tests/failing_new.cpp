// Preloaded, for what the tool does with its memory: the allocation of C++ whose number MERVANE_FAILING_NEW gives fails, and the next one too, as the memory
// for the error is asked for. Not within SoftHSM, which does not survive it. At the end the lines of proc(5) about the process's memory go to the file
// MERVANE_MEMORY_STATUS: what getrusage(2) says begins with the parent's.

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

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

void copyFile(const char* from, const char* to) {
    const int in = ::open(from, O_RDONLY | O_CLOEXEC);
    const int out = ::open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    std::array<char, 8192> text{};
    const ssize_t size = ::read(in, text.data(), text.size());
    if (size < 0 || ::write(out, text.data(), static_cast<std::size_t>(size)) != size) std::abort();
    ::close(in);
    ::close(out);
}

[[gnu::destructor]] void end() {
    if (const char* const path = std::getenv("MERVANE_MEMORY_STATUS")) copyFile("/proc/self/status", path);
}

}  // namespace

void* operator new(std::size_t size) {
    void* const memory = fails() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

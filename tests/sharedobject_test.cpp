// What dlopen must not be given: files that are damaged, cut short, or no shared libraries.

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>

#include "foundation/system/sharedobject.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

// A library as distributions ship it: next to nothing stands behind its last segment.
std::string zlibFile() {
    Dl_info info = {};
    EXPECT_NE(::dladdr(reinterpret_cast<const void*>(&::zlibVersion), &info), 0);
    return readFile(info.dli_fname);
}

std::string scratchFile(const std::string& content) {
    const std::string path = scratchFolder() + "/shared-object";
    std::filesystem::remove(path);  // a name that is mapped keeps its file
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

using Header = ElfW(Ehdr);
using Segment = ElfW(Phdr);

TEST(SharedObjectTest, WhatCannotBeLoadedIsRefusedWithTheReason) {
    const auto reasonOf = [](const std::string& content) { return whyNotLoadable(scratchFile(content).c_str()).value_or("none"); };
    const std::string whole = zlibFile();
    const std::string half = whole.substr(0, whole.size() / 2);
    const std::pair<std::string, const char*> contents[] = {
        {whole, "none"},
        {readFile(MERVANE_FAKE_MODULE), "none"},
        {"", "empty"},
        {"/* GNU ld script */ INPUT(libother.so)", "invalid ELF header"},
        {"\x7F\x45L", "invalid ELF header"},
        {std::string("\x7F\x45LF\1\1\1", 7) + std::string(45, '\0'), "a 32-bit library; the process is a 64-bit one"},
        {whole.substr(0, 63), "cut short: the ELF header ends at 64, the file has 63 bytes"},
        {half + std::string(whole.size() - half.size(), '\0'), "damaged: its dynamic section names no table of symbols"},
    };
    for (const auto& [content, reason] : contents) EXPECT_THAT(reasonOf(content), HasSubstr(reason));

    // The linker writes four segments first, then the dynamic section.
    const std::pair<std::function<void(Header&, Segment*)>, const char*> changes[] = {
        {[](Header& h, Segment*) { h.e_shoff = ~0UL; }, "none"},
        {[](Header&, Segment* s) { s[3].p_filesz = 0, s[3].p_offset = 1UL << 40; }, "damaged: its dynamic section at "},
        {[](Header& h, Segment*) { h.e_ident[EI_CLASS] = 7; }, "invalid ELF header"},
        {[](Header& h, Segment*) { h.e_ident[EI_DATA] ^= 3; }, "for the other byte order"},
        {[](Header& h, Segment*) { h.e_machine = EM_ARM; }, "for another machine (ELF machine 40, here "},
        {[](Header& h, Segment*) { h.e_type = ET_REL; }, "of ELF type 1"},
        {[](Header& h, Segment*) { h.e_phoff = ~0UL; }, "cut short: the program header table ends at 18446744073709551615, the file has "},
        {[](Header& h, Segment*) { h.e_phnum = 513; }, "damaged: its program header table has 513 entries of 56 bytes"},
        {[](Header& h, Segment*) { h.e_phentsize = 32; }, "entries of 32 bytes"},
        {[](Header&, Segment* s) { s[1].p_filesz = 1UL << 40; }, "cut short: a segment ends at 10995"},
        {[](Header&, Segment* s) { s[1].p_filesz = ~0UL; }, "cut short: a segment ends at 18446744073709551615, the file has "},
        {[](Header&, Segment* s) { s[1].p_vaddr = 0; }, "damaged: its segment at address 0 overlaps"},
        {[](Header&, Segment* s) { s[3].p_memsz = ~0UL; }, "damaged: its segment at address "},
        {[](Header&, Segment* s) { s[0].p_memsz = 1; }, "damaged: its segment at address 0 overlaps the one before it or exceeds its own room"},
        {[](Header&, Segment* s) { s[4].p_vaddr = 1UL << 40; }, "damaged: its dynamic section at address 1099511627776 is in no segment"},
        {[](Header&, Segment* s) { s[0].p_filesz = 64; }, "damaged: its dynamic section names no table of symbols"},
    };
    for (const auto& [change, reason] : changes) {
        std::string content = whole;
        auto& header = *reinterpret_cast<Header*>(content.data());
        change(header, reinterpret_cast<Segment*>(content.data() + header.e_phoff));
        EXPECT_THAT(reasonOf(content), HasSubstr(reason));
    }
}

TEST(SharedObjectTest, WhatIsNoRegularFileIsNotWaitedFor) {
    const std::string fifo = scratchFolder() + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::pair<std::string, std::string> rows[] = {
        {fifo, "no regular file"},
        {scratchFolder(), "no regular file"},
        {scratchFolder() + "/none", "cannot be opened: No such file or directory"},
        {"none", ""},  // the loader's to find
    };
    for (const auto& [path, reason] : rows) EXPECT_EQ(whyNotLoadable(path.c_str()).value_or(""), reason) << path;
}

// What passes is loaded: were it to end the process, this test would end.
TEST(SharedObjectTest, EveryCutIsRefusedOrHarmless) {
    if (isUnderValgrind()) GTEST_SKIP() << "valgrind aborts on a library whose section headers are cut off";
    const std::string whole = zlibFile();
    std::vector<std::size_t> cuts = {1, 5, 16, 65, 4095, 4096, 4097, whole.size() - 1};
    for (std::size_t percent = 1; percent < 100; ++percent) cuts.push_back(whole.size() * percent / 100);
    int numRefused = 0;
    for (const std::size_t cut : cuts) {
        const std::string path = scratchFile(whole.substr(0, cut));
        if (const auto reason = whyNotLoadable(path.c_str())) {
            ++numRefused;
            EXPECT_THAT(*reason, HasSubstr(cut < 4 ? "invalid ELF" : "cut short")) << cut;
            continue;
        }
        void* const loaded = ::dlopen(path.c_str(), RTLD_NOW);
        ASSERT_NE(loaded, nullptr) << ::dlerror();
        ::dlclose(loaded);
    }
    EXPECT_GE(numRefused, 90);
}

}  // namespace
}  // namespace mervane::test

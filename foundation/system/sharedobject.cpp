#include "foundation/system/sharedobject.h"

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace mervane {

using Header = ElfW(Ehdr);
using Segment = ElfW(Phdr);
using DynamicEntry = ElfW(Dyn);

// Defined by the linker: the ELF header of the image that this code is part of. Weak, since a
// linker script may leave the header out.
extern "C" __attribute__((weak, visibility("hidden"))) const Header __ehdr_start;

namespace {

using Reason = std::optional<std::string>;

constexpr bool kIs64 = sizeof(void*) == 8;
constexpr int kOwnClass = kIs64 ? ELFCLASS64 : ELFCLASS32;
constexpr int kOtherClass = kIs64 ? ELFCLASS32 : ELFCLASS64;
constexpr const char* kOtherClassReason = kIs64 ? "a 32-bit library; the process is a 64-bit one"
                                                : "a 64-bit library; the process is a 32-bit one";
constexpr int kOwnByteOrder =
    std::endian::native == std::endian::little ? ELFDATA2LSB : ELFDATA2MSB;

// Libraries have about ten. The loader copies them to the stack.
constexpr std::size_t kMaxSegments = 512;
// Libraries have about thirty.
constexpr std::size_t kMaxDynamicEntries = 4096;

bool isWithin(std::uint64_t at, std::uint64_t size, std::uint64_t from, std::uint64_t room) {
    return at >= from && at - from <= room && room - (at - from) >= size;
}

std::string damaged(std::string_view how) {
    return "damaged: " + std::string(how);
}

std::string failed(std::string_view action, int error) {
    return "cannot be " + std::string(action) + ": " + std::system_category().message(error);
}

class File {
  public:
    File() = default;
    ~File() {
        if (m_fd >= 0) ::close(m_fd);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    Reason open(const char* path) {
        // Not blocking: to open a FIFO is to wait for its writer.
        m_fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        struct stat status = {};
        if (m_fd < 0 || ::fstat(m_fd, &status) != 0) return failed("opened", errno);
        if (!S_ISREG(status.st_mode)) return "no regular file";
        m_size = static_cast<std::uint64_t>(status.st_size);
        return {};
    }

    [[nodiscard]] std::uint64_t size() const noexcept { return m_size; }

    [[nodiscard]] Reason checkHolds(std::string_view what, std::uint64_t at,
                                    std::uint64_t size) const {
        if (isWithin(at, size, 0, m_size)) return {};
        const std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
        const std::uint64_t end = most - at >= size ? at + size : most;
        return "cut short: " + std::string(what) + " ends at " + std::to_string(end) +
               ", the file has " + std::to_string(m_size) + " bytes";
    }

    // Fills the room, or says why it cannot.
    template <typename T>
    Reason read(std::string_view what, std::uint64_t at, std::span<T> room) const {
        if (Reason reason = checkHolds(what, at, room.size_bytes())) return reason;
        const auto bytes = std::as_writable_bytes(room);
        for (std::size_t done = 0; done < bytes.size();) {
            const auto rest = bytes.subspan(done);
            const ssize_t count =
                ::pread(m_fd, rest.data(), rest.size(), static_cast<off_t>(at + done));
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) return failed("read", errno);
            if (count == 0) return "became shorter while it was read";
            done += static_cast<std::size_t>(count);
        }
        return {};
    }

  private:
    int m_fd = -1;
    std::uint64_t m_size = 0;
};

Reason checkKind(const Header& header) {
    if (header.e_ident[EI_CLASS] != kOwnClass) return "invalid ELF header";
    if (header.e_ident[EI_DATA] != kOwnByteOrder) return "for the other byte order";
    const Header* const own = &__ehdr_start;
    if (own != nullptr && header.e_machine != own->e_machine) {
        return "for another machine (ELF machine " + std::to_string(header.e_machine) + ", here " +
               std::to_string(own->e_machine) + ")";
    }
    if (header.e_type == ET_DYN) return {};
    return "of ELF type " + std::to_string(header.e_type);
}

bool isForOtherMachines(const Header& header) {
    const Header* const own = &__ehdr_start;
    return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
           (header.e_ident[EI_CLASS] != kOwnClass || header.e_ident[EI_DATA] != kOwnByteOrder ||
            (own != nullptr && header.e_machine != own->e_machine));
}

Reason readHeader(const File& file, Header& header) {
    const auto known =
        static_cast<std::size_t>(std::min<std::uint64_t>(file.size(), sizeof(header)));
    const auto bytes = std::as_writable_bytes(std::span(&header, 1));
    if (Reason reason = file.read("the ELF header", 0, bytes.first(known))) return reason;
    if (known == 0) return "empty";
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) return "invalid ELF header";
    // Comes before the size: the header of a 32-bit library is shorter.
    if (header.e_ident[EI_CLASS] == kOtherClass) return kOtherClassReason;
    if (known < sizeof(header)) return file.checkHolds("the ELF header", 0, sizeof(header));
    return checkKind(header);
}

Reason readSegments(const File& file, const Header& header, std::vector<Segment>& segments) {
    if (header.e_phentsize != sizeof(Segment) || header.e_phnum > kMaxSegments) {
        return damaged("its program header table has " + std::to_string(header.e_phnum) +
                       " entries of " + std::to_string(header.e_phentsize) + " bytes");
    }
    segments.resize(header.e_phnum);
    return file.read("the program header table", header.e_phoff, std::span(segments));
}

// The loader maps one after the other, into the room from the first one's start to the last one's
// end; what lies outside would replace what else is mapped.
Reason checkMapped(const File& file, std::span<const Segment> segments) {
    std::uint64_t end = 0;
    for (const Segment& segment : segments) {
        if (segment.p_type != PT_LOAD) continue;
        // Linkers put a segment without contents beyond the end of the file.
        if (segment.p_filesz != 0) {
            if (Reason reason = file.checkHolds("a segment", segment.p_offset, segment.p_filesz))
                return reason;
        }
        const std::uint64_t most = std::numeric_limits<std::uintptr_t>::max();
        if (!isWithin(segment.p_vaddr, segment.p_memsz, end, most - end) ||
            segment.p_filesz > segment.p_memsz) {
            return damaged("its segment at address " + std::to_string(segment.p_vaddr) +
                           " overlaps the one before it or exceeds its own room");
        }
        end = segment.p_vaddr + segment.p_memsz;
    }
    return {};
}

// The segment that gives the address its bytes; null where none does.
const Segment* segmentAt(std::span<const Segment> segments, std::uint64_t address) {
    const auto found = std::ranges::find_if(segments, [address](const Segment& segment) {
        return segment.p_type == PT_LOAD && isWithin(address, 1, segment.p_vaddr, segment.p_filesz);
    });
    return found == segments.end() ? nullptr : &*found;
}

// The loader reads on to the null entry, whatever size the program header gives.
Reason checkDynamic(const File& file, std::span<const Segment> segments, std::uint64_t address) {
    const Segment* const segment = segmentAt(segments, address);
    if (segment == nullptr)
        return damaged("its dynamic section at address " + std::to_string(address) +
                       " is in no segment");
    const std::uint64_t offset = address - segment->p_vaddr;
    const std::uint64_t room = (segment->p_filesz - offset) / sizeof(DynamicEntry);
    std::vector<DynamicEntry> entries(
        static_cast<std::size_t>(std::min<std::uint64_t>(room, kMaxDynamicEntries)));
    if (Reason reason =
            file.read("the dynamic section", segment->p_offset + offset, std::span(entries)))
        return reason;
    entries.erase(std::ranges::find(entries, DT_NULL, &DynamicEntry::d_tag), entries.end());
    for (const int tag : {DT_STRTAB, DT_SYMTAB}) {
        const auto entry = std::ranges::find(entries, tag, &DynamicEntry::d_tag);
        if (entry == entries.end() || segmentAt(segments, entry->d_un.d_ptr) == nullptr)
            return damaged("its dynamic section names no table of symbols");
    }
    return {};
}

Reason checkContents(const File& file, const Header& header) {
    std::vector<Segment> segments;
    if (Reason reason = readSegments(file, header, segments)) return reason;
    if (Reason reason = checkMapped(file, segments)) return reason;
    for (const Segment& segment : segments) {
        if (segment.p_type != PT_DYNAMIC) continue;
        if (Reason reason = checkDynamic(file, segments, segment.p_vaddr)) return reason;
    }
    return {};
}

// Where the loader looks for a name without a slash, in its order. Its cache (ld.so.cache) comes
// before the last ones and is not looked into.
std::vector<std::string> searchFolders() {
    void* const self = ::dlopen(nullptr, RTLD_NOW);
    if (self == nullptr) return {};
    std::vector<std::string> folders;
    Dl_serinfo head{};
    if (::dlinfo(self, RTLD_DI_SERINFOSIZE, &head) == 0) {
        // Aligned as Dl_serinfo is: operator new gives room for any type.
        std::vector<std::byte> room(head.dls_size);
        auto* const list = reinterpret_cast<Dl_serinfo*>(room.data());
        *list = head;
        if (::dlinfo(self, RTLD_DI_SERINFO, list) == 0) {
            for (unsigned i = 0; i < list->dls_cnt; ++i)
                folders.emplace_back(list->dls_serpath[i].dls_name);
        }
    }
    ::dlclose(self);
    return folders;
}

}  // namespace

std::string findLibrary(const std::string& name) {
    for (const std::string& folder : searchFolders()) {
        std::string path = folder;
        path.append("/").append(name);
        if (::access(path.c_str(), F_OK) != 0) continue;
        File file;
        Header header = {};
        const bool isRead = !file.open(path.c_str()) && !readHeader(file, header);
        // The loader passes over these, and takes the next one.
        if (isRead || !isForOtherMachines(header)) return path;
    }
    return {};
}

std::optional<std::string> whyNotLoadable(const char* path) {
    std::string found = path;
    if (found.find('/') == std::string::npos) found = findLibrary(found);
    if (found.empty()) return {};
    File file;
    Header header = {};
    if (Reason reason = file.open(found.c_str())) return reason;
    if (Reason reason = readHeader(file, header)) return reason;
    return checkContents(file, header);
}

}  // namespace mervane

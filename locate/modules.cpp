// The modules of this machine, from three sources: p11-kit's configuration, the folders where
// modules usually lie, and the drivers of the card database. The first source that has a file names
// it; files are told apart by device and inode, since most are reached by several links.

#include "locate/modules.h"

#include <dlfcn.h>
#include <glob.h>
#include <link.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>  // and program_invocation_short_name
#include <charconv>
#include <system_error>
#include <utility>

#include "foundation/core/guarded.h"
#include "foundation/system/sharedobject.h"
#include "foundation/text/ascii.h"
#include "locate/drivers.h"
#include "locate/search.h"

namespace mervane {
namespace {

constexpr std::size_t kMaxModules = 256;

// Of the files in the usual folders, the ones that only pass calls on: p11-kit's proxy and its
// client for a module that runs elsewhere, and OpenSC's tracer.
constexpr std::array<std::string_view, 3> kForwarders = {"p11-kit-proxy", "p11-kit-client",
                                                         "pkcs11-spy"};
// OpenSC's module again, with one PIN only: where nobody has configured it, the other one will do.
constexpr std::string_view kOnePin = "onepin-opensc";
// p11-kit's CA certificates, configured or not.
constexpr std::string_view kTrust = "p11-kit-trust";

bool isOneOf(std::string_view words, std::string_view word) {
    while (!words.empty()) {
        const auto end = std::min(words.find_first_of(", \t"), words.size());
        if (words.substr(0, end) == word) return true;
        words.remove_prefix(std::min(end + 1, words.size()));
    }
    return false;
}

class Search {
  public:
    Search(const ModulePlaces& places, std::vector<ModuleInfo>& modules,
           std::vector<std::string>& complaints)
        : m_places(places), m_modules(modules), m_complaints(complaints) {}

    void addConfigured() {
        for (const ModuleConfig& config : readConfigurations(m_places.configuration, m_complaints))
            add(toModule(config));
    }

    void addFromFolders() {
        for (const std::string& pattern : m_places.folders) {
            glob_t found{};
            if (::glob((pattern + "/*.so").c_str(), 0, nullptr, &found) == 0) {
                for (std::size_t i = 0; i < found.gl_pathc; ++i) {
                    const std::string path = found.gl_pathv[i];
                    addFile(path, ModuleInfo::Origin::Folder,
                            path.substr(0, path.find_last_of('/')));
                }
            }
            ::globfree(&found);
        }
    }

    void addDrivers() {
        for (const CardDriver& driver : allDrivers()) {
            for (const std::string& path : driver.paths) {
                struct stat file {};
                if (path.starts_with('/') && ::stat(path.c_str(), &file) == 0)
                    addFile(path, ModuleInfo::Origin::CardDatabase, driver.name);
            }
        }
    }

  private:
    void addFile(const std::string& path, ModuleInfo::Origin origin,
                 const std::string& learntFrom) {
        ModuleInfo module;
        module.path = path;
        module.origin = origin;
        module.learntFrom = learntFrom;
        add(std::move(module));
    }

    ModuleInfo toModule(const ModuleConfig& config) const {
        const auto field = [&](std::string_view name) {
            const auto at = config.fields.find(name);
            return at == config.fields.end() ? std::string() : at->second;
        };
        ModuleInfo module;
        module.origin = ModuleInfo::Origin::Configuration;
        module.learntFrom = config.file;
        module.path = field("module");
        if (!module.path.empty() && !module.path.starts_with('/'))
            module.path = m_places.defaultFolder + "/" + module.path;
        module.remote = field("remote");
        if (!module.remote.empty()) module.path.clear();
        module.initArgs = field("x-init-reserved");
        module.isTrust = field("trust-policy") == "yes";
        const std::string priority = field("priority");
        std::from_chars(priority.data(), priority.data() + priority.size(), module.priority);
        const std::string in = field("enable-in");
        module.isDisabled = (!in.empty() && !isOneOf(in, m_places.program)) ||
                            isOneOf(field("disable-in"), m_places.program);
        if (!module.remote.empty()) module.name = config.name();
        return module;
    }

    void add(ModuleInfo module) {
        if (m_modules.size() == kMaxModules) return;
        if (module.path.empty() && module.remote.empty()) return;  // switched off by the user
        struct stat file {};
        const bool isThere = module.path.empty() || ::stat(module.path.c_str(), &file) == 0;
        if (!module.path.empty()) {
            module.name = moduleNameOf(module.path);
            module.obstacle = isThere ? whyNotLoadable(module.path.c_str()).value_or("")
                                      : std::generic_category().message(errno);
            if (isThere && (file.st_mode & S_IWOTH) != 0)
                module.obstacle = "every user of this machine can change it";
            if (isThere && isSeen({file.st_dev, file.st_ino})) return;
        }
        module.isForwarder =
            std::ranges::find(kForwarders, module.name) != kForwarders.end() ||
            (module.name == kOnePin && module.origin == ModuleInfo::Origin::Folder);
        module.isTrust = module.isTrust || module.name == kTrust;
        // Behind those of the same priority.
        const auto at = std::ranges::find_if(
            m_modules, [&](const ModuleInfo& other) { return other.priority < module.priority; });
        m_modules.insert(at, std::move(module));
    }

    using FileId = std::pair<dev_t, ino_t>;

    bool isSeen(FileId file) {
        if (std::ranges::find(m_seen, file) != m_seen.end()) return true;
        m_seen.push_back(file);
        return false;
    }

    const ModulePlaces& m_places;
    std::vector<ModuleInfo>& m_modules;
    std::vector<std::string>& m_complaints;
    std::vector<FileId> m_seen;
};

}  // namespace

ModuleInfo::ModuleInfo() = default;
ModuleInfo::ModuleInfo(const ModuleInfo& other) = default;
ModuleInfo::ModuleInfo(ModuleInfo&& other) noexcept = default;
ModuleInfo& ModuleInfo::operator=(const ModuleInfo& other) = default;
ModuleInfo& ModuleInfo::operator=(ModuleInfo&& other) noexcept = default;
ModuleInfo::~ModuleInfo() = default;

std::string_view nameOf(ModuleInfo::Origin origin) noexcept {
    constexpr std::array<std::string_view, 4> kNames = {"configuration", "folder", "cardDatabase",
                                                        "caller"};
    return kNames[static_cast<std::size_t>(origin)];
}

ModulePlaces usualModulePlaces() {
    ModulePlaces places;
    places.configuration = usualConfigPlaces();
    places.defaultFolder = "/usr/lib/" MERVANE_MULTIARCH "/pkcs11";
    struct stat folder {};
    for (const char* const otherwise : {"/usr/lib64/pkcs11", "/usr/lib/pkcs11"}) {
        if (::stat(places.defaultFolder.c_str(), &folder) == 0) break;
        places.defaultFolder = otherwise;
    }
    places.folders = {"/usr/lib*/pkcs11",       "/usr/lib/*/pkcs11",      "/usr/lib*/softhsm",
                      "/usr/lib/*/softhsm",     "/usr/local/lib*/pkcs11", "/usr/local/lib/*/pkcs11",
                      "/usr/local/lib*/softhsm"};
    places.program = program_invocation_short_name;
    return places;
}

void searchModules(const ModulePlaces& places, std::vector<ModuleInfo>& modules,
                   std::vector<std::string>& complaints) {
    Search search(places, modules, complaints);
    search.addConfigured();
    search.addFromFolders();
    if (places.withCardDatabase) search.addDrivers();
}

bool listModules(std::vector<ModuleInfo>& modules, std::vector<std::string>& complaints,
                 LogBase& log) {
    const LogContextExitor context(log, "listModules");
    return guarded(log, [&] {
        std::vector<ModuleInfo> found;
        std::vector<std::string> said;
        searchModules(usualModulePlaces(), found, said);
        modules.swap(found);
        complaints.swap(said);
        return true;
    });
}

std::string pathOnSearchPath(const std::string& name) {
    // A damaged library would end the process; who loads it by its path is told why.
    if (whyNotLoadable(name.c_str())) return findLibrary(name);
    void* const library = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    const link_map* map = nullptr;
    const bool isFound = library != nullptr && ::dlinfo(library, RTLD_DI_LINKMAP, &map) == 0;
    return isFound && *map->l_name != '\0' ? map->l_name : name;
}

std::string moduleNameOf(std::string_view path) {
    std::string_view name = path.substr(path.find_last_of('/') + 1);
    name = name.substr(0, name.find(".so"));
    if (name.starts_with("lib") && name.size() > 3) name.remove_prefix(3);
    for (const std::string_view suffix : {"-pkcs11", "_pkcs11"}) {
        if (name.ends_with(suffix) && name.size() > suffix.size())
            name.remove_suffix(suffix.size());
    }
    return std::string(name);
}

bool isNamed(const ModuleInfo& module, std::string_view name) {
    if (name.empty()) return false;
    const std::string_view path = module.path;
    return equalsIgnoreCase(path.substr(path.find_last_of('/') + 1), name) ||
           equalsIgnoreCase(module.name, moduleNameOf(name));
}

}  // namespace mervane

// p11-kit's configuration, pkcs11.conf(5): a file NAME.module for each module, in up to three
// folders, and a file pkcs11.conf that says whether the user's folder counts.

#include "locate/configuration.h"

#include <dirent.h>
#include <sys/auxv.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>

#include "foundation/text/ascii.h"
#include "foundation/text/utf8.h"
#include "locate/smallfile.h"

namespace mervane {
namespace {

constexpr std::string_view kSuffix = ".module";
constexpr std::size_t kMaxFiles = 256;  // of a folder; no machine has as many modules

bool isNameChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view(".-_").find(c) != std::string_view::npos;
}

bool isControl(char c) {
    return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F;
}

void complain(std::vector<std::string>& complaints, const std::string& path, std::string_view why) {
    std::string line;
    appendOneLine(line, path);
    line.append(" is not used: it ").append(why).append(".");
    complaints.push_back(std::move(line));
}

std::optional<ConfigFields> readFile(const std::string& path,
                                     std::vector<std::string>& complaints) {
    std::string reason;
    const auto text = readSmallFile(path, reason);
    auto fields = text ? parseConfiguration(*text, reason) : std::nullopt;
    if (!reason.empty()) complain(complaints, path, reason);
    return fields;
}

int isModuleFile(const dirent* entry) {
    const std::string_view name(static_cast<const char*>(entry->d_name));
    return name.ends_with(kSuffix) && !name.starts_with('.') ? 1 : 0;
}

int inByteOrder(const dirent** a, const dirent** b) {
    return std::strcmp(static_cast<const char*>((*a)->d_name),
                       static_cast<const char*>((*b)->d_name));
}

// The names of the module configurations in a folder, sorted.
std::vector<std::string> namesIn(const std::string& folder, std::vector<std::string>& complaints) {
    dirent** entries = nullptr;
    const int count = ::scandir(folder.c_str(), &entries, isModuleFile, inByteOrder);
    if (count < 0 && errno != ENOENT && errno != ENOTDIR)
        complain(complaints, folder, "cannot be read: " + std::generic_category().message(errno));
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        const std::unique_ptr<dirent, decltype(&std::free)> entry(entries[i], &std::free);
        if (names.size() < kMaxFiles) names.emplace_back(static_cast<const char*>(entry->d_name));
    }
    std::free(entries);
    if (count > static_cast<int>(kMaxFiles))
        complain(complaints, folder, "has more than the 256 files that are looked at");
    return names;
}

// What "user-config" says of the user's folder.
enum class UserConfig : unsigned char { None, Merge, Only };

UserConfig userConfigOf(const ConfigFields& fields, UserConfig otherwise) {
    const auto field = fields.find("user-config");
    if (field == fields.end()) return otherwise;
    if (field->second == "none") return UserConfig::None;
    return field->second == "only" ? UserConfig::Only : UserConfig::Merge;
}

UserConfig userConfig(const ConfigPlaces& places, std::vector<std::string>& complaints) {
    if (places.userFolder.empty()) return UserConfig::None;
    const auto system = readFile(places.systemFile, complaints);
    const UserConfig allowed =
        system ? userConfigOf(*system, UserConfig::Merge) : UserConfig::Merge;
    if (allowed == UserConfig::None) return allowed;
    const auto user = readFile(places.userFile, complaints);
    return user ? userConfigOf(*user, allowed) : allowed;
}

}  // namespace

std::string ModuleConfig::name() const {
    const std::string base = file.substr(file.find_last_of('/') + 1);
    return base.substr(0, base.size() - kSuffix.size());
}

std::optional<ConfigFields> parseConfiguration(std::string_view text, std::string& reason) {
    ConfigFields fields;
    std::size_t number = 0;
    while (!text.empty()) {
        ++number;
        const auto end = std::min(text.find('\n'), text.size());
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        const auto fail = [&](std::string_view what) {
            reason = "has " + std::string(what) + " in line " + std::to_string(number);
            return std::nullopt;
        };
        if (line.empty() || line.front() == '#') continue;
        if (std::ranges::any_of(line, isControl)) return fail("a control character");
        if (!isValidUtf8(line)) return fail("bytes that are not UTF-8");
        const auto colon = line.find(':');
        const std::string_view name = trimmed(line.substr(0, colon));
        if (colon == std::string_view::npos || name.empty() ||
            !std::ranges::all_of(name, isNameChar)) {
            return fail("something other than \"name: value\"");
        }
        // The last one counts.
        fields.insert_or_assign(std::string(name), std::string(trimmed(line.substr(colon + 1))));
    }
    return fields;
}

ConfigPlaces usualConfigPlaces() {
    ConfigPlaces places;
    places.systemFile = "/etc/pkcs11/pkcs11.conf";
    places.packageFolder = "/usr/share/p11-kit/modules";
    places.systemFolder = "/etc/pkcs11/modules";
    // The environment of a set-user-ID program is its caller's.
    if (::getauxval(AT_SECURE) != 0) return places;
    const char* const config = ::secure_getenv("XDG_CONFIG_HOME");
    const char* const home = ::secure_getenv("HOME");
    std::string user;
    if (config != nullptr && *config == '/') {
        user = config;
    } else if (home != nullptr && *home == '/') {
        user = std::string(home) + "/.config";
    }
    if (user.empty()) return places;
    places.userFile = user + "/pkcs11/pkcs11.conf";
    places.userFolder = user + "/pkcs11/modules";
    return places;
}

std::vector<ModuleConfig> readConfigurations(const ConfigPlaces& places,
                                             std::vector<std::string>& complaints) {
    const UserConfig user = userConfig(places, complaints);
    std::vector<std::string> folders;
    if (user != UserConfig::None) folders.push_back(places.userFolder);
    if (user != UserConfig::Only) {
        folders.push_back(places.systemFolder);
        folders.push_back(places.packageFolder);
    }
    std::vector<ModuleConfig> configs;
    for (const std::string& folder : folders) {
        for (const std::string& name : namesIn(folder, complaints)) {
            const std::string ending = "/" + name;
            const std::string path = folder + ending;
            auto fields = readFile(path, complaints);
            if (!fields) continue;
            const auto known = std::ranges::find_if(
                configs, [&](const ModuleConfig& config) { return config.file.ends_with(ending); });
            if (known == configs.end()) {
                configs.push_back({path, std::move(*fields)});
            } else {
                known->fields.merge(*fields);
            }
        }
    }
    return configs;
}

}  // namespace mervane

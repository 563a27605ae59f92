#ifndef MERVANE_LOCATE_CONFIGURATION_H
#define MERVANE_LOCATE_CONFIGURATION_H

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mervane {

/// The fields of one configuration file, by name.
using ConfigFields = std::map<std::string, std::string, std::less<>>;

/// Reads the text of a configuration file, pkcs11.conf(5): "name: value" lines, blank lines, and
/// lines that begin with #. Nothing if it has anything else; `reason` then says what.
std::optional<ConfigFields> parseConfiguration(std::string_view text, std::string& reason);

/// Where p11-kit's configuration lies.
struct ConfigPlaces {
    std::string systemFile;     ///< pkcs11.conf: whether the user's folder counts
    std::string packageFolder;  ///< what packages install
    std::string systemFolder;   ///< what the administrator adds
    std::string userFile;       ///< the user's pkcs11.conf; empty if the user's do not count
    std::string userFolder;
};

/// The places of this machine and user.
ConfigPlaces usualConfigPlaces();

/// A module's configuration, from all files of one name.
struct ModuleConfig {
    std::string file;  ///< the first of them
    ConfigFields fields;

    /// The file's name, without folder and ".module".
    [[nodiscard]] std::string name() const;
};

/// Reads all module configurations. Where files have one name, the user's fields come before the
/// administrator's, and these before the package's. `complaints` gets a line for each file that is
/// not used.
std::vector<ModuleConfig> readConfigurations(const ConfigPlaces& places,
                                             std::vector<std::string>& complaints);

}  // namespace mervane

#endif

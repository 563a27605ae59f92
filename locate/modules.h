#ifndef MERVANE_LOCATE_MODULES_H
#define MERVANE_LOCATE_MODULES_H

#include <string>
#include <string_view>
#include <vector>

#include "../foundation/log/logbase.h"

namespace mervane {

/// A PKCS#11 module of this machine, and where it was learnt.
struct ModuleInfo {
    /// Where it was learnt.
    enum class Origin : unsigned char {
        Configuration,  ///< p11-kit's, pkcs11.conf(5)
        Folder,         ///< one where modules usually lie
        CardDatabase,   ///< a path of a driver in the card database
        Caller,         ///< named by the program
    };

    // Not inline: expanded at every use, they would bloat a program.
    /// @{
    /// Empty by default; copies are complete.
    ModuleInfo();
    ModuleInfo(const ModuleInfo& other);
    ModuleInfo(ModuleInfo&& other) noexcept;
    ModuleInfo& operator=(const ModuleInfo& other);
    ModuleInfo& operator=(ModuleInfo&& other) noexcept;
    ~ModuleInfo();
    /// @}

    std::string name;  ///< short, from the file's: "opensc" for /usr/lib/../opensc-pkcs11.so
    std::string path;  ///< absolute; empty for a remote module
    Origin origin = Origin::Caller;  ///< where it was learnt
    std::string learntFrom;          ///< the configuration file, the folder, or the driver's name
    int priority = 0;                ///< higher ones come first
    std::string initArgs;            ///< for C_Initialize (x-init-reserved); mostly empty
    std::string remote;        ///< the command of a module that runs elsewhere; never run here
    std::string obstacle;      ///< why the file cannot be loaded; empty if no reason is seen
    bool isTrust = false;      ///< holds CA certificates, not the user's
    bool isForwarder = false;  ///< shows only what other modules show that are listed themselves
    bool isDisabled = false;   ///< by its configuration, for this program

    /// Whether it is worth asking for tokens.
    [[nodiscard]] bool isUsable() const noexcept {
        return !path.empty() && obstacle.empty() && !isForwarder && !isDisabled;
    }
};

/// The name in JSON: configuration, folder, cardDatabase, caller.
std::string_view nameOf(ModuleInfo::Origin origin) noexcept;

/// Lists the modules of this machine: those that p11-kit is configured for, those in the folders
/// where modules usually lie, and the drivers of the card database that are installed. Loads none.
/// Each file is listed once, by device and inode, those of a higher priority first.
///
/// `complaints` gets a line for each configuration file that is not used, and why; such a file
/// fails nothing else. False, with a line in the log, only when there is no memory. The user's own
/// configuration is not read in a set-user-ID program. Any thread.
bool listModules(std::vector<ModuleInfo>& modules, std::vector<std::string>& complaints,
                 LogBase& log);

/// Where the dynamic loader finds the library of this name, which has no slash; the name itself if
/// it does not. Loads the library, unless it is damaged, and leaves it loaded. Any thread.
std::string pathOnSearchPath(const std::string& name);

/// A module's name, from that of its file: without folder, "lib", "-pkcs11" and ".so".
std::string moduleNameOf(std::string_view path);

/// Whether `name` means the module: its name or its file's name, in any letter case, with or
/// without "lib" before and "-pkcs11" or ".so" behind.
bool isNamed(const ModuleInfo& module, std::string_view name);

}  // namespace mervane

#endif

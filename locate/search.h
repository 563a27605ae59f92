#ifndef MERVANE_LOCATE_SEARCH_H
#define MERVANE_LOCATE_SEARCH_H

#include <string>
#include <vector>

#include "locate/configuration.h"
#include "locate/modules.h"

namespace mervane {

/// Where modules are looked for; the tests have places of their own.
struct ModulePlaces {
    ConfigPlaces configuration;
    std::string defaultFolder;         ///< of modules configured by a relative path
    std::vector<std::string> folders;  ///< patterns, glob(7)
    std::string program;               ///< for enable-in and disable-in
    bool withCardDatabase = true;
};

/// The places of this machine.
ModulePlaces usualModulePlaces();

/// listModules() over these places; throws std::bad_alloc.
void searchModules(const ModulePlaces& places, std::vector<ModuleInfo>& modules,
                   std::vector<std::string>& complaints);

}  // namespace mervane

#endif

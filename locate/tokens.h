#ifndef MERVANE_LOCATE_TOKENS_H
#define MERVANE_LOCATE_TOKENS_H

#include <string>
#include <vector>

#include "../foundation/json/value.h"
#include "../foundation/log/logbase.h"
#include "../pkcs11/tokens.h"
#include "modules.h"
#include "uri.h"

namespace mervane {

/// A token, and the module that shows it. Texts are valid UTF-8 without padding.
struct LocatedToken {
    // Not inline: expanded at every use, they would bloat a program.
    /// @{
    /// Empty by default; copies are complete.
    LocatedToken();
    LocatedToken(const LocatedToken& other);
    LocatedToken(LocatedToken&& other) noexcept;
    LocatedToken& operator=(const LocatedToken& other);
    LocatedToken& operator=(LocatedToken&& other) noexcept;
    ~LocatedToken();
    /// @}

    ModuleInfo module;                ///< whose slot it is in
    std::string libraryManufacturer;  ///< CK_INFO's texts
    std::string libraryDescription;   ///< as above
    std::string libraryVersion;       ///< "2.6"
    std::string slotManufacturer;     ///< CK_SLOT_INFO's texts
    std::string slotDescription;      ///< as above
    TokenInfo token;                  ///< the token itself
};

/// Adds the tokens of a discovery document (docs/json.md). What has another form is passed over. A
/// token that could not be described is not readable.
void addTokens(const JsonValue& discovery, const ModuleInfo& module,
               std::vector<LocatedToken>& tokens);

/// Whether the token, its slot and its module are as the URI says. Members that name an object, and
/// the PIN's file, do not count.
bool fits(const Pkcs11Uri& uri, const LocatedToken& located);

/// Lists the tokens of these modules, those that are usable, loading each into this process. A
/// token that two of them show is listed once, with the first; the trust modules come last.
/// `failures` gets a line for each module that could not be asked: its tokens are unknown, not
/// missing. False, with a line in the log, only when there is no memory.
///
/// A module that crashes takes the process with it, and one that hangs never returns: the
/// command-line tool asks each in a process of its own.
bool listAllTokens(const std::vector<ModuleInfo>& modules, std::vector<LocatedToken>& tokens,
                   std::vector<std::string>& failures, LogBase& log);

/// Removes the tokens that are listed already, by another module.
void removeRepeated(std::vector<LocatedToken>& tokens);

}  // namespace mervane

#endif

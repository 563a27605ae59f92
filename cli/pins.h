#ifndef MERVANE_CLI_PINS_H
#define MERVANE_CLI_PINS_H

#include <functional>
#include <map>
#include <optional>
#include <string>

#include <mervane/foundation/text/xstring.h>

#include "options.h"
#include "token.h"

namespace mervane::cli {

/// Runs the program so that nobody else sees its PINs, neither in a core dump nor with a debugger
/// of the same user. A signal that came at a prompt ends it only here, where every PIN has been
/// wiped.
int guardPins(const std::function<int()>& program);

/// Where the PIN of a login comes from.
const std::optional<std::string>& loginSource(const Options& options);

/// Whether a person is asked for the PIN, and so has to be told of which token.
bool isAsked(const std::optional<std::string>& source);

/// Which PIN of a token is wanted.
struct WantedPin {
    bool isOfficers;
    bool isNew;  ///< it is set, not tried
};

/// The PINs of a command. Made before the module is loaded: what env:NAME names is read at once
/// and removed from the environment, so that neither the module nor what it starts inherits it.
class Pins {
  public:
    explicit Pins(const Options& options);
    Pins(const Pins&) = delete;
    Pins& operator=(const Pins&) = delete;

    /// Gets a PIN from where the option says: env:NAME, file:PATH (its first line), or, with "-" or
    /// no option, the terminal, where a new one has to be typed twice. Without an option it stays
    /// empty where the reader has keys of its own and asks there. Throws a CommandError with
    /// Exit::Pin when it cannot be had, is empty or is not text; throws Interrupted.
    void read(const std::optional<std::string>& source, WantedPin wanted, const TokenInfo& token,
              XString& pin) const;

  private:
    void take(const std::string& source);
    void readFrom(const std::optional<std::string>& source, WantedPin wanted,
                  const TokenInfo& token, XString& pin) const;

    std::map<std::string, XString> m_taken;  // by source, env:NAME
};

}  // namespace mervane::cli

#endif

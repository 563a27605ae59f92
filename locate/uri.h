#ifndef MERVANE_LOCATE_URI_H
#define MERVANE_LOCATE_URI_H

#include <optional>
#include <string>
#include <string_view>

#include "../foundation/log/logbase.h"
#include "../foundation/x509/clscert.h"
#include "../pkcs11/tokens.h"

namespace mervane {

/// A PKCS #11 URI (RFC 7512): which module, token or object is meant. Members have the attributes'
/// values, decoded; one that is absent stands for any value. Texts are UTF-8; `id` is bytes.
struct Pkcs11Uri {
    using Value = std::optional<std::string>;  ///< of an attribute

    // Not inline: expanded at every use, they would bloat a program.
    /// @{
    /// Empty by default; copies are complete.
    Pkcs11Uri() noexcept;
    Pkcs11Uri(const Pkcs11Uri& other);
    Pkcs11Uri(Pkcs11Uri&& other) noexcept;
    Pkcs11Uri& operator=(const Pkcs11Uri& other);
    Pkcs11Uri& operator=(Pkcs11Uri&& other) noexcept;
    ~Pkcs11Uri();
    /// @}

    /// @{
    /// The attribute of that name in section 2.3 or 2.4 of the RFC.
    Value libraryManufacturer;
    Value libraryDescription;
    Value libraryVersion;  ///< "2.6"
    Value slotManufacturer;
    Value slotDescription;
    Value slotId;  ///< decimal
    Value model;
    Value manufacturer;
    Value serial;
    Value token;   ///< its label
    Value id;      ///< CKA_ID
    Value object;  ///< CKA_LABEL
    Value type;    ///< "cert", "private", "public", "secret-key" or "data"
    Value moduleName;
    Value modulePath;
    Value pinSource;  ///< path of a file that has the PIN
    /// @}

    /// Reads `text`. False, with a line in the log and no member set, if it is malformed or says
    /// what cannot be followed: an attribute in the path that is unknown or occurs twice, a PIN in
    /// the URI itself (pin-value), a pin-source other than a file. Unknown attributes after the
    /// question mark are passed over, and the log names them; see section 2.5 of the RFC.
    bool parse(std::string_view text, LogBase& log);

    /// The URI, with every byte percent-encoded that is not a letter, a digit or one of "-._~".
    [[nodiscard]] std::string text() const;

    /// Whether an object is named, not only where it lies.
    [[nodiscard]] bool namesObject() const noexcept { return id || object || type; }
    /// Whether a token is named, or a slot.
    [[nodiscard]] bool namesToken() const noexcept {
        return token || serial || manufacturer || model || slotId || slotDescription ||
               slotManufacturer;
    }
    /// The token that is meant, as far as a TokenChoice can say.
    [[nodiscard]] TokenChoice tokenChoice() const;
};

/// The URI of a token.
Pkcs11Uri uriOf(const TokenInfo& token);
/// That of a certificate on it, by CKA_ID and label.
Pkcs11Uri uriOfCert(const TokenInfo& token, ClsCert& cert);
/// That of the private key that a certificate is linked to, by CKA_ID; nothing if the key has none.
std::optional<Pkcs11Uri> uriOfKey(const TokenInfo& token, ClsCert& cert);

}  // namespace mervane

#endif

#ifndef MERVANE_CLI_CERTVIEW_H
#define MERVANE_CLI_CERTVIEW_H

#include <optional>

#include <mervane/pkcs11/clspkcs11.h>

#include "options.h"
#include "output.h"

namespace mervane::cli {

/// What is known about a certificate's private key. A guess that the token disproves is no key.
struct KeyView {
    enum class State : unsigned char {
        Found,
        None,     ///< everything could be searched
        Unknown,  ///< the user is not logged in, and the token may be hiding it
    } state = State::None;
    std::optional<Certificate::Pkcs11Link> link;  ///< if Found
    std::optional<KeyExplanation> explanation;    ///< on request

    [[nodiscard]] bool isGuess() const noexcept {
        return link && mervane::isGuess(link->facts.rule);
    }
};

/// Links the certificate to its private key, if it has one. Returns the number of keys that could
/// not be read; throws if the key could not be looked for.
int linkKey(ClsPkcs11& p11, ClsCert& cert, const Options& options);

/// The key of a certificate for which linking has been tried.
KeyView keyViewOf(ClsPkcs11& p11, ClsCert& cert, const TokenInfo& token, bool isLoggedIn,
                  bool isExplained);

/// The value of one of a certificate's text properties.
using TextProperty = void (ClsCert::*)(XString&);
std::string read(ClsCert& cert, TextProperty property);

/// What JSON says about a certificate besides its fields.
struct CertContext {
    int index;
    const TokenInfo& token;
    bool withPem;
};

/// Prints the members of a certificate, and those of its key unless `key` is null.
void printCert(JsonPrinter& document, ClsCert& cert, const CertContext& context,
               const KeyView* key);

// Texts for people. Attribute types of X.520 appear by name, not by OID.

std::string subjectFor(ClsCert& cert);
/// A name as people see it, with those types as OIDs again.
std::string withOids(const std::string& dn);
std::string issuerFor(ClsCert& cert);
/// Common name and e-mail address; the whole subject if it has neither.
std::string whoFor(ClsCert& cert);
/// What the certificate may be used for, in a few words.
std::string useFor(ClsCert& cert);
std::string keyFor(ClsCert& cert);
bool isValidToday(ClsCert& cert);
/// The day of expiry, and whether it is past; or that the validity has not begun.
std::string untilFor(ClsCert& cert);
/// The key's handle or what is known instead.
std::string privateKeyFor(const KeyView& key);
/// A line for each key that was passed over, if that was asked for.
std::vector<std::string> explanationFor(const KeyView& key);
/// By what rule the key was found; empty without one.
std::string foundByFor(const KeyView& key);
/// Whether the key signs, or what stands in the way.
std::string signsFor(const KeyView& key);

}  // namespace mervane::cli

#endif

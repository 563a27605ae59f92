#ifndef MERVANE_PKCS11_CERTMATCH_H
#define MERVANE_PKCS11_CERTMATCH_H

#include "foundation/text/stringbuffer.h"
#include "foundation/x509/certificate.h"

namespace mervane {

struct MatchRule;

/// One thing asked of a certificate: a part of it, and the value that this part must have.
class CertMatch {
  public:
    /// `part` is as FindCert takes it; its letter case and surrounding blanks do not count.
    CertMatch(std::string_view part, std::string_view value);

    /// Whether a part is named; without one every certificate matches.
    [[nodiscard]] bool hasPart() const noexcept { return !m_part.isEmpty(); }
    /// Logs what is compared under "checking". To be called only if a part is named.
    [[nodiscard]] bool matches(const Certificate& cert, LogBase& log) const;

  private:
    StringBuffer m_part;  // trimmed, in lower case
    StringBuffer m_value;
    const MatchRule* m_rule;
};

}  // namespace mervane

#endif

#ifndef MERVANE_PKCS11_KEYNOTES_H
#define MERVANE_PKCS11_KEYNOTES_H

#include <memory>
#include <vector>

#include "pkcs11/calls/cktypes.h"
#include "signing/verifier.h"

namespace mervane {

/// When a key wants its PIN at each signature, as seen from C_SignInit.
enum class PinTime : std::uint8_t { Never, AfterInit, BeforeInit };

/// What signing has learnt of a key, so that no failure is met twice.
struct KeyNotes {
    CK_OBJECT_HANDLE key = 0;
    std::shared_ptr<const Verifier> verifier;  // of the certificate that was signed for
    PinTime pinTime = PinTime::Never;          // where its attributes do not say so
    bool isProved = false;                     // it is the certificate's
    std::vector<unsigned long> refused;        // CKM_ numbers that the token does not take for it
};

/// The notes of one session.
class KeyNotebook {
  public:
    /// The notes on a key and a certificate, made when they are first asked for. `session` is the
    /// number of the object's session; the notes of another one are thrown away.
    std::shared_ptr<KeyNotes> notesOn(std::uint64_t session, CK_OBJECT_HANDLE key,
                                      const std::shared_ptr<Certificate>& cert) {
        constexpr std::size_t kMaxNotes = 256;
        if (session != m_session || m_notes.size() >= kMaxNotes) m_notes.clear();
        m_session = session;
        for (const auto& notes : m_notes) {
            if (notes->key == key && notes->verifier->cert() == cert.get()) return notes;
        }
        auto fresh = std::make_shared<KeyNotes>();
        fresh->key = key;
        fresh->verifier = std::make_shared<Verifier>(cert);
        return m_notes.emplace_back(std::move(fresh));
    }

  private:
    std::uint64_t m_session = 0;
    std::vector<std::shared_ptr<KeyNotes>> m_notes;
};

}  // namespace mervane

#endif

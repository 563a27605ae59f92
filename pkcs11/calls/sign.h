#ifndef MERVANE_PKCS11_CALLS_SIGN_H
#define MERVANE_PKCS11_CALLS_SIGN_H

#include <algorithm>
#include <optional>
#include <span>
#include <utility>

#include "foundation/digest/digest.h"
#include "pkcs11/calls/calls.h"
#include "pkcs11/keynotes.h"
#include "signing/options.h"

namespace mervane {

/// What is to be signed: a digest alone, bytes, or what a reader gives. Digest and data are the
/// caller's.
class SignInput {
  public:
    /// The pieces in which data is read, and handed to a module that hashes, in bytes.
    static constexpr std::size_t kPieceSize = 65536;

    static SignInput ofDigest(der::Bytes digest) { return {digest, std::nullopt, nullptr}; }
    static SignInput ofData(der::Bytes data) { return {{}, data, nullptr}; }
    static SignInput ofReader(const DataReader& reader) { return {{}, std::nullopt, &reader}; }

    /// Hands all of the data on, piece by piece, and keeps its digest. False if it cannot be read,
    /// or was read before, or `take` is false.
    template <class Take>
    bool pass(Hash hash, const Take& take);

    /// The digest, which takes reading the data; nothing if it cannot be read.
    std::optional<der::Bytes> digest(Hash hash);

    /// There is data, not a digest alone, and it can be read.
    [[nodiscard]] bool hasData() const noexcept { return m_data || (m_reader && !m_isSpent); }
    /// The data, where it lies in memory.
    [[nodiscard]] const std::optional<der::Bytes>& data() const noexcept { return m_data; }

  private:
    SignInput(der::Bytes digest, std::optional<der::Bytes> data, const DataReader* reader)
        : m_digest(digest.begin(), digest.end()), m_data(data), m_reader(reader) {}

    std::vector<std::uint8_t> m_digest;  // empty while it is not known
    std::optional<der::Bytes> m_data;
    const DataReader* m_reader;
    bool m_isSpent = false;
};

template <class Take>
bool SignInput::pass(Hash hash, const Take& take) {
    Digest digest(hash);
    if (m_data) {
        for (der::Bytes rest = *m_data; !rest.empty();) {
            const der::Bytes piece = rest.first(std::min(rest.size(), kPieceSize));
            digest.add(piece);
            if (!take(piece)) return false;
            rest = rest.subspan(piece.size());
        }
    } else {
        if (m_reader == nullptr || std::exchange(m_isSpent, true)) return false;
        std::vector<std::uint8_t> room(kPieceSize);
        for (;;) {
            const std::ptrdiff_t size = (*m_reader)(room);
            if (size < 0 || size > static_cast<std::ptrdiff_t>(room.size())) return false;
            if (size == 0) break;
            const der::Bytes piece = std::span(room).first(static_cast<std::size_t>(size));
            digest.add(piece);
            if (!take(piece)) return false;
        }
    }
    m_digest = digest.finish();
    return true;
}

/// Signs with a key of the open session. `signature` is as the module gave it: RSA as long as the
/// modulus, EC perhaps in another form; nothing about it has been checked. sign.cpp tells the
/// story.
bool sign(Calls& calls, const Scheme& scheme, bool wantsPin, KeyNotes& notes, SignInput& input,
          std::vector<std::uint8_t>& signature, LogBase& log);

}  // namespace mervane

#endif

// What is written in DER is read back as it was, and whatever a token calls a signature, or a certificate a key, is
// verified or refused.

#include <algorithm>
#include <array>

#include "foundation/x509/derwriter.h"
#include "fuzz/fuzz.h"
#include "signing/ecdsa.h"
#include "signing/rsa.h"

using namespace mervane;

namespace {

// Takes bytes from the front of the input.
struct Input {
    der::Bytes rest;
    der::Bytes take(std::size_t size) {
        const der::Bytes out = rest.first(std::min(size, rest.size()));
        rest = rest.subspan(out.size());
        return out;
    }
    std::uint8_t byte() {
        const der::Bytes one = take(1);
        return one.empty() ? 0 : one[0];
    }
};

der::Octets made(Input& input, int depth) {
    const std::uint8_t kind = input.byte();
    if (depth > 8 || kind % 4 == 0) return der::element(der::kOctetString, input.take(kind));
    if (kind % 4 == 1) return der::unsignedInteger(input.take(kind / 4U));
    std::vector<der::Octets> parts;
    for (int i = 0; i < kind / 4 % 5; ++i) parts.push_back(made(input, depth + 1));
    if (kind % 4 == 2) return der::setOf(parts);
    der::Octets whole;
    for (const der::Octets& part : parts) whole.insert(whole.end(), part.begin(), part.end());
    return der::element(der::kSequence, der::Bytes(whole));
}

// Every element is read, has the shortest length, and is a set in order.
void check(der::Bytes written) {
    der::Cursor cursor(written);
    const auto element = cursor.readAny();
    fuzz::require(element && cursor.atEnd());
    fuzz::require(der::element(element->tag, element->content) == der::Octets(written.begin(), written.end()));
    if ((element->tag & 0x20U) == 0) return;
    der::Cursor parts(element->content);
    der::Octets last;
    while (!parts.atEnd()) {
        const auto part = parts.readAny();
        fuzz::require(part.has_value());
        der::Octets next(part->whole.begin(), part->whole.end());
        fuzz::require(element->tag != der::kSet || last <= next);
        last = std::move(next);
        check(part->whole);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input{{data, size}};
    check(made(input, 0));
    const auto raw = ecdsa::fromDer(input.rest, 64);
    if (raw) fuzz::require(ecdsa::fromDer(ecdsa::toDer(*raw), 64) == raw);
    static constexpr std::array<std::uint8_t, 10> kP256 = {6, 8, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 3, 1, 7};
    const der::Bytes digest = input.take(32);
    const der::Bytes point = input.take(65);
    fuzz::require(ecdsa::verify(kP256, point, digest, raw ? der::Bytes(*raw) : input.rest) != Verdict::NotVerifiable);
    const der::Bytes exponent = input.take(4);
    const std::size_t half = input.rest.size() / 2;
    const rsa::Verifier verifier({mp_int(input.take(half)), mp_int(exponent)});
    const bool isPkcs1 = verifier.verifiesPkcs1(Hash::Sha256, digest, input.rest);
    const bool isPss = verifier.verifiesPss(Hash::Sha384, digest, input.rest);
    fuzz::require(!isPkcs1 || !isPss);
    return 0;
}

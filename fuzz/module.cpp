// A module whose answers are drawn from the input: return values, counts, lengths, handles and
// bytes, over roads through the whole class.

#include <dlfcn.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "fuzz/fuzz.h"
#include "pkcs11/clspkcs11.h"
#include "tests/fake/world.h"

using namespace mervane;

namespace {

// Bytes of the input, zeros behind its end.
class Stream {
  public:
    Stream(const std::uint8_t* data, std::size_t size) : m_rest(data, size) {}
    unsigned next() {
        if (m_rest.empty()) return 0;
        const unsigned byte = m_rest.front();
        m_rest = m_rest.subspan(1);
        return byte;
    }

  private:
    std::span<const std::uint8_t> m_rest;
};

CK_ULONG number(Stream& in) {
    constexpr CK_ULONG kNumbers[] = {0,
                                     1,
                                     3,
                                     8,
                                     64,
                                     1023,
                                     1024,
                                     8192,
                                     1048576,
                                     1048577,
                                     CK_ULONG{1} << 40,
                                     ~CK_ULONG{0} / 2,
                                     ~CK_ULONG{0}};
    const unsigned choice = in.next();
    return choice < 128 ? choice : kNumbers[choice % std::size(kNumbers)];
}

void lie(Stream& in, fake::Outputs& out) {
    const unsigned what = in.next();
    if (what < 96) return;  // mostly the truth
    if (out.count != nullptr && (what & 1U) != 0) *out.count = number(in);
    for (CK_ULONG i = 0;
         out.ids != nullptr && i < std::min<CK_ULONG>(out.room, 8) && (what & 2U) != 0; ++i)
        out.ids[i] = number(in);
    for (CK_ULONG i = 0; out.attributes != nullptr && i < out.room; ++i) {
        CK_ATTRIBUTE& attribute = out.attributes[i];
        const unsigned how = in.next();
        const bool hasBytes = attribute.pValue != nullptr &&
                              attribute.ulValueLen != CK_UNAVAILABLE_INFORMATION &&
                              attribute.ulValueLen <= 8192;
        if (hasBytes && (how & 1U) != 0) {
            for (CK_ULONG k = 0; k < std::min<CK_ULONG>(attribute.ulValueLen, 16); ++k)
                static_cast<unsigned char*>(attribute.pValue)[k] =
                    static_cast<unsigned char>(in.next());
        }
        if ((how & 6U) == 6) attribute.ulValueLen = number(in);
        if (how > 250) attribute.pValue = nullptr;
    }
    if (out.session != nullptr && (what & 4U) != 0) *out.session = 0;
    if (out.tokenInfo != nullptr) out.tokenInfo->flags = number(in);
    if (out.tokenInfo != nullptr)
        std::fill_n(out.tokenInfo->label, 32, static_cast<unsigned char>(in.next()));
    if (out.slotInfo != nullptr) out.slotInfo->flags |= number(in);
    if ((what & 8U) != 0) out.result = number(in) % 0x210;
}

fake::Object object(CK_OBJECT_HANDLE handle, CK_ULONG objectClass, CK_ULONG keyType) {
    fake::Object out;
    out.handle = handle;
    out.attributes[CKA_CLASS] = fake::bytesOf(objectClass);
    out.attributes[CKA_KEY_TYPE] = fake::bytesOf(keyType);
    out.attributes[CKA_ID] = {static_cast<unsigned char>(keyType)};
    out.attributes[CKA_VALUE] = fake::Bytes(300, 0x30);
    out.attributes[CKA_EC_POINT] = fake::Bytes(65, 0x04);
    out.attributes[CKA_SIGN] = fake::bytesOf(true);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fake::World& world = *[] {
        void* const library = ::dlopen(MERVANE_FAKE_MODULE, RTLD_NOW);
        fuzz::require(library != nullptr);
        return reinterpret_cast<fake::World* (*)()>(::dlsym(library, "fakeWorld"))();
    }();
    Stream in(data, size);
    world.reset();
    world.slots[0].objects = {
        object(1, CKO_CERTIFICATE, CKK_RSA), object(2, CKO_CERTIFICATE, CKK_EC),
        object(3, CKO_PRIVATE_KEY, CKK_RSA), object(4, CKO_PRIVATE_KEY, CKK_EC),
        object(5, CKO_PUBLIC_KEY, CKK_EC)};
    world.answer = [&in](auto&, auto) -> std::optional<CK_RV> {
        const unsigned choice = in.next();
        if (choice == 255) throw std::runtime_error("x");
        return choice >= 240 ? std::optional(number(in)) : std::nullopt;
    };
    world.lie = [&in](fake::Outputs& out) { lie(in, out); };
    {
        ClsPkcs11 p11;
        p11.put_SharedLibPath(XString(MERVANE_FAKE_MODULE));
        const XString pin("1234-secret-user-pin-987");
        ClsCert cert;
        ClsJsonObject json;
        p11.Discover(in.next() % 2 == 0, json);
        p11.QuickSession(static_cast<int>(in.next() % 3), pin);
        p11.FindCert(XString(in.next() % 2 == 0 ? "privateKey" : ""), XString(), cert);
        if (p11.FindAllCerts() && p11.GetCert(0, cert))
            p11.linkCertToPkcs11Session(cert.getCert().get(), in.next() % 2 == 0, p11.log());
        p11.FindAllKeys(XString(), json);
        ClsJsonObject description;
        p11.FindObject(description);
        p11.SetPin(pin, pin);
        p11.Logout();
        p11.OpenSession(-1, false);
        p11.CloseSession();
        fuzz::require(p11.log().text().find("1234-secret-user-pin-987") == std::string::npos);
        fuzz::require(p11.log().contextDepth() == 0);
        ClsJsonObject log;
        fuzz::require(log.loadJson(p11.log().json(), p11.log()));
    }
    fuzz::require(world.inside == 0);
    world.answer = nullptr;
    world.lie = nullptr;
    return 0;
}

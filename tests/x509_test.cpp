// DER, names, certificates and keys. That whole certificates are read as others read them is shown
// by softhsm/agreement.py against the openssl tool.

#include "foundation/text/hex.h"
#include "foundation/x509/extensionxml.h"
#include "foundation/x509/name.h"
#include "foundation/x509/oid.h"
#include "foundation/x509/sha1.h"
#include "tests/readers.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

std::vector<std::uint8_t> hex(std::string_view digits) { return fromHex(digits).value(); }

// Odd lengths, decided while compiling: what is read is the size of the content, -1 when refused.
template <std::size_t N>
constexpr long contentSize(const std::uint8_t (&bytes)[N]) {
    der::Cursor cursor{der::Bytes(bytes)};
    const auto element = cursor.readAny();
    return element ? static_cast<long>(element->content.size()) : -1;
}
static_assert(contentSize({0x04, 0x00}) == 0);
static_assert(contentSize({0x04, 0x01, 0xAA}) == 1);
static_assert(contentSize({0x04, 0x02, 0xAA}) == -1);                          // longer than what is there
static_assert(contentSize({0x04, 0x80, 0x00, 0x00}) == -1);                    // indefinite
static_assert(contentSize({0x04, 0x81, 0x01, 0xAA}) == 1);                     // not minimal, let pass
static_assert(contentSize({0x04, 0x84, 0xFF, 0xFF, 0xFF, 0xFF, 0xAA}) == -1);  // 4 GiB
static_assert(contentSize({0x04, 0x89, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0xAA}) == -1);
static_assert(contentSize({0x1F, 0x81, 0x00}) == -1);  // tag above 30
static_assert(contentSize({0x30}) == -1);

TEST(OidTest, TextAndOctetsAgree) {
    const std::pair<const char*, const char*> rows[] = {{"550403", "2.5.4.3"},
                                                        {"2A864886F70D010101", "1.2.840.113549.1.1.1"},
                                                        {"00", "0.0"},
                                                        {"883703", "2.999.3"},
                                                        {"5504", "2.5.4"},
                                                        // 2.25 and a UUID of 128 bits (ITU-T X.667): an arc beyond 64 bits, which is read only; and 10^20
                                                        {"6983F09DA7EBCFDEE0C7A1A7B2C0948CC8F9D776", "2.25.329800735698586629295641978511506172918"},
                                                        {"8AEBE3D7C5D698C08000", "2.99999999999999999920"}};
    for (const auto& [octets, dotted] : rows) {
        EXPECT_EQ(oidToText(hex(octets)), dotted);
        const std::string back = oidFromText(dotted);
        EXPECT_EQ(toHex(der::Bytes(reinterpret_cast<const std::uint8_t*>(back.data()), back.size())), std::strlen(octets) > 18 ? "" : octets);
    }
    // Nothing, one that ends within an arc, one with a padded arc
    for (const char* const bad : {"", "80", "558004"}) EXPECT_EQ(oidToText(hex(bad)), "") << bad;
    EXPECT_TRUE(oidToText(std::vector<std::uint8_t>(5000, 0xFF)).empty());
    for (const char* const bad : {"", "1", "3.1", "1.40", "1..2", "1.2.", "a.b", "1.2.99999999999999999999"}) { EXPECT_TRUE(oidFromText(bad).empty()) << bad; }
}

TEST(Sha1Test, KnownAnswers) {
    // FIPS 180-4 examples, and the lengths around a block's end against the openssl tool.
    const auto of = [](const std::string& text) { return toHex(sha1(der::Bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()))); };
    EXPECT_EQ(of(""), "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");
    EXPECT_EQ(of("abc"), "A9993E364706816ABA3E25717850C26C9CD0D89D");
    EXPECT_EQ(of("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"), "84983E441C3BD26EBAAE4AA1F95129E5E54670F1");
    EXPECT_EQ(of(std::string(1000000, 'a')), "34AA973CD4C4DAA4F61EEB2BDBAD27316534016F");
    EXPECT_EQ(of(std::string(55, 'a')), "C1C8BBDC22796E28C0E15163D20899B65621D65A");
    EXPECT_EQ(of(std::string(64, 'a')), "0098BA824B5C16427BD7A1122A5A442A25EC644D");
}

std::string nameOf(std::string_view attributes, bool withTags = true) {
    // Each "OID:TAG:hexvalue;" is one relative name.
    std::string der;
    const auto wrap = [](char tag, const std::string& content) { return std::string{tag, static_cast<char>(content.size())} + content; };
    while (!attributes.empty()) {
        const auto one = attributes.substr(0, attributes.find(';'));
        attributes.remove_prefix(std::min(attributes.size(), one.size() + 1));
        const std::string oid = oidFromText(one.substr(0, one.find(':')));
        const auto rest = one.substr(one.find(':') + 1);
        const auto value = hex(rest.substr(3));
        const std::string pair = wrap(0x06, oid) + wrap(static_cast<char>(hex(rest.substr(0, 2))[0]), {value.begin(), value.end()});
        der += wrap(0x31, wrap(0x30, pair));
    }
    der = wrap(0x30, der);
    return nameToText(der::Bytes(reinterpret_cast<const std::uint8_t*>(der.data()), der.size()), withTags).value_or("malformed");
}

TEST(NameTest, TextForms) {
    const std::pair<const char*, const char*> rows[] = {
        {"", ""},
        {"2.5.4.3:0C:416C;2.5.4.10:13:42", "CN=Al, O=B"},
        {"2.5.4.3:0C:2C2B223C3E3B5C", "CN=\\,\\+\\\"\\<\\>\\;\\\\"},
        {"2.5.4.3:0C:20782020", "CN=\\ x \\ "},
        {"2.5.4.3:0C:2361", "CN=\\#a"},
        {"2.5.4.3:0C:610A00", "CN=a\\0A\\00"},
        {"2.5.4.3:14:FC", "CN=\xC3\xBC"},                            // TeletexString as Latin-1
        {"2.5.4.3:1E:00FCD83DDE00", "CN=\xC3\xBC\xF0\x9F\x98\x80"},  // BMPString with a surrogate pair
        {"2.5.4.3:1E:D83D0041",
         "CN=\xEF\xBF\xBD"
         "A"},
        {"2.5.4.3:1E:00FC41", "CN=#1E0300FC41"},  // half a character
        {"2.5.4.3:1C:0001F600", "CN=\xF0\x9F\x98\x80"},
        {"2.5.4.3:0C:FF41",
         "CN=\xEF\xBF\xBD"
         "A"},
        {"2.5.4.3:03:0041", "CN=#03020041"},  // no string type
        {"2.5.4.5:13:31;1.2.3.4:0C:78", "2.5.4.5=1, 1.2.3.4=x"},
        {"1.2.840.113549.1.9.1:16:6140;0.9.2342.19200300.100.1.25:16:62", "E=a@, DC=b"},
        {"2.5.4.3:0C:", "CN="},
    };
    for (const auto& [attributes, text] : rows) EXPECT_EQ(nameOf(attributes), text) << attributes;
    EXPECT_EQ(nameOf("2.5.4.3:0C:61;2.5.4.10:13:622C", false), "a, b\\,");
    EXPECT_FALSE(nameToText(hex("310130"), true));
    for (const char* const bad : {"3003300130", "300431023005", "3009310730050603550403"}) EXPECT_FALSE(nameToText(hex(bad), true)) << bad;
}

TEST(CertificateTest, ValuesOfACertificateMadeByTheOpensslTool) {
    LogNull log;
    const auto bob = loadCert("bob");
    XString text;
    EXPECT_TRUE(bob->getSubjectDN(text, log));
    EXPECT_THAT(std::string(text.view()), HasSubstr("C=EX, O=Z\xC3\xBCrich \\, \\\"S\xC3\xBC"
                                                    "d\\\", "));
    EXPECT_THAT(std::string(text.view()), testing::AnyOf(HasSubstr("CN=Bob+UID=b7"), HasSubstr("UID=b7+CN=Bob")));
    EXPECT_TRUE(bob->getSerialNumber(text, log));
    EXPECT_EQ(text.view(), "FF00112233445566778899AABBCCDDEEFF001122");  // no sign octet
    EXPECT_TRUE(bob->getIssuerPart("CN", text, log));
    EXPECT_EQ(text.view(), "Test CA");
    EXPECT_FALSE(bob->getSubjectPart("L", text, log));
    EXPECT_EQ(text.view(), "Test CA");  // untouched
    EXPECT_EQ(bob->getIntendedKeyUsage(log), 0x06);
    StringBuffer xml;
    const auto alice = loadCert("alice");
    EXPECT_TRUE(alice->getExtensionXml("2.5.29.32", xml, log));
    EXPECT_EQ(xml.view(), "<certificatePolicies><policy><oid>1.2.3.4</oid></policy><policy><oid>2.5.29.32.0</oid></policy></certificatePolicies>");
    EXPECT_TRUE(bob->getExtensionXml("2.5.29.19", xml, log));
    EXPECT_EQ(xml.view(), "<extension><extnID>2.5.29.19</extnID><critical>true</critical><hex>30060101FF020103</hex></extension>");
    EXPECT_FALSE(alice->getExtensionXml("1.2.3", xml, log));
    EXPECT_FALSE(loadCert("ca")->getExtensionXml("2.5.29.15", xml, log));
    EXPECT_EQ(loadCert("ca")->getIntendedKeyUsage(log), 0);
}

TEST(CertificateTest, ExtensionsOfAnyFormStayReadable) {
    const auto xml = [](const char* oid, const char* value) {
        const std::string content = oidFromText(oid);
        return extensionToXml(der::Bytes(reinterpret_cast<const std::uint8_t*>(content.data()), content.size()), true, hex(value));
    };
    EXPECT_EQ(xml("1.2.3", "0500"), "<extension><extnID>1.2.3</extnID><critical>true</critical><hex>0500</hex></extension>");
    EXPECT_THAT(xml("2.5.29.32", "30"), HasSubstr("<hex>30</hex>"));  // malformed policies
    // A qualifier's OID is no policy.
    EXPECT_EQ(xml("2.5.29.32", "3017301506022A03300F300D06082B06010505070201160161"),
              "<certificatePolicies><policy><oid>1.2.3</oid></policy></certificatePolicies>");
    const std::pair<const char*, int> usages[] = {
        {"030206C0", 0xC0}, {"030206FF", 0xC0}, {"03030700FF", 0x00}, {"0303078080", 0x80}, {"030100", 0}, {"0500", 0}, {"", 0}};
    for (const auto& [value, bits] : usages) EXPECT_EQ(keyUsageBits(hex(value)), bits) << value;
}

TEST(CertificateTest, EveryTruncationAndFlippedByteIsHarmless) {
    for (const char* const name : {"alice", "p521", "explicit"}) {
        fake::Bytes der = certDer(name);
        for (std::size_t size = 0; size < der.size(); ++size) EXPECT_FALSE(readAll(der::Bytes(der).first(size)));
        for (unsigned char& byte : der) {
            const unsigned char before = byte;
            for (const unsigned flip : {0x01U, 0x80U, 0xFFU}) {
                byte = static_cast<unsigned char>(before ^ flip);
                readAll(der);
            }
            byte = before;
        }
    }
}

TEST(EcPointTest, FormIsToldByTheCurvesLength) {
    const EcCurve* const p256 = findCurve(hex("06082A8648CE3D030107"));
    ASSERT_NE(p256, nullptr);
    std::vector<std::uint8_t> raw(65, 0x41);
    raw[0] = 0x04;
    std::vector<std::uint8_t> wrapped = raw;
    wrapped.insert(wrapped.begin(), {0x04, 0x41});
    EXPECT_EQ(unwrapEcPoint(raw, p256).size(), 65U);  // reads as DER as well: 04 41 ..
    EXPECT_EQ(unwrapEcPoint(wrapped, p256).size(), 65U);
    EXPECT_EQ(unwrapEcPoint(raw, nullptr).size(), 65U);
    EXPECT_EQ(unwrapEcPoint(wrapped, nullptr).size(), 65U);
    const EcCurve* const p384 = findCurve(hex("06052B81040022"));
    EXPECT_TRUE(unwrapEcPoint(raw, p384).empty());
    EXPECT_TRUE(unwrapEcPoint({}, p256).empty());
    EXPECT_TRUE(unwrapEcPoint(hex("00"), p256).empty());
    EXPECT_EQ(findCurve(hex("06052B81040021")), nullptr);  // P-224
    EXPECT_EQ(findCurve(hex("0500")), nullptr);
}

TEST(BigIntegerTest, Renderings) {
    DataBuffer out;
    const mp_int value(hex("0000FF01"));
    EXPECT_EQ(value.bitCount(), 16);
    MpIntUtil::toUnsignedBytes(value, out);
    EXPECT_EQ(toHex(out.span()), "FF01");
    MpIntUtil::toSignedBytes(value, out);
    EXPECT_EQ(toHex(out.span()), "00FF01");
    EXPECT_EQ(mp_int(hex("0000")).bitCount(), 0);
}

}  // namespace
}  // namespace mervane::test

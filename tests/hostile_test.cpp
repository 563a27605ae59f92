// Certificates, JSON and compressed data made to hurt: work and memory stay in proportion to the input,
// and what is refused is refused for good.

#include <ctime>

#include "foundation/json/parser.h"
#include "foundation/text/hex.h"
#include "foundation/x509/oid.h"
#include "tests/allocations.h"
#include "tests/readers.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

using Bytes = std::string;

Bytes tlv(unsigned tag, const Bytes& content) {
    Bytes out(1, static_cast<char>(tag));
    if (content.size() < 128) return out + static_cast<char>(content.size()) + content;
    Bytes length;
    for (std::size_t size = content.size(); size != 0; size >>= 8) length.insert(length.begin(), static_cast<char>(size));
    return out + static_cast<char>(0x80 + length.size()) + length + content;
}

Bytes repeated(const Bytes& piece, std::size_t size) {
    Bytes out;
    while (out.size() < size) out += piece;
    return out;
}

const Bytes kOidCn("\x06\x03\x55\x04\x03", 5);
const Bytes kPlainName = tlv(0x30, tlv(0x31, tlv(0x30, kOidCn + tlv(0x0C, "A"))));
Bytes rsaKey(std::size_t size) {
    return tlv(0x30, tlv(0x30, tlv(0x06, "\x2A\x86\x48\x86\xF7\x0D\x01\x01\x01")) +
                         tlv(0x03, Bytes(1, '\0') + tlv(0x30, tlv(0x02, '\0' + Bytes(size, '\xF1')) + tlv(0x02, "\x03"))));
}

struct Parts {
    Bytes serial = tlv(0x02, "\x05");
    Bytes issuer = kPlainName;
    Bytes subject = kPlainName;
    Bytes key = rsaKey(128);
    Bytes extensions;
};

Bytes certificate(const Parts& parts) {
    const Bytes algorithm = tlv(0x30, tlv(0x06, "\x2A\x03"));
    const Bytes times = tlv(0x30, tlv(0x17, "260101000000Z") + tlv(0x17, "360101000000Z"));
    const Bytes extensions = parts.extensions.empty() ? "" : tlv(0xA3, tlv(0x30, parts.extensions));
    const Bytes tbs = tlv(0x30, parts.serial + algorithm + parts.issuer + times + parts.subject + parts.key + extensions);
    return tlv(0x30, tbs + algorithm + tlv(0x03, Bytes(5, '\0')));
}

Bytes extension(char oidTail, const Bytes& value) { return tlv(0x30, tlv(0x06, Bytes("\x55\x1D", 2) + oidTail) + tlv(0x04, value)); }

std::span<const std::uint8_t> asBytes(const Bytes& text) { return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}; }

// Of this thread alone, whatever else the machine does.
double cpuSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Of a subject with one name, whose attributes are given; and of one name, whose value is given.
Bytes withAttributes(const Bytes& attributes) { return certificate({.subject = tlv(0x30, tlv(0x31, attributes))}); }
Bytes withName(unsigned tag, const Bytes& value, const Bytes& oid = kOidCn) { return withAttributes(tlv(0x30, oid + tlv(tag, value))); }

const std::pair<const char*, Bytes (*)(std::size_t size)> kGrowing[] = {
    {"serial", [](auto n) { return certificate({.serial = tlv(0x02, Bytes(n, '\x81'))}); }},
    {"one long value", [](auto n) { return withName(0x0C, Bytes(n, ',')); }},
    {"BMPString", [](auto n) { return withName(0x1E, Bytes(n & ~std::size_t{1}, '\xD8')); }},
    {"value of no string type", [](auto n) { return withName(0x04, Bytes(n, 'x')); }},
    {"many names", [](auto n) { return certificate({.subject = tlv(0x30, repeated(tlv(0x31, tlv(0x30, kOidCn + tlv(0x0C, "v"))), n))}); }},
    {"many attributes in one name", [](auto n) { return withAttributes(repeated(tlv(0x30, kOidCn + tlv(0x0C, "v")), n)); }},
    {"huge OID", [](auto n) { return withName(0x0C, "v", tlv(0x06, Bytes(n, '\xFF') + '\x01')); }},
    {"long OIDs", [](auto n) { return withAttributes(repeated(tlv(0x30, tlv(0x06, Bytes(120, '\xFF') + '\x01') + tlv(0x0C, "v")), n)); }},
    {"many extensions", [](auto n) { return certificate({.extensions = repeated(extension('\x63', "v"), n)}); }},
    {"many policies", [](auto n) { return certificate({.extensions = extension('\x20', tlv(0x30, repeated(tlv(0x30, tlv(0x06, "\x2A")), n)))}); }},
    {"unknown extension", [](auto n) { return certificate({.extensions = extension('\x0E', Bytes(n, 'x'))}); }},
    {"huge modulus", [](auto n) { return certificate({.key = rsaKey(n)}); }},
    {"trailing bytes", [](auto n) { return certificate({}) + Bytes(n, '\0'); }},
};

// The most memory that the work takes at a time.
template <class Work>
unsigned long peakOf(const Work& work) {
    const unsigned long before = allocations::inUse;
    allocations::peak = before;
    work();
    return allocations::peak - before;
}

// The time for the large input to that for the small one: the least of seven each, taken in turn.
template <class Work>
double ratioOf(const Bytes& small, const Bytes& large, const Work& work) {
    double least[2] = {1e9, 1e9};
    for (int i = 0; i < 14; ++i) {
        const double start = cpuSeconds();
        work(i % 2 == 0 ? small : large);
        least[i % 2] = std::min(least[i % 2], cpuSeconds() - start);
    }
    return least[1] / least[0];
}

// For an input doubled twice linear work is 4, quadratic 16; caches and a busy machine take their share.
constexpr double kMaxRatio = 8;

TEST(HostileTest, WorkAndMemoryGrowWithTheInputAndNoFaster) {
    for (const auto& [what, make] : kGrowing) {
        const Bytes ders[] = {make(100000), make(400000)};
        for (const Bytes& der : ders) EXPECT_LE(peakOf([&] { EXPECT_TRUE(readAll(asBytes(der))); }), 16 * der.size()) << what;
        EXPECT_LT(ratioOf(ders[0], ders[1], [](const Bytes& der) { readAll(asBytes(der)); }), kMaxRatio) << what;
    }
}

TEST(HostileTest, JsonIsInProportion) {
    const auto nested = [](std::size_t levels) { return Bytes(levels, '[') + "0" + Bytes(levels, ']'); };
    const Bytes items[] = {"0",
                           "-0",
                           "123456789",
                           "[]",
                           "[0]",
                           "{}",
                           "\"\"",
                           "\"a\"",
                           "\"[,\"",
                           "[0,0,0]",
                           "[0,0,0,0,0]",
                           "{\"\":0}",
                           "{\"a\":{\"\":\"\"}}",
                           "[" + repeated("0,", 256) + "0]",
                           "[" + repeated("0,", 512) + "0]",
                           nested(62),
                           "\"" + repeated("\\u00e4", 9) + "\""};
    const auto check = [](const Bytes& text, bool valid) {
        JsonValue value;
        JsonError error;
        EXPECT_LE(peakOf([&] { EXPECT_EQ(parseJson(text, value, error), valid); }), 16 * text.size()) << text.substr(0, 100);
    };
    for (const Bytes& item : items) {
        for (const std::size_t size : {100000U, 140000U}) {  // a list that doubles is at its worst at one of them
            check("[" + repeated(item + ",", size) + item + "]", true);
            check("{" + repeated("\"\":" + item + ",", size) + "\"\":0}", true);
        }
    }
    check("\"" + repeated("\\n", 1000000) + "\"", true);
    // Lists in lists, the elements of each of which have to be counted
    const auto deep = [&](std::size_t size) {
        Bytes text = "0";
        for (int level = 0; level < 60; ++level) text = "[" + repeated("0,", size) + text + "]";
        return text;
    };
    const Bytes small = deep(5000);
    const Bytes large = deep(20000);
    check(large, true);
    const auto parse = [](const Bytes& text) {
        JsonValue value;
        JsonError error;
        EXPECT_TRUE(parseJson(text, value, error));
    };
    EXPECT_LT(ratioOf(small, large, parse), kMaxRatio);
    check("[" + repeated("0,", 600) + Bytes(1000000, ','), false);
    check("[" + repeated("0,", 600) + repeated(" ,", 1000000), false);
    check(repeated("[" + repeated("0,", 4000), 256000), false);
}

// Names, keys and extensions that are malformed: no value, never a wrong one.
TEST(HostileTest, MalformedPartsHaveNoValue) {
    LogNull log;
    const Bytes ec = tlv(0x06, "\x2A\x86\x48\xCE\x3D\x02\x01");
    const Bytes p256 = tlv(0x06, "\x2A\x86\x48\xCE\x3D\x03\x01\x07");
    const auto ecKey = [&](const Bytes& parameters, const Bytes& point) { return tlv(0x30, tlv(0x30, ec + parameters) + tlv(0x03, Bytes(1, '\0') + point)); };
    const struct {
        const char* what;
        Bytes key;
        int type;
        bool hasPoint;
    } keys[] = {
        {"good", ecKey(p256, '\x04' + Bytes(64, 'x')), 3, true},
        {"compressed", ecKey(p256, '\x02' + Bytes(32, 'x')), 3, true},
        {"infinity", ecKey(p256, Bytes(1, '\0')), 3, false},
        {"short", ecKey(p256, '\x04' + Bytes(63, 'x')), 3, false},
        {"long", ecKey(p256, '\x04' + Bytes(65, 'x')), 3, false},
        {"hybrid", ecKey(p256, '\x06' + Bytes(64, 'x')), 3, false},
        {"empty", ecKey(p256, ""), 3, false},
        {"no parameters", ecKey("", '\x04' + Bytes(64, 'x')), 0, false},
        {"implicit CA", ecKey(tlv(0x05, ""), '\x04' + Bytes(64, 'x')), 0, false},
        {"explicit", ecKey(tlv(0x30, tlv(0x02, "\x01")), '\x04' + Bytes(64, 'x')), 0, false},
        {"unused bits", tlv(0x30, tlv(0x30, ec + p256) + tlv(0x03, Bytes(1, '\x03') + '\x04' + Bytes(64, 'x'))), 0, false},
        {"RSA of 504 bits", rsaKey(63), 0, false},
        {"RSA of 512 bits", rsaKey(64), 1, false},
        {"RSA of 16384 bits", rsaKey(2048), 1, false},
        {"RSA of 16392 bits", rsaKey(2049), 0, false},
        {"RSA without exponent",
         tlv(0x30, tlv(0x30, tlv(0x06, "\x2A\x86\x48\x86\xF7\x0D\x01\x01\x01")) + tlv(0x03, Bytes(1, '\0') + tlv(0x30, tlv(0x02, Bytes(128, '\x71'))))), 0,
         false},
    };
    for (const auto& row : keys) {
        const auto cert = Certificate::createFromDer(asBytes(certificate({.key = row.key})), log);
        ASSERT_NE(cert, nullptr) << row.what;
        int bits = 0;
        EXPECT_EQ(cert->getCertKeyType(bits, log), row.type) << row.what;
        _mvPublicKey key;
        DataBuffer point;
        const bool hasKey = cert->getCertPublicKey(key, log);
        EXPECT_EQ(hasKey, row.type != 0) << row.what;
        EXPECT_EQ(hasKey && key.getEccKey() != nullptr && key.getEccKey()->exportEccPoint(point, log), row.hasPoint) << row.what;
    }
    const struct {
        Bytes serial;
        const char* text;
    } serials[] = {{tlv(0x02, Bytes(1, '\0')), "00"},        {tlv(0x02, Bytes("\0\x80", 2)), "80"},   {tlv(0x02, "\xFF"), "-01"}, {tlv(0x02, "\x80"), "-80"},
                   {tlv(0x02, Bytes("\xFF\x7F", 2)), "-81"}, {tlv(0x02, Bytes("\0\0\x01", 3)), "01"}, {tlv(0x02, ""), nullptr}};
    for (const auto& row : serials) {
        XString text;
        const auto cert = Certificate::createFromDer(asBytes(certificate({.serial = row.serial})), log);
        EXPECT_EQ(cert->getSerialNumber(text, log), row.text != nullptr);
        EXPECT_EQ(text.view(), row.text == nullptr ? "" : row.text);
    }
    const std::pair<Bytes, const char*> bad[] = {{"", "certificate"},
                                                 {"0", "certificate"},
                                                 {"\x30", "certificate"},
                                                 {tlv(0x30, ""), "tbsCertificate"},
                                                 {Bytes("\x30\x80\0\0", 4), "certificate"},
                                                 {"\x30\x84\xFF\xFF\xFF\xFF\xAA", "certificate"},
                                                 {"\x30\x89\x01\x01\x01\x01\x01\x01\x01\x01\x01\xAA", "certificate"},
                                                 {"\x1F\x81", "certificate"},
                                                 {tlv(0x31, certificate({})), "certificate"},
                                                 {tlv(0x30, tlv(0x30, "")), "signatureAlgorithm"},
                                                 {certificate({.serial = ""}), "serialNumber"},
                                                 {certificate({.issuer = "", .subject = ""}), "subject"},
                                                 {certificate({.extensions = "x"}).substr(0, 40), "certificate"},
                                                 {certificate({.key = tlv(0x31, "")}), "subjectPublicKeyInfo"},
                                                 {certificate({.key = rsaKey(64) + tlv(0xA3, "")}), "extensions"}};
    for (const auto& [der, field] : bad) {
        _mvLogger told;
        EXPECT_EQ(Certificate::createFromDer(asBytes(der), told), nullptr) << toHex(asBytes(der));
        EXPECT_THAT(told.text(), HasSubstr(std::string("malformedField: ") + field + "\n")) << toHex(asBytes(der));
    }
    XString name;
    const auto cert = Certificate::createFromDer(asBytes(withName(0x0C, Bytes("good.example\0.evil", 18))), log);
    EXPECT_TRUE(cert->getSubjectPart("CN", name, log));
    EXPECT_EQ(name.view().size(), 18U);  // whole: "good.example" does not match it
}

TEST(HostileTest, SearchInALoadedDocumentAllocatesNothing) {
    LogNull log;
    ClsJsonObject cards;
    ASSERT_TRUE(ClsPkcs11::GetCardDataJson(cards, log));
    const unsigned long before = allocations::number;
    EXPECT_EQ(cards.FindRecord("cards", "atr", "no such card", false), nullptr);
    EXPECT_NE(cards.valueAt("drivers[45].file"), nullptr);
    EXPECT_EQ(allocations::number, before);
}

}  // namespace
}  // namespace mervane::test

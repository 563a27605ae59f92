// DER, names, certificates and keys. softhsm/agreement.py and softhsm/differential.py compare whole
// certificates with the openssl tool.

#include "foundation/digest/digest.h"
#include "foundation/text/bytes.h"
#include "foundation/text/hex.h"
#include "foundation/x509/extensionxml.h"
#include "foundation/x509/name.h"
#include "foundation/x509/oid.h"
#include "foundation/x509/usage.h"
#include "tests/readers.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

std::vector<std::uint8_t> hex(std::string_view digits) { return fromHex(digits).value(); }
std::vector<std::uint8_t> bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

TEST(OidTest, TextAndOctetsAgree) {
    for (const auto& row : dataRows("oids.txt")) {
        EXPECT_EQ(oidToText(hex(row[0])), row[1]);
        EXPECT_EQ(toHex(bytesOf(oidFromText(row[1]))), row[2] == "yes" ? row[0] : "") << row[1];
    }
    EXPECT_TRUE(oidToText(std::vector<std::uint8_t>(5000, 0xFF)).empty());
    for (const char* const bad : {"", "1", "3.1", "1.40", "1..2", "1.2.", "a.b", "1.2.99999999999999999999"}) EXPECT_TRUE(oidFromText(bad).empty()) << bad;
}

TEST(NameTest, TextForms) {
    for (const auto& row : dataRows("names.txt")) {
        EXPECT_EQ(nameToText(hex(row[0]), true).value_or("malformed"), row[1]) << row[0];
        if (!row[2].empty()) { EXPECT_EQ(nameToText(hex(row[0]), false), row[2]) << row[0]; }
    }
}

TEST(CertificateTest, ExtensionsOfAnyFormStayReadable) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"1.2.3", "0500", "<extension><extnID>1.2.3</extnID><critical>true</critical><hex>0500</hex></extension>"},
        // malformed policies; a qualifier's OID, which is no policy
        {"2.5.29.32", "30", "<extension><extnID>2.5.29.32</extnID><critical>true</critical><hex>30</hex></extension>"},
        {"2.5.29.32", "3017301506022A03300F300D06082B06010505070201160161", "<certificatePolicies><policy><oid>1.2.3</oid></policy></certificatePolicies>"}};
    for (const auto& [oid, value, xml] : rows) EXPECT_EQ(extensionToXml(bytesOf(oidFromText(oid)), true, hex(value)), xml);
}

TEST(CertificateTest, KeyUsageIsItsFirstOctetOrNothing) {
    const std::pair<const char*, int> rows[] = {
        {"030206C0", 0xC0}, {"030206FF", 0xC0}, {"03030700FF", 0x00}, {"0303078080", 0x80}, {"030100", 0}, {"0500", 0}, {"", 0}};
    for (const auto& [value, bits] : rows) EXPECT_EQ(keyUsageBits(hex(value)), bits) << value;
}

TEST(CertificateTest, WhatACertificateLacksIsLeftAlone) {
    LogNull log;
    StringBuffer xml;
    XString part("old");
    EXPECT_FALSE(loadCert("ca")->getExtensionXml("2.5.29.15", xml, log) || loadCert("bob")->getSubjectPart("L", part, log));
    EXPECT_EQ(part.view(), "old");
}

TEST(CertificateTest, EveryTruncationAndFlippedByteIsHarmless) {
    if (isUnderValgrind()) GTEST_SKIP();
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

// That the sizes of all named curves are right is shown by softhsm/curves.py.
TEST(CurveTest, SizesComeFromTheNameOrFromExplicitParameters) {
    const std::string fieldOf97 = "300C06072A8648CE3D0101020161";
    const struct {
        std::string parameters;
        int bits, orderSize;  // 0: no curve
    } rows[] = {
        {"06082A8648CE3D030107", 256, 32},
        {"06052B81040021", 224, 28},
        {"06052B81040008", 160, 21},        // secp160r1: an order beyond the field
        {"06082A8648CE3D030010", 272, 33},  // c2pnb272w1: one far below
        {"06082A811CCF5501822D", 256, 32},  // an arc of two octets: SM2
        {"06052B810400FF", 0, 0},
        {"06012B", 0, 0},
        {"0600", 0, 0},
        {"0500", 0, 0},
        {"", 0, 0},
        {"3018020101" + fieldOf97 + "30000400020105", 7, 1},
        {"3019020101" + fieldOf97 + "3000040002020080", 7, 1},
        {"3019020101" + fieldOf97 + "3000040002020100", 0, 0},  // an order beyond Hasse's bound
        {"3018020101" + fieldOf97 + "30000400020100", 0, 0},
        {"3015020101" + fieldOf97 + "30000400", 0, 0},
        {"3018020101300C06072A8648CE3D010102010030000400020101", 0, 0},
        {"301D020101301106072A8648CE3D0102300602024000060030000400020105", 16384, 1},
        {"301D020101301106072A8648CE3D0102300602024001060030000400020105", 0, 0},
        {"3020020101301406072A8648CE3D010230090205010000009B060030000400020105", 0, 0},  // 2^32 too many
        {"301D020101301106072A8648CE3D0103300602020080060030000400020105", 0, 0},        // a field of no known type
    };
    for (const auto& row : rows) {
        const EcCurve curve = findCurve(hex(row.parameters)).value_or(EcCurve());
        EXPECT_EQ(curve.bits, row.bits) << row.parameters;
        EXPECT_EQ(curve.orderSize(), row.orderSize) << row.parameters;
    }
}

TEST(EcPointTest, RawAndWrappedAreToldApart) {
    const auto p256 = findCurve(hex("06082A8648CE3D030107"));
    const auto p384 = findCurve(hex("06052B81040022"));
    const auto point = [](std::string_view head, std::size_t size) {
        auto out = hex(head);
        out.resize(size, 0x55);
        return out;
    };
    const struct {
        std::vector<std::uint8_t> value;
        std::optional<EcCurve> curve;
        std::size_t size;  // of the point; 0: none
    } rows[] = {
        {point("0441", 65), p256, 65},
        {point("044104", 67), p256, 65},
        {point("0441", 65), p384, 0},
        {point("044104", 67), {}, 65},
        {point("02", 33), {}, 33},
        {point("042103", 35), {}, 33},
        {point("043F04", 65), {}, 65},  // DER to look at, but of the length of a raw point on P-256
        // Lengths of no known curve: by form alone
        {point("041503", 23), {}, 21},
        {point("046505", 103), {}, 103},
        {point("046504", 104), {}, 0},
        {point("0420", 34), {}, 0},
        {point("02", 2050), {}, 0},
        {{}, {}, 0},
    };
    for (const auto& row : rows) EXPECT_EQ(unwrapEcPoint(row.value, row.curve).size(), row.size) << toHex(row.value) << (row.curve ? row.curve->bits : 0);
}

// Points in both forms, as the openssl tool writes them.
TEST(EcPointTest, FormsOfOnePointCompare) {
    const auto p256 = findCurve(hex("06082A8648CE3D030107"));
    const auto sect113r1 = findCurve(hex("06052B81040004"));
    const struct {
        std::optional<EcCurve> curve;
        const char* compressed;
        const char* y;
    } rows[] = {
        {p256, "03CE7A9234CE9DCB361BF50809B2B4E43D04E98B01786F2D78702080FB5AEF7F83", "C24AAE35F75CE04A34A0DEF57B71D12C21D51DE321599FBFD9D5CE5751C730DD"},
        {p256, "0294A21F82AC27A0913D72F933989CE5A44631C6F46EF7A45B274C28CA2DD3DFED", "DF5A3F2EF3F8B6D97A51CBBFE83238791756D04346E783B7552A6C5539ADD208"},
        {sect113r1, "02006E35D192C789D236482222320CB9", "008A80C454A5217CDEA999433E5C02"},
        {sect113r1, "020142C45F4C4688E01C1BF4961EB469", "01BE3FB92F5D6DB1AA5748BEBF7BE9"},
    };
    for (const auto& row : rows) {
        const auto compressed = hex(row.compressed);
        auto whole = hex(row.compressed + std::string(row.y));
        auto hybrid = whole;
        whole[0] = 0x04;
        hybrid[0] = static_cast<std::uint8_t>(compressed[0] | 0x04U);
        for (const auto& mine : {compressed, whole, hybrid}) {
            const auto points = EccKey(*row.curve, mine).comparablePoints();
            for (const auto& theirs : {compressed, whole, hybrid}) {
                const DataBuffer point = comparablePoint(theirs);
                EXPECT_TRUE(points[0].equals(point) || points[1].equals(point)) << row.compressed;
            }
            EXPECT_EQ(points[1].isEmpty(), row.curve->isPrime);
            EXPECT_EQ(points[0].getSize(), compressed.size());
        }
    }
    EXPECT_TRUE(EccKey(*sect113r1, hex(rows[0].compressed)).comparablePoints()[0].isEmpty());
}

// FIPS 180-4's examples, and one of two blocks of padding.
TEST(DigestTest, Sha256OfTheStandardsExamples) {
    const auto digest = [](const std::string& text) { return toHex(digestOf(Hash::Sha256, asBytes(text))); };
    EXPECT_EQ(digest(""), "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855");
    EXPECT_EQ(digest("abc"), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    EXPECT_EQ(digest("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"), "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1");
    EXPECT_EQ(digest(std::string(1000000, 'a')), "CDC76E5C9914FB9281A1C7E284D73E67F1809A48A497200E046D39CCC7112CD0");
}

}  // namespace
}  // namespace mervane::test

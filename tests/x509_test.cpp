// DER, names, certificates and keys. softhsm/agreement.py and softhsm/differential.py compare whole
// certificates with the openssl tool.

#include "foundation/text/hex.h"
#include "foundation/x509/extensionxml.h"
#include "foundation/x509/name.h"
#include "foundation/x509/oid.h"
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

// Each "OID:TAG:hexvalue;" is one relative distinguished name.
std::string nameOf(std::string_view attributes, bool withTags = true) {
    const auto wrap = [](char tag, const std::string& content) { return std::string{tag, static_cast<char>(content.size())} + content; };
    std::string der;
    while (!attributes.empty()) {
        const auto one = attributes.substr(0, attributes.find(';'));
        attributes.remove_prefix(std::min(attributes.size(), one.size() + 1));
        const auto oid = one.substr(0, one.find(':'));
        const auto rest = hex(one.substr(oid.size() + 1, 2));
        const auto value = hex(one.substr(oid.size() + 4));
        der += wrap(0x31, wrap(0x30, wrap(0x06, oidFromText(oid)) + wrap(static_cast<char>(rest[0]), {value.begin(), value.end()})));
    }
    return nameToText(bytesOf(wrap(0x30, der)), withTags).value_or("malformed");
}

TEST(NameTest, TextForms) {
    for (const auto& row : dataRows("names.txt")) EXPECT_EQ(nameOf(row[0]), row[1]) << row[0];
    EXPECT_EQ(nameOf("2.5.4.3:0C:61;2.5.4.10:13:622C", false), "a, b\\,");
    EXPECT_FALSE(nameToText(hex("310130"), true));
    for (const char* const bad : {"3003300130", "300431023005", "3009310730050603550403"}) EXPECT_FALSE(nameToText(hex(bad), true)) << bad;
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

TEST(EcPointTest, FormIsToldByTheCurvesLength) {
    const EcCurve* const p256 = findCurve(hex("06082A8648CE3D030107"));
    ASSERT_NE(p256, nullptr);
    std::vector<std::uint8_t> raw(65, 0x41);
    raw[0] = 0x04;
    std::vector<std::uint8_t> wrapped = raw;
    wrapped.insert(wrapped.begin(), {0x04, 0x41});
    for (const EcCurve* const curve : {p256, static_cast<const EcCurve*>(nullptr)}) {
        EXPECT_EQ(unwrapEcPoint(raw, curve).size(), 65U);  // also reads as DER: 04 41 ..
        EXPECT_EQ(unwrapEcPoint(wrapped, curve).size(), 65U);
    }
    const EcCurve* const p384 = findCurve(hex("06052B81040022"));
    EXPECT_TRUE(unwrapEcPoint(raw, p384).empty());
    EXPECT_TRUE(unwrapEcPoint({}, p256).empty() && unwrapEcPoint(hex("00"), p256).empty());
    EXPECT_EQ(findCurve(hex("06052B81040021")), nullptr);  // P-224
}

}  // namespace
}  // namespace mervane::test

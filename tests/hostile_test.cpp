// Certificates and JSON made to hurt: time and memory stay in proportion to the input, and malformed
// parts give no value.

#include <ctime>

#include "foundation/json/parser.h"
#include "foundation/text/ascii.h"
#include "foundation/text/hex.h"
#include "foundation/x509/oid.h"
#include "tests/allocations.h"
#include "tests/readers.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

using Bytes = std::string;

Bytes repeated(const Bytes& piece, std::size_t size) {
    Bytes out;
    while (out.size() < size) out += piece;
    return out;
}

Bytes tlv(char tag, const Bytes& content) {
    if (content.size() < 128) return Bytes{tag, static_cast<char>(content.size())} + content;
    Bytes length;
    for (std::size_t size = content.size(); size != 0; size >>= 8) length.insert(length.begin(), static_cast<char>(size));
    return Bytes{tag, static_cast<char>(0x80 + length.size())} + length + content;
}

// DER in the notation of data/cert-parts.txt and cert-growing.txt, up to a closing bracket.
class DerText {
  public:
    DerText(std::string_view text, std::size_t size) : m_rest(text), m_size(size) {}
    Bytes read() {
        Bytes out;
        while (!m_rest.empty() && !takes(')') && !takes(']')) {
            if (takes(',')) continue;
            if (takes('[')) {
                const Bytes piece = read();
                out += repeated(piece, takes('*') ? number() : 1);
                continue;
            }
            const auto byte = static_cast<char>(fromHex(m_rest.substr(0, 2)).value()[0]);
            m_rest.remove_prefix(2);
            out += takes('(') ? tlv(byte, read()) : Bytes(takes('*') ? number() : 1, byte);
        }
        return out;
    }

  private:
    bool takes(char c) {
        if (!m_rest.starts_with(c)) return false;
        m_rest.remove_prefix(1);
        return true;
    }
    std::size_t number() {
        if (takes('N')) return m_size;
        std::size_t out = 0;
        for (; !m_rest.empty() && m_rest[0] >= '0' && m_rest[0] <= '9'; m_rest.remove_prefix(1)) out = 10 * out + static_cast<std::size_t>(m_rest[0] - '0');
        return out;
    }
    std::string_view m_rest;
    const std::size_t m_size;
};

// A certificate that is good except for one part; the part "whole" is all of it.
Bytes certificate(const std::string& part, const std::string& text, std::size_t size = 0) {
    const std::string name = "30(31(30(06(550403)0C(41))))";
    std::map<std::string, std::string> parts{{"serial", "02(05)"}, {"subject", name}, {"key", "30(30(06(2A864886F70D010101))03(0030(02(00F1*128)02(03))))"}};
    parts[part] = text;
    const std::string head = parts["serial"] + "30(06(2A03))" + name + "30(17(3236303130313030303030305A)17(3336303130313030303030305A))";
    const std::string all = "30(30(" + head + parts["subject"] + parts["key"] + parts["extensions"] + ")30(06(2A03))03(00*5))" + parts["behind"];
    return DerText(part == "whole" ? text : all, size).read();
}

std::span<const std::uint8_t> asBytes(const Bytes& text) { return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}; }

// CPU time of this thread alone.
double cpuSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

bool reads(const Bytes& text) { return readAll(asBytes(text)); }
bool parses(const Bytes& text) {
    JsonValue value;
    JsonError error;
    return parseJson(text, value, error);
}

// The peak of the memory that the work takes.
template <class Work>
unsigned long peakOf(const Work& work) {
    const unsigned long before = allocations::inUse;
    allocations::peak = before;
    work();
    return allocations::peak - before;
}

// The time for the large input divided by that for the small one, each the least of seven runs taken in
// turn.
double ratioOf(const Bytes& small, const Bytes& large, bool (*work)(const Bytes&)) {
    double least[2] = {1e9, 1e9};
    for (int i = 0; i < 14; ++i) {
        const double start = cpuSeconds();
        work(i % 2 == 0 ? small : large);
        least[i % 2] = std::min(least[i % 2], cpuSeconds() - start);
    }
    return least[1] / least[0];
}

// Four times the input takes linear work 4 times as long and quadratic work 16 times; caches and a busy
// machine add some.
constexpr double kMaxRatio = 8;

void expectProportion(const std::string& what, const std::function<Bytes(std::size_t size)>& make, bool (*work)(const Bytes&), bool result) {
    const Bytes inputs[] = {make(100000), make(400000)};
    for (const Bytes& input : inputs) EXPECT_LE(peakOf([&] { EXPECT_EQ(work(input), result); }), 16 * input.size()) << what;
    EXPECT_LT(ratioOf(inputs[0], inputs[1], work), kMaxRatio) << what;
}

TEST(HostileTest, CertificatesTakeTimeAndMemoryInProportion) {
    if (isUnderValgrind()) GTEST_SKIP();
    for (const auto& row : dataRows("cert-growing.txt"))
        expectProportion(
            row[1], [&](auto size) { return certificate(row[0], row[1], size); }, reads, true);
}

TEST(HostileTest, JsonTakesTimeAndMemoryInProportion) {
    if (isUnderValgrind()) GTEST_SKIP();
    const Bytes numbers = repeated("0,", 1200);
    const auto deep = [](std::size_t size) {  // the elements of each list have to be counted
        Bytes text = "0";
        for (int level = 0; level < 60; ++level) text.insert(0, "[" + repeated("0,", size / 60)) += "]";
        return text;
    };
    expectProportion("lists in lists", deep, parses, true);
    expectProportion(
        "escapes", [](auto size) { return "\"" + repeated("\\n", size) + "\""; }, parses, true);
    expectProportion(
        "lists without an end", [&](auto size) { return repeated("[" + numbers, size); }, parses, false);
    expectProportion(
        "commas", [&](auto size) { return "[" + numbers + Bytes(size, ','); }, parses, false);
    expectProportion(
        "commas and blanks", [&](auto size) { return "[" + numbers + repeated(" ,", size); }, parses, false);
}

TEST(HostileTest, ListsAndObjectsTakeMemoryInProportionWhateverTheyHold) {
    if (isUnderValgrind()) GTEST_SKIP();
    for (const auto& row : dataRows("json-items.txt")) {
        for (const std::size_t size : {100000U, 140000U}) {  // a doubling list is at its worst at one of them
            for (const Bytes& text : {"[" + repeated(row[0] + ",", size) + "0]", "{" + repeated("\"\":" + row[0] + ",", size) + "\"\":0}"})
                EXPECT_LE(peakOf([&] { EXPECT_TRUE(parses(text)); }), 16 * text.size()) << text.substr(0, 100);
        }
    }
}

TEST(HostileTest, MalformedPartsHaveNoValue) {
    LogNull log;
    for (const auto& row : dataRows("cert-parts.txt")) {
        const Bytes whole = certificate(row[0], row[1]);
        EXPECT_EQ(reads(whole), row[2] != "none") << row[1];
        const auto cert = Certificate::createFromDer(asBytes(whole), log);
        if (!cert) continue;
        XString serial;
        _mvPublicKey key;
        DataBuffer point;
        int bits = 0;
        cert->getSerialNumber(serial, log);
        const bool hasPoint = cert->getCertPublicKey(key, log) && key.getEccKey() != nullptr && key.getEccKey()->exportEccPoint(point, log);
        EXPECT_EQ(trimmed(std::string(serial.view()) + " " + std::to_string(cert->getCertKeyType(bits, log)) + (hasPoint ? " point" : "")), row[2]) << row[1];
    }
}

TEST(HostileTest, NameWithANulInItIsReadWhole) {
    LogNull log;
    XString name;
    const Bytes der = certificate("subject", "30(31(30(06(550403)0C(676F6F642E6578616D706C65002E6576696C))))");
    EXPECT_TRUE(Certificate::createFromDer(asBytes(der), log)->getSubjectPart("CN", name, log));
    EXPECT_EQ(name.view(), std::string("good.example\0.evil", 18));  // "good.example" does not match it
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

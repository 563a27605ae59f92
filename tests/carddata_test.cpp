// The card database and the lookup by ATR. softhsm/cards.py checks every card against an independent
// reading.

#include "pkcs11/carddata/carddata.h"
#include "foundation/system/deflate.h"
#include "foundation/text/ascii.h"
#include "foundation/text/base64.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

class ObjectWithLog final : public ClsBase {};

class CardsTest : public testing::Test {
  protected:
    // What a lookup finds, with outputs that hold something already: "name|path path|read-only"; empty on failure.
    std::string find(const char* atr, ClsJsonObject* data = nullptr) {
        StringBuffer name("old");
        ExtPtrArraySb paths;
        bool readOnly = true;
        paths.appendString("old");
        object.log().clear();
        const bool ok = data == nullptr ? ClsPkcs11::CardDataLookupAtr2(atr, name, readOnly, paths, object.log())
                                        : ClsPkcs11::CardDataLookupAtr(*data, atr, name, readOnly, paths, object.log());
        std::string joined;
        for (int i = 0; i < paths.getSize(); ++i) joined.append(i == 0 ? "" : " ").append(paths.sbAt(i)->view());
        numPaths = paths.getSize();
        EXPECT_TRUE(ok || name.isEmpty());
        return ok ? std::string(name.view()) + "|" + joined + (readOnly ? "|read-only" : "") : "";
    }
    std::string findIn(const std::string& json, const char* atr = "aa") {
        EXPECT_TRUE(document.loadJson(json, object.log())) << object.log().lastError();
        return find(atr, &document);
    }
    // The error lines, separated by blanks.
    std::string errors() {
        std::string out;
        object.log().forEach([&](const _mvLogger::Entry& entry) {
            if (entry.what == _mvLogger::Entry::What::Error) out.append(out.empty() ? "" : " ").append(entry.text);
        });
        return out;
    }
    ObjectWithLog object;
    ClsJsonObject document;
    int numPaths = 0;  // given by the last lookup
};

TEST_F(CardsTest, DocumentIsWholeAndNamesACard) {
    DataBuffer text;
    ASSERT_TRUE(carddata::load(carddata::constants(), text, object.log()) && ClsPkcs11::GetCardDataJson(document, object.log()));
    EXPECT_EQ(std::string(text.span().begin(), text.span().end()), readFile(std::string(MERVANE_SOURCE) + "/tools/carddata/cards.json"));
    EXPECT_EQ(find(" \t3b6d000057443641018693\r\n"), "Watchdata PROXkey|/usr/lib/WatchData/ProxKey/lib/libwdpkcs_SignatureP11.so");
    EXPECT_EQ(object.log().text(), wanted("wanted/atr"));
}

TEST_F(CardsTest, AtrThatIsNoneFindsNothingWithoutAnErrorLine) {
    const std::string overlong(100000, '3');
    for (const char* const atr :
         {static_cast<const char*>(nullptr), "", " ", "3", "3B", "3b 6d 00 00 57 44 36 41 01 86 93", "xyz", "3B00\n3B", "\xFF\xFE", overlong.c_str()}) {
        EXPECT_EQ(find(atr) + errors(), "");
        EXPECT_EQ(numPaths, 0);
    }
}

TEST_F(CardsTest, RewriteTableRowByRow) {
    const auto isFoundAs = [&](const std::string& atr, const std::string& written) {
        return !findIn(R"({"cards":[{"atr":")" + written + R"(","name":"n","driver":"D"}],"drivers":[{"id":"d","file":{"linux":"/p"}}]})", atr.c_str()).empty();
    };
    for (const auto& row : dataRows("atr-rewrites.txt")) {
        const std::string& becomes = row[1];
        std::string same(trimmed(row[0]));
        std::ranges::transform(same, same.begin(), toUpperAscii);
        EXPECT_TRUE(isFoundAs(row[0], becomes.empty() ? same : becomes)) << row[0];
        EXPECT_TRUE(becomes.empty() || !isFoundAs(row[0], same)) << row[0];
    }
}

TEST_F(CardsTest, DriverFilesOfEveryShapeGiveTheirPaths) {
    for (const auto& row : dataRows("driver-files.txt")) {
        const std::string cards = R"("cards":[{"atr":"AA","name":"n","driver":"D","readOnly":true},{"atr":"aa","name":"second","driver":"d"}])";
        const std::string found = findIn("{" + cards + R"(,"drivers":[{"id":"d","file":{)" + row[0] + "}}]}");
        EXPECT_EQ(found, row[2].empty() ? "n|" + row[1] + "|read-only" : "") << row[0];  // the first of two
        EXPECT_EQ(errors(), row[2]) << row[0];
    }
}

TEST_F(CardsTest, RecordsThatLackSomethingFindNothing) {
    const std::tuple<const char*, std::string, int> rows[] = {
        {R"({"cards":[{"atr":"AA","name":"n"}]})", "Did not find driver member.", 0},
        {R"({"cards":[{"atr":"AA","driver":"q"}],"drivers":[{"id":"d"}]})", "Did not find driver record.", 0},
        {R"({"cards":[{"atr":"AA","driver":"d","readOnly":true}],"drivers":[{"id":"d","file":{"linux":"/p"}}]})", "", 1},  // without a name
        {R"({"cards":7})", "", 0},
        {"[]", "", 0},
    };
    for (const auto& [text, error, paths] : rows) {
        EXPECT_EQ(findIn(text), "") << text;
        EXPECT_EQ(errors(), error);
        EXPECT_EQ(numPaths, paths);
    }
}

TEST_F(CardsTest, PathsAreAppendedAndWhatWasThereCounts) {
    ASSERT_TRUE(document.loadJson(R"({"file":{"osx":["/o"],"linux":["",""]}})", object.log()));
    ExtPtrArraySb paths;
    const auto add = [&](const char* system) { return ClsPkcs11::getPkcs11DriverPaths(document, system, paths, object.log()); };
    EXPECT_FALSE(add("linux"));
    EXPECT_TRUE(add("osx") && add("linux"));
    EXPECT_EQ(paths.getSize(), 1);
}

class StreamTest : public CardsTest {
  protected:
    StreamTest() {
        for (const auto piece : carddata::constants()) text.append(piece);
        packed.appendEncodedById(text, 1);
        EXPECT_TRUE(carddata::load(carddata::constants(), whole, log));
    }
    // Whether anything is loaded; if so, it is the exact document.
    bool loads(std::string_view constants) {
        DataBuffer out;
        const bool ok = carddata::load({&constants, 1}, out, log);
        EXPECT_TRUE(ok ? out.equals(whole) : out.isEmpty());
        return ok;
    }
    bool inflates(std::size_t maxSize) {
        DataBuffer out;
        const bool ok = MervaneDeflate::inflateDb(false, packed, out, false, _mvIoParams(), maxSize, log);
        return ok ? out.equals(whole) : !out.isEmpty();
    }
    LogNull log;
    std::string text;
    DataBuffer packed, whole;
};

TEST_F(StreamTest, IsTakenWholeOrNotAtAll) {
    EXPECT_TRUE(inflates(whole.getSize()));
    EXPECT_FALSE(inflates(whole.getSize() - 1));
    packed.appendByte(0);  // a byte after the stream
    EXPECT_FALSE(inflates(whole.getSize()));
}

TEST_F(StreamTest, DamagedConstantsGiveNothingOrTheExactDocument) {
    if (isUnderValgrind()) GTEST_SKIP();
    for (std::size_t size = 0; size + 2 < text.size(); ++size) EXPECT_FALSE(loads(std::string_view(text).substr(0, size)));
    for (const char bad : {'=', '!', '\0'}) EXPECT_FALSE(loads(std::string(text).replace(text.size() / 2, 1, 1, bad)));
    int numLoaded = 0;
    const auto bytes = packed.resized(packed.getSize());
    for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
        const auto flip = [&] { bytes[bit / 8] = static_cast<std::uint8_t>(bytes[bit / 8] ^ (1U << (bit % 8))); };
        flip();
        numLoaded += loads(toBase64(bytes)) ? 1 : 0;
        flip();
    }
    EXPECT_LT(numLoaded, 100);  // the same text, copied from elsewhere in the stream
}

}  // namespace
}  // namespace mervane::test

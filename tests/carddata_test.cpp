// The card database and the look-up by ATR. That each of its cards is found is shown by
// softhsm/cards.py against a reading of its own.

#include "pkcs11/carddata/carddata.h"
#include "foundation/text/base64.h"
#include "foundation/text/hex.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

struct Found {
    bool ok = false;
    std::string name;
    bool readOnly = true;
    std::vector<std::string> paths;
};

std::string joined(const std::vector<std::string>& texts) {
    std::string out;
    for (const std::string& text : texts) out += (out.empty() ? "" : " ") + text;
    return out;
}

class ObjectWithLog final : public ClsBase {};

class CardsTest : public testing::Test {
  protected:
    // A look-up that starts from outputs in use.
    Found find(const char* atr, ClsJsonObject* data = nullptr) {
        Found out;
        StringBuffer name("old");
        ExtPtrArraySb paths;
        paths.appendString("old");
        object.log().clear();
        out.ok = data == nullptr ? ClsPkcs11::CardDataLookupAtr2(atr, name, out.readOnly, paths, object.log())
                                 : ClsPkcs11::CardDataLookupAtr(*data, atr, name, out.readOnly, paths, object.log());
        out.name = name.view();
        for (int i = 0; i < paths.getSize(); ++i) out.paths.emplace_back(paths.sbAt(i)->view());
        return out;
    }
    std::string json(const std::string& text) {
        EXPECT_TRUE(document.loadJson(text, object.log())) << object.log().lastError();
        return text;
    }
    ObjectWithLog object;
    ClsJsonObject document;
};

TEST_F(CardsTest, DocumentIsWholeAndNamesACard) {
    DataBuffer text;
    ASSERT_TRUE(carddata::load(carddata::constants(), text, object.log()) && ClsPkcs11::GetCardDataJson(document, object.log()));
    EXPECT_EQ(std::string(text.span().begin(), text.span().end()), readFile(std::string(MERVANE_SOURCE) + "/tools/carddata/cards.json"));
    EXPECT_EQ(document.SizeOfArray("cards"), 96);
    EXPECT_EQ(document.SizeOfArray("drivers"), 46);
    const Found card = find(" \t3b6d000057443641018693\r\n");
    EXPECT_TRUE(card.ok && !card.readOnly);
    EXPECT_EQ(object.log().text(), wantedLog("atr"));
    EXPECT_EQ(card.name, "Watchdata PROXkey");
    EXPECT_THAT(card.paths, ElementsAre("/usr/lib/WatchData/ProxKey/lib/libwdpkcs_SignatureP11.so"));
}

TEST_F(CardsTest, AtrThatIsNoneFindsNothingWithoutAnErrorLine) {
    const std::string overlong(100000, '3');
    for (const char* const atr :
         {static_cast<const char*>(nullptr), "", " ", "3", "3B", "3b 6d 00 00 57 44 36 41 01 86 93", "xyz", "3B00\n3B", "\xFF\xFE", overlong.c_str()}) {
        const Found card = find(atr);
        EXPECT_FALSE(card.ok || card.readOnly);
        EXPECT_TRUE(card.name.empty() && card.paths.empty() && object.log().lastError().empty());
    }
}

TEST_F(CardsTest, RewriteTableRowByRow) {
    const auto isFoundAs = [&](const std::string& atr, const std::string& written) {
        json(R"({"cards":[{"atr":")" + written + R"(","name":"n","driver":"D"}],"drivers":[{"id":"d","file":{"linux":"/p"}}]})");
        return find(atr.c_str(), &document).name == "n";
    };
    for (const auto& row : dataRows("atr-rewrites.txt")) {
        const std::string& atr = row[0];
        const std::string& becomes = row[1];
        std::string same(trimmed(atr));
        std::ranges::transform(same, same.begin(), toUpperAscii);
        EXPECT_TRUE(isFoundAs(atr, becomes.empty() ? same : becomes)) << atr;
        EXPECT_TRUE(becomes.empty() || !isFoundAs(atr, same)) << atr;
    }
}

TEST_F(CardsTest, RecordsOfEveryShape) {
    const std::string head =
        R"({"cards":[{"atr":"AA","name":"n","driver":"D","readOnly":true},{"atr":"aa","name":"second","driver":"d"}],"drivers":[{"id":"d","file":{)";
    for (const auto& row : dataRows("driver-files.txt")) {
        const std::string& file = row[0];
        const std::string& error = row[2];
        json(head + file + "}}]}");
        const Found card = find("aa", &document);
        EXPECT_EQ(card.ok, error.empty()) << file;
        EXPECT_EQ(joined(card.paths), row[1]) << file;
        EXPECT_EQ(card.name, error.empty() ? "n" : "");  // the first of two
        EXPECT_EQ(card.readOnly, card.ok);
        std::vector<std::string> errors;
        object.log().forEach([&](const _mvLogger::Entry& entry) {
            if (entry.what == _mvLogger::Entry::What::Error) errors.emplace_back(entry.text);
        });
        EXPECT_EQ(joined(errors), error) << file;
    }
    const std::tuple<const char*, std::string, std::size_t> broken[] = {
        {R"({"cards":[{"atr":"AA","name":"n"}]})", "Did not find driver member.", 0},
        {R"({"cards":[{"atr":"AA","driver":"q"}],"drivers":[{"id":"d"}]})", "Did not find driver record.", 0},
        {R"({"cards":[{"atr":"AA","driver":"d","readOnly":true}],"drivers":[{"id":"d","file":{"linux":"/p"}}]})", "", 1},  // without a name
        {R"({"cards":7})", "", 0},
        {"[]", "", 0},
    };
    for (const auto& [text, error, numPaths] : broken) {
        json(text);
        const Found card = find("aa", &document);
        EXPECT_FALSE(card.ok) << text;
        EXPECT_EQ(object.log().lastError(), error);
        EXPECT_EQ(card.paths.size(), numPaths);
        EXPECT_EQ(card.readOnly, numPaths == 1);
    }
    // Paths are appended, and what was there counts.
    json(R"({"file":{"osx":["/o"],"linux":["",""]}})");
    ExtPtrArraySb paths;
    EXPECT_FALSE(ClsPkcs11::getPkcs11DriverPaths(document, "linux", paths, object.log()));
    EXPECT_TRUE(ClsPkcs11::getPkcs11DriverPaths(document, "osx", paths, object.log()) &&
                ClsPkcs11::getPkcs11DriverPaths(document, "linux", paths, object.log()));
    EXPECT_EQ(paths.getSize(), 1);
}

TEST_F(CardsTest, DamagedConstantsGiveFalseOrTheExactDocument) {
    std::string whole;
    for (const auto piece : carddata::constants()) whole.append(piece);
    DataBuffer good;
    ASSERT_TRUE(carddata::load(carddata::constants(), good, object.log()));
    LogNull log;
    int numLoaded = 0;
    const auto check = [&](const std::string& text) {
        const std::string_view piece = text;
        DataBuffer out;
        const bool ok = carddata::load({&piece, 1}, out, log);
        EXPECT_TRUE(ok ? out.equals(good) : out.isEmpty());
        return ok;
    };
    for (std::size_t size = 0; size + 2 < whole.size(); ++size) EXPECT_FALSE(check(whole.substr(0, size)));
    for (const char bad : {'=', '!', '\0'}) EXPECT_FALSE(check(std::string(whole).replace(whole.size() / 2, 1, 1, bad)));
    // Every bit of the stream: what is loaded all the same is the exact document.
    DataBuffer packed;
    packed.appendEncodedById(whole, 1);
    const auto bytes = packed.resized(packed.getSize());
    for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
        const auto flip = static_cast<std::uint8_t>(1U << (bit % 8));
        bytes[bit / 8] = static_cast<std::uint8_t>(bytes[bit / 8] ^ flip);
        numLoaded += check(toBase64(bytes)) ? 1 : 0;
        bytes[bit / 8] = static_cast<std::uint8_t>(bytes[bit / 8] ^ flip);
    }
    EXPECT_LT(numLoaded, 100);  // a copy from another place of the same text
}

}  // namespace
}  // namespace mervane::test

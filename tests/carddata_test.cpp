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

TEST_F(CardsTest, DocumentIsWhole) {
    ASSERT_TRUE(ClsPkcs11::GetCardDataJson(document, object.log()));
    EXPECT_EQ(document.SizeOfArray("cards"), 96);
    EXPECT_EQ(document.SizeOfArray("drivers"), 46);
    EXPECT_EQ(*document.valueAt("version")->asString(), "1.1.3");
    DataBuffer text;
    ASSERT_TRUE(carddata::load(carddata::constants(), text, object.log()));
    EXPECT_EQ(std::string(text.span().begin(), text.span().end()), readFile(std::string(MERVANE_SOURCE) + "/tools/carddata/cards.json"));
    for (const auto piece : carddata::constants().first(carddata::constants().size() - 1)) EXPECT_EQ(piece.size(), 76U);
}

TEST_F(CardsTest, TellingCards) {
    Found card = find("3b6d000057443641018693");
    EXPECT_TRUE(card.ok);
    EXPECT_EQ(card.name, "Watchdata PROXkey");
    EXPECT_THAT(card.paths, ElementsAre("/usr/lib/WatchData/ProxKey/lib/libwdpkcs_SignatureP11.so"));
    EXPECT_FALSE(card.readOnly);
    EXPECT_EQ(find("3B6D0000574436410186939000").name, "Watchdata PROXkey");
    EXPECT_EQ(find(" \t3b6d000057443641018693\r\n").name, "Watchdata PROXkey");
    card = find("3B9F958131FE9F006646530534002571DF000000000077");
    EXPECT_EQ(card.name, "ePass2003");
    EXPECT_THAT(card.paths, ElementsAre("/usr/lib/opensc-pkcs11.so", "/usr/local/lib/opensc-pkcs11.so", "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so"));
    EXPECT_TRUE(find("3BD21802C10A31FE58C80D51").readOnly);
    // A driver for Windows alone
    card = find("3B7F96000080318065B0855956FB120268829000");
    EXPECT_FALSE(card.ok);
    EXPECT_TRUE(card.name.empty() && card.paths.empty() && !card.readOnly);
    EXPECT_EQ(object.log().lastError(), "Failed to find driver paths.");
}

TEST_F(CardsTest, AtrThatIsNoneFindsNothingWithoutAnErrorLine) {
    const std::string overlong(100000, '3');
    for (const char* const atr :
         {static_cast<const char*>(nullptr), "", " ", "3", "3B", "3b 6d 00 00 57 44 36 41 01 86 93", "xyz", "3B00\n3B", "\xFF\xFE", overlong.c_str()}) {
        const Found card = find(atr);
        EXPECT_FALSE(card.ok);
        EXPECT_TRUE(card.name.empty() && card.paths.empty() && !card.readOnly);
        EXPECT_TRUE(object.log().lastError().empty());
    }
}

TEST_F(CardsTest, RewriteTableRowByRow) {
    const std::string feitian = "3B9F958131FE9F0066465305";
    const std::string xx = "3B9F958131FE9F006646530534002571DF0000000000xx";
    const struct {
        std::string atr;
        std::string becomes;  // the same when no row holds
    } rows[] = {
        {"3BFF96AA8131FE4380318065BB", "3BFF9600008131FE4380318065B0855956FB12017882900088"},
        {"3BFF95AA8131FE4380318065BB", ""},
        {"3BFF968131FE438031806", ""},
        {"3BFF1800FF8131FE55006B0209AA1101434E5311318BB", "3BFF1800FF8131FE55006B02090200011101434E531131808E"},
        {"3BFF1800FF8131FE55006B0209AA1101434E531131", ""},
        {feitian + "1171DF0000460000", feitian + "40081871DF000046000015"},  // before row 9
        {"3B9F958131FE9F006646530534002571DF0000000000"
         "71DF0000460000",
         feitian + "40081871DF000046000015"},
        {feitian + "0071DF000046000", ""},
        {"3B7F96000080318065B085AAFFE829000", "3B7F96000080318065B084413DF6120FFE829000"},
        {"3B7F96000080318065B085AAFFE82900", "3B7F96000080318065B0855956FB120268829000"},
        {"3b7f96000080318065b085", "3B7F96000080318065B0855956FB120268829000"},
        {"3B7F96000080318065B084AAFFE829000", ""},
        {"3BDD96FF8131FE4580595F5374645F496E697481FF", "3BDD96FF8131FE4580595F5374645F496E6974810000"},
        {"3BDD96FF8131FE4580595F5374645F496E69748", ""},
        {"3B9F9681B1FE451F070064051EB20031B0739621DB11", "3B9F9681B1FE451F070064051EB20031B0739621DB00000000"},
        {"3B9F9681B1FE451F070064051EB20031B0739621D", ""},
        {"3BBB1800C01031FE4580670412B00303000081", "3BBB1800C01031FE4580670412B003030000810000"},
        {"3BBB1800C01031FE4580670412B0030300008", ""},
        {"3B9F958131FE9F006646530512", xx},
        {"3B9F958131FE9F006646530522", ""},
        {"3B9F958131FE9F006646530534002571DF0000000000AB", xx},
        {"3B9F958131FE9F006646530534002571DF000000000", ""},
        {"3B9F958131FE9F006646530534002571DF0000390000AB", xx},
        {"3B9F958131FE9F006646530534002571DF0000060000AB", "3B9F958131FE9F006646530534002571DF0000060000xx"},
        {"3B9F958131FE9F006646530551003371DF0000000000AB", "3B9F958131FE9F006646530551003371DF0000000000xx"},
        {"3B9F958131FE9F00664653055100", ""},
        {"3B6D000057443641018693FFFF", "3B6D000057443641018693"},
        {"3B6D00005744364101869", ""},
        {" 3BFF96AA8131FE4380318065BB ", "3BFF9600008131FE4380318065B0855956FB12017882900088"},
        {"3B00", ""},
    };
    for (const auto& row : rows) {
        std::string same(trimmed(row.atr));
        std::ranges::transform(same, same.begin(), toUpperAscii);
        const std::string becomes = row.becomes.empty() ? same : row.becomes;
        json(R"({"cards":[{"atr":")" + becomes + R"(","name":"n","driver":"D"}],"drivers":[{"id":"d","file":{"linux":"/p"}}]})");
        EXPECT_EQ(find(row.atr.c_str(), &document).name, "n") << row.atr;
        if (same == becomes) continue;
        json(R"({"cards":[{"atr":")" + same + R"(","name":"n","driver":"D"}],"drivers":[{"id":"d","file":{"linux":"/p"}}]})");
        EXPECT_FALSE(find(row.atr.c_str(), &document).ok) << row.atr;
    }
}

TEST_F(CardsTest, RecordsOfEveryShape) {
    const std::string head =
        R"({"cards":[{"atr":"AA","name":"n","driver":"D","readOnly":true},{"atr":"aa","name":"second","driver":"d"}],"drivers":[{"id":"d","file":{)";
    using Paths = std::vector<std::string>;
    const std::tuple<std::string, Paths, std::string> rows[] = {
        {R"("linux":"/a")", {"/a"}, ""},
        {R"("linux":["/a","","/b"])", {"/a", "/b"}, ""},
        {R"("linux":["",""])", {}, "Failed to find driver paths."},
        {R"("linux":[])", {}, "Failed to find driver paths."},
        {R"("linux":[1,{},"/c"])", {"/c"}, ""},
        {R"("linux":"")", {}, "Failed to find driver paths."},
        {R"("linux":7)", {}, "Failed to find driver paths."},
        {R"("linux":null)", {}, "Failed to find driver paths."},
        {R"("windows":"x")", {}, "Failed to find driver paths."},
        {R"("linux":{"x64":"/no","x86":"/yes"})", {"/yes"}, ""},
        {R"("linux":{"x64":"/no","x86":["/y","/z"]})", {"/y", "/z"}, ""},
        {R"("linux":{"x64":"/no"})", {}, "Failed to find driver paths."},
        {R"("linux":{"x86":[]})", {}, "Failed to find driver paths."},
        {R"("linux":{"x86":{}})", {}, "Failed to find driver paths."},
        {R"("linux":{"x86":""})", {}, "Failed to get Windows driver path.|Failed to find driver paths."},
    };
    for (const auto& [file, paths, error] : rows) {
        json(head + file + "}}]}");
        const Found card = find("aa", &document);
        EXPECT_EQ(card.ok, error.empty()) << file;
        EXPECT_EQ(card.paths, paths) << file;
        EXPECT_EQ(card.name, error.empty() ? "n" : "");  // the first of two
        EXPECT_EQ(card.readOnly, card.ok);
        std::string errors;
        object.log().forEach([&](const _mvLogger::Entry& entry) {
            if (entry.what == _mvLogger::Entry::What::Error) errors.append(errors.empty() ? "" : "|").append(entry.text);
        });
        EXPECT_EQ(errors, error) << file;
    }
    const std::tuple<std::string, std::string, std::size_t> broken[] = {
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
}

TEST_F(CardsTest, DriverPathsAreAppendedToWhatIsThere) {
    json(R"({"file":{"osx":["/o"],"linux":["",""]}})");
    ExtPtrArraySb paths;
    paths.appendString("first");
    EXPECT_TRUE(ClsPkcs11::getPkcs11DriverPaths(document, "osx", paths, object.log()));
    EXPECT_EQ(paths.getSize(), 2);
    EXPECT_TRUE(ClsPkcs11::getPkcs11DriverPaths(document, "linux", paths,
                                                object.log()));  // counts what was there
    EXPECT_FALSE(ClsPkcs11::getPkcs11DriverPaths(document, "beos", paths, object.log()));
    EXPECT_EQ(paths.getSize(), 2);
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
    for (const char bad : {'=', '!', '\0'}) {
        std::string text = whole;
        text[whole.size() / 2] = bad;
        EXPECT_FALSE(check(text));
    }
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

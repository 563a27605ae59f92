// Discovery, administration and object queries on a module that tells what it likes.

#include "foundation/json/parser.h"
#include "foundation/text/hex.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

class QueriesTest : public FakeTest {
  protected:
    JsonValue discover(bool expected = true, bool onlyTokensPresent = false) {
        ClsJsonObject json;
        json.root().set("old", true);
        EXPECT_EQ(p11->Discover(onlyTokensPresent, json), expected);
        JsonValue value;
        JsonError error;
        EXPECT_TRUE(parseJson(json.emit(true), value, error)) << error.reason;
        EXPECT_EQ(value.find("old"), nullptr);
        return value;
    }
    static const JsonValue& slot(const JsonValue& report, std::size_t i) { return (*report.find("slots")->asArray())[i]; }
    std::string keys(const std::string& selector) {
        ClsJsonObject json;
        json.root().set("old", true);
        const bool ok = p11->FindAllKeys(XString(selector), json);
        EXPECT_EQ(json.valueAt("old"), nullptr);
        return ok ? json.emit() : p11->log().lastError() + json.emit();
    }
};

TEST_F(QueriesTest, DiscoveryNeedsAPathAndReportsWhatFailed) {
    p11->put_SharedLibPath(XString());
    discover(false);
    EXPECT_THAT(p11->errors(), ElementsAre("The SharedLibPath has not yet been set."));
    EXPECT_THAT(p11->contexts(), ElementsAre("Discover", "discover"));
    p11->put_SharedLibPath(XString("/nowhere.so"));
    discover(false);
    EXPECT_EQ(p11->log().lastError(), "Failed to load the PKCS11 shared library.");
    EXPECT_THAT(p11->values(), Contains("filename=nowhere.so"));  // the second way was tried
    for (const auto& [function, error] : {std::pair<const char*, const char*>{"C_GetFunctionList", "Failed to load the PKCS11 shared library."},
                                          {"C_Initialize", "Failed to Initialize"},
                                          {"C_GetInfo", "Failed to GetInfo"},
                                          {"C_GetSlotList", "Failed to GetSlotsInfo"}}) {
        p11 = std::make_unique<Pkcs11>();
        world.reset();
        world.answer = [&name = function](auto& f, auto) { return f == name ? std::optional<CK_RV>(0x30) : std::nullopt; };
        p11->put_SharedLibPath(XString(module.path()));
        discover(false);
        EXPECT_EQ(p11->log().lastError(), error);
    }
}

TEST_F(QueriesTest, DiscoveryInitializesOnceAndKeepsTheSession) {
    ASSERT_TRUE(quick());
    world.slots.push_back({.id = 2});
    world.answer = [this](auto& f, auto i) {  // a card in the other slot that the module does not know
        const bool unknown = f == "C_GetTokenInfo" && world.journal[i].arguments[0] == 2;
        return unknown ? std::optional(CKR_TOKEN_NOT_RECOGNIZED) : std::nullopt;
    };
    const JsonValue report = discover();
    EXPECT_EQ(slot(report, 1).find("token"), nullptr);
    world.slots[1].tokenPresent = false;
    EXPECT_EQ(discover().find("slots")->asArray()->size(), 2U);
    EXPECT_EQ(discover(true, true).find("slots")->asArray()->size(), 1U);
    EXPECT_EQ(*(*slot(report, 0).find("token")->find("mechanisms")->asArray())[2].find("name")->asString(), "0x80000001");
    for (const char* const option : {"Pkcs11DiscoverSkipMechanisms", "a,PKCS11DISCOVERSKIPMECHANISMS;b"}) {
        p11->put_Options(option);
        const JsonValue shorter = discover();
        EXPECT_EQ(slot(shorter, 0).find("token")->find("mechanisms"), nullptr);
    }
    EXPECT_EQ(world.count("C_Initialize"), 1U);
    EXPECT_FALSE(p11->OpenSession(7, true));
    EXPECT_TRUE(p11->FindAllCerts());
}

TEST_F(QueriesTest, NonsenseIsReportedAsFarAsItGoes) {
    world.lie = [](fake::Outputs& out) {
        if (out.info != nullptr) std::memset(out.info->manufacturerID, 0xFF, 32);
        if (out.slotInfo != nullptr) std::memset(out.slotInfo->slotDescription, '\x1B', 64);
        if (out.slotInfo != nullptr) out.slotInfo->flags |= 0xF0000000;
        if (out.tokenInfo != nullptr) {
            std::memcpy(out.tokenInfo->label, "x\0yyy", 5);
            std::memset(out.tokenInfo->model, ' ', 16);
            out.tokenInfo->flags = ~CK_FLAGS{0};
            out.tokenInfo->ulMaxSessionCount = 0;
            out.tokenInfo->ulMaxRwSessionCount = CK_UNAVAILABLE_INFORMATION;
        }
        if (out.mechanismInfo != nullptr) out.result = CKR_GENERAL_ERROR;
    };
    const JsonValue report = discover();
    EXPECT_THAT(*report.find("manufacturer")->asString(), HasSubstr("\xEF\xBF\xBD"));
    EXPECT_EQ(*slot(report, 0).find("flags")->asArray()->back().asString(), "0xF0000000");
    const JsonValue& token = *slot(report, 0).find("token");
    EXPECT_EQ(*token.find("label")->asString(), "x");
    EXPECT_EQ(*token.find("model")->asString(), "");
    EXPECT_EQ(*token.find("flags")->asArray()->back().asString(), "0xFFFFFFFFFE00F090");
    EXPECT_TRUE(token.find("sessions")->find("max")->isNull() && token.find("sessions")->find("rwMax")->isNull());
    for (const char* const which : {"publicTotal", "publicFree", "privateTotal", "privateFree"}) EXPECT_TRUE(token.find("memory")->find(which)->isNull());
    EXPECT_EQ(token.find("mechanisms")->asArray()->size(), 3U);
    EXPECT_EQ((*token.find("mechanisms")->asArray())[0].find("flags"), nullptr);
}

TEST_F(QueriesTest, ListsThatChangeOrGrowAreSettledOrRefused) {
    bool endless = false;
    CK_ULONG numMore = 40;
    world.lie = [&](fake::Outputs& out) {
        if (out.function != "C_GetMechanismList" || out.ids == nullptr || (!endless && numMore == 0)) return;
        out.result = CKR_BUFFER_TOO_SMALL;
        numMore = 0;
    };
    EXPECT_EQ(slot(discover(), 0).find("token")->find("mechanisms")->asArray()->size(), 3U);
    world.slots[0].mechanisms.assign(5000, 0x1041);  // more than are described, of one token and in all
    for (CK_SLOT_ID id = 2; id <= 20; ++id) world.slots.emplace_back(world.slots[0]).id = id;
    const JsonValue large = discover();
    EXPECT_EQ(slot(large, 0).find("token")->find("mechanisms")->asArray()->size(), 4096U);
    EXPECT_EQ(slot(large, 15).find("token")->find("mechanisms")->asArray()->size(), 4096U);
    EXPECT_EQ(slot(large, 16).find("token")->find("mechanisms"), nullptr);
    world.slots.resize(1);
    world.slots[0].mechanisms = {0x1};
    endless = true;
    EXPECT_EQ(slot(discover(), 0).find("token")->find("mechanisms"), nullptr);
    EXPECT_THAT(p11->errors(), Contains("C_GetMechanismList does not settle on the length of its list."));
    world.lie = [](fake::Outputs& out) {
        if (out.count != nullptr) *out.count = ~CK_ULONG{0};  // whatever was written
    };
    EXPECT_EQ(discover().find("slots")->asArray()->size(), 1U);
    EXPECT_TRUE(p11->OpenSession(-1, false));
}

TEST_F(QueriesTest, SelectorsAndDescriptionsAreCheckedBeforeTheModuleIsAsked) {
    ASSERT_TRUE(quick());
    forget();
    for (const char* const selector : {"privat", "private;rsa", "all keys"}) {
        EXPECT_THAT(keys(selector), testing::MatchesRegex("The key selector has an unknown word: \".*\"\\.\\{\\}"));
    }
    // Others are among the command lines of data/commands.txt.
    for (const auto& [text, error] : {std::pair{R"({"keyType":1})", R"(The member "keyType" of the description is not RSA or EC.)"},
                                      {R"({"token":"yes"})", R"(The member "token" of the description is not true or false.)"},
                                      {R"({"label":null})", R"(The member "label" of the description is not a string.)"},
                                      {R"({"token":true,"token":1})", R"(The description names "token" twice.)"}}) {
        ClsJsonObject json;
        ASSERT_TRUE(json.loadJson(text, p11->log()));
        EXPECT_EQ(p11->FindObject(json), 0);
        EXPECT_EQ(p11->log().lastError(), error);
    }
    EXPECT_FALSE(p11->InitToken(1, XString("x"), XString(std::string(33, 'l'))));
    EXPECT_EQ(p11->log().lastError(), "The token label is longer than 32 bytes of UTF-8.");
    EXPECT_THAT(world.journal, IsEmpty());
}

TEST_F(QueriesTest, ObjectsAreFoundByWhatDescribesThem) {
    fake::Object cert = certObject(0x1FFFFFFFF, "alice", "a");
    cert.attributes[CKA_SERIAL_NUMBER] = {0x02, 0x02, 0x0A, 0x1B};
    fake::Object bare = certObject(0xFFFFFFFE, "bob", "b");
    bare.attributes[CKA_SERIAL_NUMBER] = {0xBE, 0xEF};
    objects() = {cert, bare, keyObject(7, "alice", {.id = "a", .withSubject = true}), keyObject(8, "p256", {.id = "c"})};
    ASSERT_TRUE(quick());
    const std::string subject = R"({"subject":")" + toHex(objects()[2].attributes[CKA_SUBJECT]) + "\"}";
    const std::tuple<std::string, int, const char*> rows[] = {{R"({"class":"certificate","label":"alice"})", -1, "8589934591"},
                                                              {R"({"serialNumber":"0a1b"})", -1, "8589934591"},
                                                              {R"({"serialNumber":"BEEF"})", -2, "4294967294"},
                                                              {R"({"class":"privateKey","id":"61"})", 7, "7"},
                                                              {subject, 7, "7"},
                                                              {R"({"keyType":"EC"})", 8, "8"},
                                                              {R"({"id":"63","handle":5})", 8, "8"},
                                                              {R"({"id":"62"})", -2, "4294967294"},
                                                              {R"({"label":"nobody","handle":5})", 0, nullptr}};
    for (const auto& [text, result, found] : rows) {
        ClsJsonObject json;
        ASSERT_TRUE(json.loadJson(text, p11->log()));
        EXPECT_EQ(p11->FindObject(json), result) << text;
        const JsonValue* const handle = json.valueAt("handle");
        EXPECT_TRUE(found == nullptr ? handle == nullptr : handle != nullptr && handle->asNumber() == found) << text;
    }
    EXPECT_EQ(keys("ec"), R"({"keys":[{"handle":8,"class":"private","keyType":"EC","label":"p256","id":"63","sign":true,"alwaysAuthenticate":false}]})");
    EXPECT_THAT(keys("rsa ec, private"), HasSubstr("\"handle\":7"));
    EXPECT_EQ(keys("secret"), R"({"keys":[]})");
    ASSERT_TRUE(p11->CloseSession());
    EXPECT_EQ(keys(""), "No PKCS11 session is open.{}");
}

// All answers of a length or form that does not fit the attribute: none is taken for a value.
TEST_F(QueriesTest, FixedSizesCountOnlyExactly) {
    objects() = {certObject(5, "alice", "a"), keyObject(7, "alice", {.id = "a"})};
    ASSERT_TRUE(quick());
    for (const CK_ULONG length : {CK_ULONG{0}, CK_ULONG{3}, CK_ULONG{9}, CK_ULONG{1} << 40, CK_UNAVAILABLE_INFORMATION}) {
        for (const CK_RV rv : {CKR_OK, CKR_BUFFER_TOO_SMALL, CKR_ATTRIBUTE_TYPE_INVALID}) {
            world.lie = [&](fake::Outputs& out) {
                for (CK_ULONG i = 0; out.attributes != nullptr && i < out.room; ++i) out.attributes[i].ulValueLen = length;
                if (out.attributes != nullptr) out.result = rv;
            };
            p11->FindAllCerts();
            EXPECT_THAT(keys(""), Not(HasSubstr("keySize")));
        }
    }
}

// A module that claims values and writes none: what the room held is not taken for them.
TEST_F(QueriesTest, UnwrittenValuesAreNoValues) {
    objects() = {keyObject(7, "alice", {.id = "a"}), keyObject(8, "alice", {.id = "a"})};
    ASSERT_TRUE(quick());
    world.answer = [this](auto& f, auto i) {  // the second is claimed in the lengths of the room
        return f == "C_GetAttributeValue" && world.journal[i].arguments[1] == 8 ? std::optional(CKR_OK) : std::nullopt;
    };
    EXPECT_THAT(keys("private"), testing::EndsWith(R"(,{"handle":8,"class":"private"}]})"));
    world.answer = nullptr;
    objects().pop_back();
    for (const CK_ULONG claimed : {CK_ULONG{1}, CK_ULONG{20}, CK_ULONG{500}}) {
        world.lie = [&](fake::Outputs& out) {
            for (CK_ULONG i = 0; out.attributes != nullptr && i < out.room; ++i) {
                CK_ATTRIBUTE& a = out.attributes[i];
                // As the reader presets its room: for all at once, and for one again.
                if (a.ulValueLen == CK_UNAVAILABLE_INFORMATION) continue;
                if (a.type == CKA_ID || a.type == CKA_LABEL) a.ulValueLen = claimed;
                std::memset(a.pValue, out.room == 1 ? 0xA5 : 0xFF, std::min<CK_ULONG>(a.ulValueLen, 64));
            }
            if (out.attributes != nullptr) out.result = CKR_OK;
        };
        EXPECT_EQ(keys("private"), R"({"keys":[{"handle":7,"class":"private"}]})") << claimed;
    }
}

TEST_F(QueriesTest, PinAdministrationFollowsTheStandard) {
    EXPECT_FALSE(p11->SetPin(XString("a"), XString("b")));
    EXPECT_EQ(p11->log().lastError(), "PKCS11 functions not available");
    EXPECT_FALSE(p11->InitToken(1, XString("x"), XString(std::string(33, 'l'))));
    EXPECT_EQ(p11->log().lastError(), "PKCS11 functions not available");
    EXPECT_EQ(keys("no such word"), "PKCS11 functions not available{}");
    ASSERT_TRUE(p11->QuickSession(1, XString()));
    EXPECT_TRUE(p11->SetPin(XString(world.slots[0].userPin), XString("a-fresh-user-pin-0123456")));
    EXPECT_FALSE(p11->SetPin(XString("1234-secret-user-pin-987"), XString("another-user-pin")));
    EXPECT_THAT(p11->log().lastHint(), HasSubstr("A wrong user PIN"));
    EXPECT_FALSE(p11->InitPin(XString("x")));
    EXPECT_EQ(p11->log().lastError(), "C_InitPIN failed with CKR_USER_NOT_LOGGED_IN.");
    ASSERT_TRUE(p11->Login(0, XString(world.slots[0].soPin)));
    EXPECT_FALSE(p11->InitPin(XString("x")));
    EXPECT_TRUE(p11->InitPin(XString("a-second-user-pin-654321")));
    ASSERT_TRUE(p11->CloseSession());
    EXPECT_FALSE(p11->InitToken(-3, XString("x"), XString("l")));
    EXPECT_EQ(world.journal.back().arguments[0], 0xFFFFFFFDU);
    EXPECT_TRUE(p11->InitToken(1, XString(world.slots[0].soPin), XString("n\xC3\xA4me")));
    EXPECT_EQ(world.slots[0].label, "n\xC3\xA4me" + std::string(27, ' '));
}

}  // namespace
}  // namespace mervane::test

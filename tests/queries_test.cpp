// Discovery and object queries on a module that answers as it likes.

#include "foundation/json/writer.h"
#include "foundation/text/hex.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

class QueriesTest : public FakeTest {
  protected:
    JsonValue discover() {
        ClsJsonObject json;
        EXPECT_TRUE(p11->Discover(false, json));
        return json.root();
    }
    static std::size_t slots(const JsonValue& report) { return report.find("slots")->asArray()->size(); }
    static const JsonValue& slot(const JsonValue& report, std::size_t i) { return (*report.find("slots")->asArray())[i]; }
    // The mechanisms described for the token in a slot.
    static std::size_t numMechanisms(const JsonValue& report, std::size_t i = 0) {
        const JsonValue* const list = slot(report, i).find("token")->find("mechanisms");
        return list == nullptr ? 0 : list->asArray()->size();
    }
    std::string keys() {
        ClsJsonObject json;
        EXPECT_TRUE(p11->FindAllKeys(XString("private"), json));
        return json.emit();
    }
};

TEST_F(QueriesTest, NonsenseIsReportedAsFarAsItGoes) {
    world.slots.push_back({.id = 2});
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
        if (out.function == "C_GetMechanismInfo" && out.index % 2 == 0) out.result = CKR_GENERAL_ERROR;
    };
    EXPECT_EQ(toJsonText(discover(), true) + "\n", wanted("wanted/nonsense"));
}

TEST_F(QueriesTest, ListThatGrowsIsAskedForAgainAndGivenUpWhenItNeverSettles) {
    for (const auto& [numTimes, size] : {std::pair{1, 3U}, {1000, 0U}}) {
        world.lie = [numLeft = numTimes](fake::Outputs& out) mutable {
            if (out.function == "C_GetMechanismList" && out.ids != nullptr && numLeft-- > 0) out.result = CKR_BUFFER_TOO_SMALL;
        };
        EXPECT_EQ(numMechanisms(discover()), size);
    }
    EXPECT_THAT(p11->errors(), Contains("C_GetMechanismList does not settle on the length of its list."));
}

TEST_F(QueriesTest, MechanismsAreDescribedUpToABoundForATokenAndInAll) {
    if (isUnderValgrind()) GTEST_SKIP();
    world.slots[0].mechanisms.assign(5000, 0x1041);
    for (CK_SLOT_ID id = 2; id <= 20; ++id) world.slots.emplace_back(world.slots[0]).id = id;
    const JsonValue report = discover();
    for (const std::size_t i : {0U, 15U}) EXPECT_EQ(numMechanisms(report, i), 4096U);
    EXPECT_EQ(numMechanisms(report, 16), 0U);
}

TEST_F(QueriesTest, CountBeyondTheListIsCutToIt) {
    world.lie = [](fake::Outputs& out) {
        if (out.count != nullptr) *out.count = ~CK_ULONG{0};  // whatever was written
    };
    EXPECT_EQ(slots(discover()), 1U);
    EXPECT_TRUE(p11->OpenSession(-1, false));
}

TEST_F(QueriesTest, ObjectOfAnySerialNumberAndHandleIsFound) {
    objects() = {certObject(0x1FFFFFFFF, "alice", "a"), certObject(0xFFFFFFFE, "bob", "b"), keyObject(7, "alice", {.id = "a", .withSubject = true})};
    objects()[0].attributes[CKA_SERIAL_NUMBER] = {0x02, 0x02, 0x0A, 0x1B};
    objects()[1].attributes[CKA_SERIAL_NUMBER] = {0xBE, 0xEF};  // without its DER head
    ASSERT_TRUE(quick());
    const std::string subject = toHex(objects()[2].attributes[CKA_SUBJECT]);
    const std::tuple<const char*, std::string, int, const char*> rows[] = {
        {"serialNumber", "0a1b", -1, "8589934591"}, {"serialNumber", "BEEF", -2, "4294967294"}, {"subject", subject, 7, "7"}};
    for (const auto& [member, value, result, handle] : rows) {
        ClsJsonObject json;
        json.root().set(member, value);
        EXPECT_EQ(p11->FindObject(json), result) << value;
        EXPECT_EQ(json.valueAt("handle")->asNumber(), handle);
    }
}

// A module claims values that it did not write: what the buffer held is not taken for them.
TEST_F(QueriesTest, UnwrittenValuesAreNoValues) {
    objects() = {keyObject(7, "alice", {.id = "a"}), keyObject(8, "alice", {.id = "a"})};
    ASSERT_TRUE(quick());
    world.answer = [this](auto& f, auto i) {  // the second one claims the lengths of the buffer
        return f == "C_GetAttributeValue" && world.journal[i].arguments[1] == 8 ? std::optional(CKR_OK) : std::nullopt;
    };
    EXPECT_THAT(keys(), testing::EndsWith(R"(,{"handle":8,"class":"private"}]})"));
    world.answer = nullptr;
    objects().pop_back();
    for (const CK_ULONG claimed : {CK_ULONG{1}, CK_ULONG{20}, CK_ULONG{500}}) {
        world.lie = [&](fake::Outputs& out) {
            for (CK_ULONG i = 0; out.attributes != nullptr && i < out.room; ++i) {
                CK_ATTRIBUTE& a = out.attributes[i];
                // As the reader presets its buffer: for all attributes, and for a single one.
                if (a.ulValueLen == CK_UNAVAILABLE_INFORMATION) continue;
                if (a.type == CKA_ID || a.type == CKA_LABEL) a.ulValueLen = claimed;
                std::memset(a.pValue, out.room == 1 ? 0xA5 : 0xFF, std::min<CK_ULONG>(a.ulValueLen, 64));
            }
            if (out.attributes != nullptr) out.result = CKR_OK;
        };
        EXPECT_EQ(keys(), R"({"keys":[{"handle":7,"class":"private"}]})") << claimed;
    }
}

}  // namespace
}  // namespace mervane::test

// Texts, JSON and the log.

#include "foundation/json/parser.h"
#include "foundation/json/writer.h"
#include "foundation/text/base64.h"
#include "foundation/text/hex.h"
#include "foundation/text/utf8.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

TEST(TextTest, Utf8IsMadeValidAndFitForOneLine) {
    for (const auto& row : dataRows("utf8.txt")) {
        EXPECT_EQ(toValidUtf8(row[0]), row[1]);
        std::string line;
        appendOneLine(line, row[0]);
        EXPECT_EQ(line, row[2]);
        EXPECT_EQ(displayWidth(row[0]), std::stoul(row[3])) << row[0];
        if (row.size() > 4) { EXPECT_EQ(toJsonText(JsonValue(row[0]), false), row[4]); }
    }
}

TEST(TextTest, WipingReachesWhatALongerValueLeftBehind) {
    std::string text(64, 'p');
    const char* const memory = text.data();
    text.resize(2);
    wipe(text);
    EXPECT_TRUE(text.empty() && text.data() == memory);
    EXPECT_TRUE(std::all_of(memory, memory + 64, [](char c) { return c == '\0'; }));
}

TEST(TextTest, HexAndBase64) {
    EXPECT_EQ(toHex(*fromHex("00ffA5")), "00FFA5");
    for (const char* const bad : {"0", "0g", "0x00", " 00"}) EXPECT_FALSE(fromHex(bad)) << bad;
    EXPECT_EQ(toHexNumber(0x1F), "0x0000001F");
    for (const char* const text : {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg=="}) {
        std::vector<std::uint8_t> bytes;
        EXPECT_TRUE(appendBase64(text, bytes));
        EXPECT_EQ(toBase64(bytes), text);
    }
    std::vector<std::uint8_t> bytes;
    EXPECT_TRUE(appendBase64("Zm8", bytes));  // without padding
    EXPECT_EQ(bytes.size(), 2U);
    EXPECT_FALSE(appendBase64("Zm8 Zm8", bytes));
}

JsonValue parsed(std::string_view text) {
    JsonValue value;
    JsonError error;
    EXPECT_TRUE(parseJson(text, value, error)) << text << ": " << error.reason;
    return value;
}

// The rules of RFC 8259, grouped as in the public parser test suites.
TEST(JsonTest, ValidTextsAreAcceptedAndInvalidOnesRefused) {
    for (const auto& row : dataRows("json-valid.txt")) {
        const JsonValue value = parsed(row[0]);
        EXPECT_EQ(toJsonText(value, false), toJsonText(parsed(toJsonText(value, true)), false));
    }
    for (const auto& row : dataRows("json-invalid.txt")) {
        JsonValue value(7);
        JsonError error;
        EXPECT_FALSE(parseJson(row[0], value, error)) << row[0];
        EXPECT_TRUE(!error.reason.empty() && value.asNumber());  // untouched
        ClsJsonObject json;
        EXPECT_FALSE(json.loadJson(row[0], json.log()));
        EXPECT_EQ(json.log().lastError(), row.size() > 1 ? row[1] : json.log().lastError());
    }
}

class JsonObjectTest : public testing::Test {
  protected:
    JsonObjectTest() { EXPECT_TRUE(json->loadJson(text, log)); }
    const std::string text = R"({"a":{"b":[{"k":"x"},{"k":"Y","n":[1,2]},7]},"t":true,"s":"","d":1,"d":2,"z":null})";
    LogNull log;
    std::unique_ptr<ClsJsonObject> json = std::make_unique<ClsJsonObject>();
};

TEST_F(JsonObjectTest, PathsNameValues) {
    for (const auto& row : dataRows("json-paths.txt")) {
        json->put_I(std::stoi(row[1]));
        EXPECT_EQ(json->JsonTypeOf(row[0]), std::stoi(row[2])) << row[0];
    }
    EXPECT_EQ(json->valueAt("d")->asNumber(), "1");  // the first of two members counts
}

TEST_F(JsonObjectTest, SizeOfWhatIsNoArrayIsSaid) {
    EXPECT_EQ(json->SizeOfArray("a.b"), 3);
    EXPECT_EQ(json->sizeOfArray("a", json->log()) + json->sizeOfArray("a.b", json->log()), 3);
    EXPECT_EQ(json->log().text(), "missingJsonArray: a\n");
}

TEST_F(JsonObjectTest, RecordIsACopy) {
    EXPECT_EQ(json->FindRecord("a.b", "k", "y", true), nullptr);
    EXPECT_EQ(json->FindRecord("a", "k", "y", false), nullptr);
    const std::unique_ptr<ClsJsonObject> record(json->FindRecord("a.b", "k", "y", false));
    ASSERT_NE(record, nullptr);
    record->root().set("k", "changed");
    EXPECT_EQ(json->emit(), text);
    json.reset();
    EXPECT_EQ(record->emit(), R"({"k":"changed","n":[1,2]})");
    StringBuffer value;
    EXPECT_TRUE(record->sbOfPathUtf8("k", value, log));
    EXPECT_FALSE(record->sbOfPathUtf8("n", value, log) || record->boolOf("k", log));
}

TEST(JsonTest, WrittenTextIsValidWhateverItHolds) {
    JsonValue value = JsonValue::object();
    value.set("t", std::string("\"\\\n\x01\x7F\xC2\x9B\xFF"
                               "\xC3\xBC",
                               10));
    EXPECT_EQ(toJsonText(value, false), "{\"t\":\"\\\"\\\\\\n\\u0001\\u007F\\u009B\xEF\xBF\xBD\xC3\xBC\"}");
    EXPECT_EQ(toJsonText(JsonValue::array(), true), "[]");
    // Surrogate pairs at both ends of their range, and lone halves
    const std::string half = "\xEF\xBF\xBD";
    EXPECT_EQ(parsed(R"("\uD800\uDC00\uDBFF\uDFFF\uD834x\uDC00\uD834\uD834\uDD1E")").asString(),
              "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF" + half + "x" + half + half + "\xF0\x9D\x84\x9E");
}

TEST(JsonTest, ValueMayBeChangedByAPartOfItself) {
    const std::tuple<const char*, void (*)(JsonValue&), const char*> rows[] = {
        {R"(["x",["long enough for a block"]])", [](JsonValue& v) { v = (*v.asArray())[1]; }, R"(["long enough for a block"])"},
        {R"({"a":{"b":123456789}})", [](JsonValue& v) { v = std::move(*v.find("a")->find("b")); }, "123456789"},
        {R"({"a long name 1":1,"k2":2,"a long name 1":3})", [](JsonValue& v) { v.remove(v.asObject()->begin()->name()); }, R"({"k2":2})"},
        {R"("a name of its own")", [](JsonValue& v) { v.set(*v.asString(), 1); }, R"({"a name of its own":1})"},
        {"[[1]]", [](JsonValue& v) { v.append((*v.asArray())[0]); }, "[[1],[1]]"},
    };
    for (const auto& [text, change, result] : rows) {
        JsonValue value = parsed(text);
        change(value);
        EXPECT_EQ(toJsonText(value, false), result) << text;
    }
}

class TestObject final : public ClsBase {};

TEST(JsonTest, EveryCharacterIsReadAsItWasWritten) {
    std::string all;
    for (int c = 0; c < 0x300; ++c) {
        if (c < 0x80) {
            all.push_back(static_cast<char>(c));
        } else {
            all.append({static_cast<char>(0xC0 | c >> 6), static_cast<char>(0x80 | (c & 0x3F))});
        }
    }
    EXPECT_EQ(parsed(toJsonText(JsonValue(all), false)).asString(), all);
}

TEST(LogTest, RendersAsTextAndJson) {
    TestObject object;
    {
        const LogContextExitor call(object, "Call");
        object.log().LogInfo("line\nwith end");
        const LogContextExitor inner(object.log(), "inner");
        object.log().LogDataLong("n", -5);
        object.log().LogError("wrong");
        object.log().LogHint("do this");
        { const LogContextExitor deeper(object.log(), "deeper"); }
        object.log().LogInfo("after");
        EXPECT_EQ(object.log().firstError() + object.log().lastHint(), "wrongdo this");
    }
    { const LogContextExitor call(object, "Next"); }
    EXPECT_EQ(object.log().text(), "Call:\n  line\\x0awith end\n  inner:\n    n: -5\n    error: wrong\n    do this\n    deeper:\n    after\nNext:\n");
    EXPECT_EQ(
        toJsonText(parsed(object.log().json()), false),
        R"([{"context":"Call","entries":[{"info":"line\\x0awith end"},{"context":"inner","entries":[{"name":"n","value":"-5"},{"error":"wrong"},{"info":"do this"},{"context":"deeper","entries":[]},{"info":"after"}]}]},{"context":"Next","entries":[]}])");
    EXPECT_EQ(object.log().firstError() + object.log().lastError() + object.log().lastHint(), "");  // they belong to the last call
}

TEST(LogTest, EarlierCallsAreKeptAsFarAsTheyFit) {
    TestObject object;
    for (int call = 0; call < 600; ++call) {
        const LogContextExitor context(object, "Call " + std::to_string(call));
        object.log().LogInfo(std::string(1000, 'x'));
    }
    const std::string kept = object.log().text();
    EXPECT_LT(kept.size(), 300U * 1024);
    for (int call = 0; call < 300; ++call) {  // each is whole, or gone
        const LogContextExitor context(object, "Again " + std::to_string(call));
        object.log().LogInfo(std::string(static_cast<std::size_t>(call) * 17, 'y'));
        const std::string text = object.log().text();
        EXPECT_TRUE(text.starts_with("Call ") || text.starts_with("Again "));
    }
    for (const int call : {599, 598, 480}) EXPECT_THAT(kept, HasSubstr("Call " + std::to_string(call) + ":"));
}

TEST(LogTest, FloodKeepsItsErrorsAndCountsTheRest) {
    TestObject object;
    for (int call = 0; call < 2; ++call) {  // the bound is that of one call
        const LogContextExitor context(object, "Flood");
        for (int i = 0; i < 5000; ++i) object.log().LogInfo(std::string(1000, 'x'));
        const LogContextExitor deeper(object.log(), "deeper");
        for (int i = 0; i < 2000; ++i) object.log().LogError("still kept");
    }
    const std::string kept = object.log().text();
    EXPECT_LT(kept.size(), 1200U * 1024);
    EXPECT_THAT(kept, testing::AllOf(HasSubstr("error: still kept"), HasSubstr("entriesNotKept: ")));
    EXPECT_GT(kept.size(), 1000U * 1024);
    EXPECT_TRUE(parsed(object.log().json()).asArray());
}

}  // namespace
}  // namespace mervane::test

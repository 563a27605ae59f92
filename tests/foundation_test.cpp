// Texts, JSON, the log and the inflater.

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>

#include "foundation/json/parser.h"
#include "foundation/json/writer.h"
#include "foundation/system/deflate.h"
#include "foundation/system/sharedobject.h"
#include "foundation/text/base64.h"
#include "foundation/text/hex.h"
#include "foundation/text/utf8.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

TEST(TextTest, Utf8IsMadeValidAndFitForOneLine) {
    const std::string replaced = "\xEF\xBF\xBD";
    const std::string beyondAscii = "\xC3\xBC\xE4\xBD\xA0\xF0\x9F\x98\x80";
    const std::string control("a\n\x1B[2J\0", 7);
    const std::tuple<std::string, std::string, std::string, std::size_t> rows[] = {
        {"plain", "plain", "plain", 5},
        {beyondAscii, beyondAscii, beyondAscii, 5},
        {"e\xCC\x81", "e\xCC\x81", "e\xCC\x81", 1},
        {"\xC0\x80", replaced + replaced, replaced + replaced, 2},
        {"\xED\xA0\x80", replaced + replaced + replaced, replaced + replaced + replaced, 3},
        {"\xED\xBF\xBF", replaced + replaced + replaced, replaced + replaced + replaced, 3},
        {"a\xE2\x82", "a" + replaced + replaced, "a" + replaced + replaced, 3},
        {control, control, "a\\x0a\\x1b[2J\\x00", 7},
        {"\xC2\x9B\xE2\x80\xAE", "\xC2\x9B\xE2\x80\xAE", "\\x9b\\u{202e}", 2},
    };
    for (const auto& [text, valid, oneLine, width] : rows) {
        EXPECT_EQ(toValidUtf8(text), valid);
        std::string line;
        appendOneLine(line, text);
        EXPECT_EQ(line, oneLine);
        EXPECT_EQ(displayWidth(text), width);
    }
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

// The rules of RFC 8259, as the public test suites for parsers group them.
TEST(JsonTest, ValidTextsAreAcceptedAndInvalidOnesRefused) {
    for (const auto& row : dataRows("json-valid.txt")) {
        const std::string& text = row[0];
        JsonValue value;
        JsonError error;
        EXPECT_TRUE(parseJson(text, value, error)) << text << ": " << error.reason;
        JsonValue again;
        EXPECT_TRUE(parseJson(toJsonText(value, true), again, error)) << text;
        EXPECT_EQ(toJsonText(value, false), toJsonText(again, false));
    }
    for (const auto& row : dataRows("json-invalid.txt")) {
        JsonValue value(7);
        JsonError error;
        EXPECT_FALSE(parseJson(row[0], value, error)) << row[0];
        EXPECT_FALSE(error.reason.empty()) << row[0];
        EXPECT_TRUE(value.asNumber());  // untouched
    }
}

TEST(JsonTest, DepthIsBoundedAndErrorsHaveTheirPlace) {
    const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    JsonValue value;
    JsonError error;
    EXPECT_TRUE(parseJson(nested(64), value, error));
    EXPECT_FALSE(parseJson(nested(65), value, error));
    EXPECT_FALSE(parseJson(std::string(100000, '['), value, error));
    ClsJsonObject json;
    const std::pair<const char*, const char*> rows[] = {{"{\n \"a\": 1,\n \"b\" 2}", "Invalid JSON at line 3, column 6: ':' is expected after a member name."},
                                                        {"", "Invalid JSON at line 1, column 1: a value is expected."},
                                                        {"[1,\n\n,2]", "Invalid JSON at line 3, column 1: a value is expected."}};
    for (const auto& [text, line] : rows) {
        EXPECT_FALSE(json.loadJson(text, json.log()));
        EXPECT_EQ(json.log().lastError(), line);
    }
}

TEST(JsonTest, PathsRecordsAndSharing) {
    LogNull log;
    auto json = std::make_unique<ClsJsonObject>();
    ASSERT_TRUE(json->loadJson(R"({"a":{"b":[{"k":"x"},{"k":"Y","n":[1,2]},7]},"t":true,"s":"","d":1,"d":2,"z":null})", log));
    json->put_I(1);
    const std::pair<int, std::vector<const char*>> rows[] = {
        {1, {"a.b[0].k", "a.b[i].k", "s"}},
        {2, {"a.b[2]", "a.b[i].n[i]"}},
        {3, {"", "a"}},
        {4, {"a.b"}},
        {5, {"t"}},
        {6, {"z"}},
        {-1, {"a.", "a..b", "a[0]", "t.x", "a.b[]", "a.b[-1]", "a.b[1", "a.b[3]", "a.b[99999999999999999999]", "a.b.[0]", "a.b[ 0]"}}};
    for (const auto& [type, paths] : rows) {
        for (const char* const path : paths) EXPECT_EQ(json->JsonTypeOf(path), type) << path;
    }
    json->put_I(-1);
    EXPECT_EQ(json->JsonTypeOf("a.b[i]"), -1);
    json->put_I(1 << 30);
    EXPECT_EQ(json->JsonTypeOf("a.b[i]"), -1);
    EXPECT_EQ(json->valueAt("d")->asNumber(), "1");  // the first of two counts
    EXPECT_EQ(json->SizeOfArray("a.b"), 3);
    EXPECT_EQ(json->sizeOfArray("a", json->log()) + json->sizeOfArray("a.b", json->log()), 3);
    EXPECT_EQ(json->log().text(), "missingJsonArray: a\n");

    EXPECT_EQ(json->FindRecord("a.b", "k", "y", true), nullptr);
    EXPECT_EQ(json->FindRecord("a", "k", "y", false), nullptr);
    const std::unique_ptr<ClsJsonObject> record(json->FindRecord("a.b", "k", "y", false));
    ASSERT_NE(record, nullptr);
    record->root().set("k", "changed");
    EXPECT_EQ(json->emit(), R"({"a":{"b":[{"k":"x"},{"k":"Y","n":[1,2]},7]},"t":true,"s":"","d":1,"d":2,"z":null})");
    json.reset();
    EXPECT_EQ(record->emit(), R"({"k":"changed","n":[1,2]})");
    StringBuffer text;
    EXPECT_TRUE(record->sbOfPathUtf8("k", text, log));
    EXPECT_FALSE(record->sbOfPathUtf8("n", text, log));
    EXPECT_FALSE(record->boolOf("k", log));
}

TEST(JsonTest, WrittenTextIsValidWhateverItHolds) {
    JsonValue value = JsonValue::object();
    value.set("t", std::string("\"\\\n\x01\x7F\xC2\x9B\xFF"
                               "\xC3\xBC",
                               10));
    EXPECT_EQ(toJsonText(value, false), "{\"t\":\"\\\"\\\\\\n\\u0001\\u007F\\u009B\xEF\xBF\xBD\xC3\xBC\"}");
    EXPECT_EQ(toJsonText(JsonValue::array(), true), "[]");
    // Pairs of surrogates at both ends, and halves
    JsonError error;
    EXPECT_TRUE(parseJson(R"("\uD800\uDC00\uDBFF\uDFFF\uD834x\uDC00\uD834\uD834\uDD1E")", value, error));
    const std::string half = "\xEF\xBF\xBD";
    EXPECT_EQ(value.asString(), "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF" + half + "x" + half + half + "\xF0\x9D\x84\x9E");
}

// A value may be changed by a part of itself.
TEST(JsonTest, PartsOfAValueChangeIt) {
    const auto after = [](const char* text, const std::function<void(JsonValue&)>& change) {
        JsonValue value;
        JsonError error;
        EXPECT_TRUE(parseJson(text, value, error));
        change(value);
        return toJsonText(value, false);
    };
    const std::tuple<const char*, std::function<void(JsonValue&)>, const char*> rows[] = {
        {R"(["x",["long enough for a block"]])", [](JsonValue& v) { v = (*v.asArray())[0]; }, R"("x")"},
        {R"(["x",["long enough for a block"]])", [](JsonValue& v) { v = (*v.asArray())[1]; }, R"(["long enough for a block"])"},
        {R"({"a":{"b":123456789}})", [](JsonValue& v) { v = std::move(*v.find("a")); }, R"({"b":123456789})"},
        {R"({"a":{"b":123456789}})", [](JsonValue& v) { v = std::move(*v.find("a")->find("b")); }, "123456789"},
        {R"({"k1":1,"k2":2,"k1":3})", [](JsonValue& v) { v.remove(v.asObject()->begin()->name()); }, R"({"k2":2})"},
        {R"({"a long name 1":1,"k2":2,"a long name 1":3})", [](JsonValue& v) { v.remove(v.asObject()->begin()->name()); }, R"({"k2":2})"},
        {R"("a name of its own")", [](JsonValue& v) { v.set(*v.asString(), 1); }, R"({"a name of its own":1})"},
        {"[[1]]", [](JsonValue& v) { v.append((*v.asArray())[0]); }, "[[1],[1]]"},
        {"[123456789]", [](JsonValue& v) { JsonValue taken = std::move(const_cast<JsonValue&>((*v.asArray())[0])); }, "[null]"},
        {"[1]", [](JsonValue& v) { v = *&v; }, "[1]"},
    };
    for (const auto& [text, change, result] : rows) EXPECT_EQ(after(text, change), result) << text;
}

class TestObject final : public ClsBase {};

TEST(LogTest, RendersAsTextAndJson) {
    TestObject object;
    {
        const LogContextExitor call(object, "Call");
        object.log().LogInfo("line\nwith end");
        const LogContextExitor inner(object.log(), "inner");
        object.log().LogDataLong("n", -5);
        object.log().LogError("wrong");
        object.log().LogHint("do this");
    }
    { const LogContextExitor call(object, "Next"); }
    EXPECT_EQ(object.log().text(), "Call:\n  line\\x0awith end\n  inner:\n    n: -5\n    error: wrong\n    do this\nNext:\n");
    JsonValue value;
    JsonError error;
    ASSERT_TRUE(parseJson(object.log().json(), value, error));
    EXPECT_EQ(
        toJsonText(value, false),
        R"([{"context":"Call","entries":[{"info":"line\\x0awith end"},{"context":"inner","entries":[{"name":"n","value":"-5"},{"error":"wrong"},{"info":"do this"}]}]},{"context":"Next","entries":[]}])");
    EXPECT_TRUE(object.log().lastError().empty() && object.log().lastHint().empty());  // of the last call
}

TEST(LogTest, KeepsTheCurrentCallAndWhatFitsOfEarlierOnes) {
    TestObject object;
    const std::string text(1000, 'x');
    for (int call = 0; call < 600; ++call) {
        {
            const LogContextExitor context(object, "Call " + std::to_string(call));
            object.log().LogInfo(text);
        }
        const std::string kept = object.log().text();
        EXPECT_LT(kept.size(), 300U * 1024);
        for (const int earlier : {call, call - 100}) EXPECT_NE(earlier < 0 ? 0 : kept.find("Call " + std::to_string(earlier) + ":"), std::string::npos);
    }
    {
        const LogContextExitor context(object, "Flood");
        for (int i = 0; i < 5000; ++i) object.log().LogInfo(text);
        for (int i = 0; i < 100; ++i) {
            const LogContextExitor deeper(object.log(), "deeper");
            object.log().LogError("still kept");
        }
        std::vector<std::unique_ptr<LogContextExitor>> deep(200);
        for (auto& level : deep) level = std::make_unique<LogContextExitor>(object.log(), "deep");
        object.log().LogInfo(std::string(100000, 'y'));
        while (!deep.empty()) deep.pop_back();
    }
    EXPECT_LT(object.log().text().size(), 1500U * 1024);
    EXPECT_THAT(object.log().text(), testing::AllOf(HasSubstr("still kept"), HasSubstr("entriesNotKept: ")));
    EXPECT_EQ(object.log().contextDepth(), 0);
    JsonValue value;
    JsonError error;
    EXPECT_TRUE(parseJson(object.log().json(), value, error)) << error.reason;
}

TEST(DeflateTest, WholeStreamsOrNothing) {
    std::string plain;
    for (int i = 0; i < 3000; ++i) plain += std::to_string(i * 7919);
    z_stream stream{};
    std::vector<std::uint8_t> packed(plain.size());
    ASSERT_EQ(deflateInit2(&stream, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY), Z_OK);
    stream.next_in = reinterpret_cast<Bytef*>(plain.data());
    stream.next_out = packed.data();
    stream.avail_in = stream.avail_out = static_cast<uInt>(plain.size());
    ASSERT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    LogNull log;
    const auto inflate = [&](std::span<const std::uint8_t> in, std::size_t maxSize) {
        DataBuffer out;
        const bool ok = MervaneDeflate::inflateDb(false, DataBuffer(in), out, false, _mvIoParams(), maxSize, log);
        EXPECT_TRUE(ok || out.isEmpty());
        return ok ? std::string(out.span().begin(), out.span().end()) : "failed";
    };
    EXPECT_EQ(inflate(packed, plain.size()), plain);
    EXPECT_EQ(inflate(packed, plain.size() - 1), "failed");
    for (std::size_t size = 0; size < packed.size(); size += 7) EXPECT_EQ(inflate(std::span(packed).first(size), 60000), "failed");
    packed.push_back(0);
    EXPECT_EQ(inflate(packed, plain.size()), "failed");
}

// A library as distributions ship it: next to nothing stands behind its last segment.
std::string zlibFile() {
    Dl_info info = {};
    EXPECT_NE(::dladdr(reinterpret_cast<const void*>(&::zlibVersion), &info), 0);
    return readFile(info.dli_fname);
}

std::string scratchFile(const std::string& content) {
    const std::string path = scratchFolder() + "/shared-object";
    std::filesystem::remove(path);  // a name that is mapped keeps its file
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

using Header = ElfW(Ehdr);
using Segment = ElfW(Phdr);

TEST(SharedObjectTest, WhatCannotBeLoadedIsRefusedWithTheReason) {
    const auto reasonOf = [](const std::string& content) { return whyNotLoadable(scratchFile(content).c_str()).value_or("none"); };
    const std::string whole = zlibFile();
    const std::string half = whole.substr(0, whole.size() / 2);
    const std::pair<std::string, const char*> contents[] = {
        {whole, "none"},
        {readFile(MERVANE_FAKE_MODULE), "none"},
        {"", "is empty."},
        {"/* GNU ld script */ INPUT(libother.so)", "not an ELF shared library."},
        {"\x7F\x45L", "not an ELF shared library."},
        {std::string("\x7F\x45LF\1\1\1", 7) + std::string(45, '\0'), "is a 32-bit library, the process is a 64-bit one."},
        {whole.substr(0, 63), "cut short: the ELF header ends at 64, the file has 63 bytes."},
        {half + std::string(whole.size() - half.size(), '\0'), "damaged: its dynamic section names no table of symbols."},
    };
    for (const auto& [content, reason] : contents) EXPECT_THAT(reasonOf(content), HasSubstr(reason));

    // The linker writes four segments first, then the dynamic section.
    const std::pair<std::function<void(Header&, Segment*)>, const char*> changes[] = {
        {[](Header& h, Segment*) { h.e_shoff = ~0UL; }, "none"},
        {[](Header&, Segment* s) { s[3].p_filesz = 0, s[3].p_offset = 1UL << 40; }, "damaged: its dynamic section at "},
        {[](Header& h, Segment*) { h.e_ident[EI_CLASS] = 7; }, "not an ELF shared library."},
        {[](Header& h, Segment*) { h.e_ident[EI_DATA] ^= 3; }, "is for the other byte order."},
        {[](Header& h, Segment*) { h.e_machine = EM_ARM; }, "for another machine (ELF machine 40, here "},
        {[](Header& h, Segment*) { h.e_type = ET_REL; }, "not a shared library (ELF type 1)."},
        {[](Header& h, Segment*) { h.e_phoff = ~0UL; }, "cut short: the program header table ends at 18446744073709551615, the file has "},
        {[](Header& h, Segment*) { h.e_phnum = 513; }, "damaged: its program header table has 513 entries of 56 bytes."},
        {[](Header& h, Segment*) { h.e_phentsize = 32; }, "entries of 32 bytes."},
        {[](Header&, Segment* s) { s[1].p_filesz = 1UL << 40; }, "cut short: a segment ends at 10995"},
        {[](Header&, Segment* s) { s[1].p_filesz = ~0UL; }, "cut short: a segment ends at 18446744073709551615, the file has "},
        {[](Header&, Segment* s) { s[1].p_vaddr = 0; }, "damaged: its segment at address 0 overlaps"},
        {[](Header&, Segment* s) { s[3].p_memsz = ~0UL; }, "damaged: its segment at address "},
        {[](Header&, Segment* s) { s[0].p_memsz = 1; }, "damaged: its segment at address 0 overlaps the one before it or exceeds its own room."},
        {[](Header&, Segment* s) { s[4].p_vaddr = 1UL << 40; }, "damaged: its dynamic section at address 1099511627776 is in no segment."},
        {[](Header&, Segment* s) { s[0].p_filesz = 64; }, "damaged: its dynamic section names no table of symbols."},
    };
    for (const auto& [change, reason] : changes) {
        std::string content = whole;
        auto& header = *reinterpret_cast<Header*>(content.data());
        change(header, reinterpret_cast<Segment*>(content.data() + header.e_phoff));
        EXPECT_THAT(reasonOf(content), HasSubstr(reason));
    }
}

TEST(SharedObjectTest, WhatIsNoRegularFileIsNotWaitedFor) {
    const std::string fifo = scratchFolder() + "/fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::pair<std::string, std::string> rows[] = {
        {fifo, "The path does not name a regular file."},
        {scratchFolder(), "The path does not name a regular file."},
        {scratchFolder() + "/none", "The file cannot be opened: No such file or directory."},
        {"none", ""},  // the loader's to find
    };
    for (const auto& [path, reason] : rows) EXPECT_EQ(whyNotLoadable(path.c_str()).value_or(""), reason) << path;
}

// What passes is loaded: were it to end the process, this test would end.
TEST(SharedObjectTest, EveryCutIsRefusedOrHarmless) {
    const std::string whole = zlibFile();
    std::vector<std::size_t> cuts = {1, 5, 16, 65, 4095, 4096, 4097, whole.size() - 1};
    for (std::size_t percent = 1; percent < 100; ++percent) cuts.push_back(whole.size() * percent / 100);
    int numRefused = 0;
    for (const std::size_t cut : cuts) {
        const std::string path = scratchFile(whole.substr(0, cut));
        if (const auto reason = whyNotLoadable(path.c_str())) {
            ++numRefused;
            EXPECT_THAT(*reason, HasSubstr(cut < 4 ? "not an ELF" : "cut short")) << cut;
            continue;
        }
        void* const loaded = ::dlopen(path.c_str(), RTLD_NOW);
        ASSERT_NE(loaded, nullptr) << ::dlerror();
        ::dlclose(loaded);
    }
    EXPECT_GE(numRefused, 90);
}

}  // namespace
}  // namespace mervane::test

// Sequences of calls, and everything that each leaves: its log, the calls it made to the module, its
// result. In tests/data/transcripts a line "> NAME | ARGUMENT..." makes a call or changes the module; what
// it has to leave follows. With MERVANE_WRITE_TRANSCRIPTS set, the files are rewritten, to be reviewed.

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support.h"

namespace mervane::test {
namespace {

// Answers every call of a function, or its Nth, with a code; or throws.
void script(fake::World& world, const Words& w) {
    world.answer = [&world, w](auto& function, auto) -> std::optional<CK_RV> {
        const bool isMeant = function == w[1] && (w[3].empty() || world.count(function) == std::stoul(w[3]));
        if (isMeant && w[2] == "throw") throw 7;
        return isMeant ? std::optional(std::stoul(w[2], nullptr, 0)) : std::nullopt;
    };
}

const std::map<std::string, void (*)(Pkcs11& p, fake::World& world, const Words& w)> kChanges = {
    {"path", [](auto& p, auto&, auto& w) { p.put_SharedLibPath(XString(w[1])); }},
    {"options", [](auto& p, auto&, auto& w) { p.put_Options(w[1]); }},
    {"answer", [](auto&, auto& world, auto& w) { script(world, w); }},
    {"slot", [](auto&, auto& world, auto& w) { world.slots.push_back({.id = std::stoul(w[1], nullptr, 0), .tokenPresent = w[2] != "empty"}); }},
    {"no slots", [](auto&, auto& world, auto&) { world.slots.clear(); }},
    {"pin pad", [](auto&, auto& world, auto&) { world.slots.at(0).flags |= CKF_PROTECTED_AUTHENTICATION_PATH; }},
    {"objects", [](auto&, auto& world, auto& w) { world.slots.at(0).objects = objectsOf(w[1]); }},
    {"max sessions", [](auto&, auto& world, auto& w) { world.maxSessions = std::stoul(w[1]); }},
    {"null list", [](auto&, auto& world, auto&) { world.nullList = true; }},
    {"version", [](auto&, auto& world, auto& w) { world.version.major = static_cast<CK_BYTE>(std::stoul(w[1])); }},
    {"null entry", [](auto&, auto& world, auto& w) { world.nullEntries = {w[1]}; }},
    {"takes no arguments", [](auto&, auto& world, auto&) { world.needsNullArguments = true; }},
    {"initialised by others", [](auto&, auto& world, auto&) { world.initializedByOthers = true; }},
};

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) text.replace(at, from.size(), to);
}

class TranscriptsTest : public FakeTest, public testing::WithParamInterface<const char*> {
  protected:
    TranscriptsTest() {
        std::filesystem::current_path(scratchFolder());
        ::mkfifo("fifo", 0600);
        std::ofstream("text") << "no library";
        std::ofstream("libz.so.1") << "";  // the loader finds a different one
        FakeModule("my-libkeyfactorpkcs11-2.so").world().slots[0].objects = objectsOf("cert:ed:a cert:p256:b");
    }
    ~TranscriptsTest() override { std::filesystem::current_path("/"); }

    // What a call leaves; for a change, the calls made to the module.
    std::string act(const Words& words) {
        forget();
        std::string result;
        std::string out;
        if (const auto call = publicCalls().find(words[0]); call != publicCalls().end()) {
            result = "= " + call->second(*p11, words);
            result += p11->get_LastMethodSuccess() ? "\n" : "; recorded as failed\n";
        } else if (words[0] == "anew") {
            p11.reset();
        } else {
            kChanges.at(words[0])(*p11, world, words);
        }
        for (const fake::Call& made : world.journal) {
            out += "  * " + made.function;
            for (const CK_ULONG argument : made.arguments) out += " " + std::to_string(argument);
            out += " " + rvName(made.result) + "\n";
        }
        if (p11) return p11->log().text() + out + result;
        world.reset();
        p11 = std::make_unique<Pkcs11>();
        p11->put_SharedLibPath(XString(module.path()));
        return out;
    }
    const std::pair<std::string, std::string> m_names[5] = {{"{folder}", scratchFolder()},
                                                            {"{plain}", MERVANE_PLAIN_LIBRARY},
                                                            {"{unresolved}", MERVANE_UNRESOLVED_LIBRARY},
                                                            {"{user}", fake::Slot().userPin},
                                                            {"{so}", fake::Slot().soPin}};
};

TEST_P(TranscriptsTest, EachCallLeavesWhatItHasTo) {
    const std::string file = std::string("transcripts/") + GetParam();
    const std::string before = wanted(file);
    std::istringstream lines(before);
    std::string after;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# ") || line.empty()) after += line + "\n";
        if (!line.starts_with("> ")) continue;
        after += line + "\n";
        for (const auto& [name, text] : m_names) replaceAll(line, name, text);
        Words words = columnsOf(line.substr(2));
        words.resize(5);
        after += act(words);
    }
    for (const auto& [name, text] : m_names) replaceAll(after, text, name);
    EXPECT_EQ(after, before);
    if (std::getenv("MERVANE_WRITE_TRANSCRIPTS") != nullptr) std::ofstream(std::string(MERVANE_SOURCE) + "/tests/data/" + file + ".txt") << after;
}

INSTANTIATE_TEST_SUITE_P(Calls, TranscriptsTest, testing::Values("loading", "sessions", "login", "administration", "discovery", "objects", "certificates"),
                         [](const auto& file) { return std::string(file.param); });

}  // namespace
}  // namespace mervane::test

// Modules of a machine made for the test, PKCS #11 URIs, and the tokens of discovery documents.

#include <dlfcn.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "foundation/json/clsjsonobject.h"
#include "foundation/log/logger.h"
#include "locate/readers.h"
#include "locate/search.h"
#include "locate/tokens.h"
#include "tests/fake/pcsc.h"
#include "tests/support.h"

namespace mervane::test {
namespace {

using testing::AllOf;
using testing::EndsWith;

TEST(UriTest, IsReadAndWrittenAsTheRfcHasIt) {
    std::ifstream rows(MERVANE_SOURCE "/tests/data/uris.txt");
    int numRows = 0;
    for (std::string line; std::getline(rows, line);) {
        const auto bar = line.find(" | ");
        if (line.starts_with("#") || bar == std::string::npos) continue;
        const std::string text = line.substr(0, bar);
        const std::string wanted = line.substr(bar + 3);
        Pkcs11Uri uri;
        _mvLogger log;
        uri.token = "before";
        const bool isRead = uri.parse(text, log);
        EXPECT_EQ(isRead, !wanted.starts_with("!")) << text << log.text();
        EXPECT_EQ(uri.text(), isRead ? wanted : "pkcs11:") << text;
        EXPECT_THAT(log.firstError(), EndsWith(isRead ? "" : wanted.substr(1))) << text;
        ++numRows;
    }
    EXPECT_GT(numRows, 30);
}

TEST(UriTest, NamesWhatATokenChoiceCanSay) {
    Pkcs11Uri uri;
    LogNull log;
    ASSERT_TRUE(uri.parse("pkcs11:token=t;serial=s;manufacturer=m;model=o;slot-id=4294967296", log));
    const TokenChoice choice = uri.tokenChoice();
    EXPECT_EQ(choice.label, "t");
    EXPECT_EQ(choice.serialNumber, "s");
    EXPECT_EQ(choice.manufacturer, "m");
    EXPECT_EQ(choice.model, "o");
    EXPECT_EQ(choice.slotId, 4294967296U);
    EXPECT_TRUE(uri.namesToken());
    EXPECT_FALSE(uri.namesObject());
    EXPECT_FALSE(uri.parse(std::string(70000, 'p'), log));
}

// A machine of its own: folders for configuration and modules.
class ModulesTest : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::remove_all(root);
        for (const char* folder : {"package", "system", "user", "lib/pkcs11", "other"}) std::filesystem::create_directories(root / folder);
        places.configuration = {root / "system/pkcs11.conf", root / "package", root / "system", root / "user/pkcs11.conf", root / "user"};
        places.defaultFolder = root / "lib/pkcs11";
        places.folders = {root / "lib*/pkcs11"};
        places.program = "tester";
        places.withCardDatabase = false;
    }

    void write(const std::string& name, const std::string& text) const { std::ofstream(root / name) << text; }
    void install(const std::string& name) const { std::filesystem::copy_file(MERVANE_PLAIN_LIBRARY, root / name); }
    void search() {
        modules.clear();
        complaints.clear();
        searchModules(places, modules, complaints);
    }
    // The names in order, with a letter for what is said of each.
    [[nodiscard]] std::string listed() const {
        std::string out;
        for (const ModuleInfo& m : modules)
            out += (out.empty() ? "" : " ") + m.name + (m.isTrust ? "/t" : "") + (m.isForwarder ? "/f" : "") + (m.isDisabled ? "/d" : "") +
                   (m.remote.empty() ? "" : "/r") + (m.obstacle.empty() ? "" : "/o") + (m.isUsable() ? "" : "-");
        return out;
    }

    const std::filesystem::path root = scratchFolder() + "/machine";
    ModulePlaces places;
    std::vector<ModuleInfo> modules;
    std::vector<std::string> complaints;
};

TEST_F(ModulesTest, ComeFromConfigurationAndFoldersOnceEachByPriority) {
    for (const char* name :
         {"lib/pkcs11/liba-pkcs11.so", "lib/pkcs11/b_pkcs11.so.1", "other/c.so", "lib/pkcs11/p11-kit-proxy.so", "lib/pkcs11/onepin-opensc-pkcs11.so"})
        install(name);
    std::filesystem::create_symlink("liba-pkcs11.so", root / "lib/pkcs11/link-to-a.so");
    write("lib/pkcs11/text.so", "no library");
    write("package/c.module", "module: " + (root / "other/c.so").string() + "\npriority: -1\nx-init-reserved: configdir='x'\n");
    write("package/trust.module", "# anchors\n\n  module :  b_pkcs11.so.1 \ntrust-policy: yes\npriority: 5\n");
    write("package/gone.module", "module: /nowhere/libgone.so\n");
    write("package/far.module", "remote: |ssh there p11-kit remote x.so\n");
    write("package/none.module", "module:\n");
    write("package/readme.txt", "module: liba-pkcs11.so\n");
    search();
    EXPECT_EQ(listed(), "b/t far/r- gone/o- a onepin-opensc/f- p11-kit-proxy/f- text/o- c");
    EXPECT_THAT(complaints, IsEmpty());
    EXPECT_EQ(modules.back().initArgs, "configdir='x'");
    ::chmod((root / "other/c.so").c_str(), 0777);
    search();
    EXPECT_EQ(modules.back().obstacle, "every user of this machine can change it");
    EXPECT_EQ(modules[3].path, root / "lib/pkcs11/liba-pkcs11.so");
    EXPECT_EQ(modules[3].learntFrom, root / "lib/pkcs11");
    EXPECT_EQ(modules[0].learntFrom, root / "package/trust.module");
    EXPECT_EQ(nameOf(modules[0].origin), "configuration");
    for (const char* name : {"a", "A", "liba", "a-pkcs11", "liba-pkcs11.so", "LIBA-PKCS11.SO"}) EXPECT_TRUE(isNamed(modules[3], name)) << name;
    for (const char* name : {"", "b", "lib"}) EXPECT_FALSE(isNamed(modules[3], name)) << name;
}

TEST_F(ModulesTest, UserComesBeforeSystemBeforePackageFieldByField) {
    install("lib/pkcs11/a.so");
    install("other/c.so");
    places.folders.clear();
    const auto only = [&](const std::string& conf) {
        write("user/pkcs11.conf", conf);
        search();
        return modules.empty() ? std::string("none") : listed() + " " + std::to_string(modules[0].priority);
    };
    write("package/m.module", "module: a.so\npriority: 1\n");
    write("system/m.module", "priority: 2\ndisable-in: other, tester\n");
    EXPECT_EQ(only(""), "a/d- 2");
    write("user/m.module", "disable-in: other\npriority: 3\n");
    EXPECT_EQ(only(""), "a 3");
    EXPECT_EQ(only("user-config: only"), "none");  // names no module
    EXPECT_EQ(only("user-config: none"), "a/d- 2");
    write("system/pkcs11.conf", "user-config: none\n");
    EXPECT_EQ(only("user-config: merge"), "a/d- 2");
    std::filesystem::remove(root / "system/pkcs11.conf");
    write("user/m.module", "module:\n");  // switched off
    EXPECT_EQ(only(""), "none");
    write("user/m.module", "enable-in: ssh tester\ndisable-in:\n");
    EXPECT_EQ(only(""), "a 2");
    write("user/m.module", "enable-in: ssh\ndisable-in:\n");
    EXPECT_EQ(only(""), "a/d- 2");
    places.configuration.userFolder.clear();  // a set-user-ID program
    EXPECT_EQ(only(""), "a/d- 2");
}

TEST_F(ModulesTest, HostileConfigurationIsToldAndNotUsed) {
    install("lib/pkcs11/a.so");
    places.folders.clear();
    const std::string good = "module: a.so\n";
    const std::pair<std::string, std::string> files[] = {
        {good + "what is this\n", "it has something other than \"name: value\" in line 2."},
        {good + "a b: c\n", "it has something other than \"name: value\" in line 2."},
        {"module: a\x1b[2J.so\n", "it has a control character in line 1."},
        {std::string("module: a.so\0\n", 14), "it has a control character in line 1."},
        {"module: \xff.so\n", "it has bytes that are not UTF-8 in line 1."},
        {good + std::string(70000, '\n'), "it is larger than 64 KiB."},
    };
    for (const auto& [text, why] : files) {
        write("package/m.module", text);
        search();
        EXPECT_EQ(listed(), "");
        EXPECT_THAT(complaints, ElementsAre(AllOf(testing::StartsWith((root / "package/m.module").string() + " is not used: "), EndsWith(why))));
    }
    write("package/m.module", good);
    const auto why = [&] {
        search();
        EXPECT_EQ(listed(), "");
        return complaints.size() == 1 ? complaints[0].substr(complaints[0].find(": ") + 2) : std::string("?");
    };
    ::chmod((root / "package/m.module").c_str(), 0666);
    EXPECT_EQ(why(), "it can be changed by every user of this machine.");
    ::chmod((root / "package/m.module").c_str(), 0644);
    ::chmod((root / "package").c_str(), 0777);
    EXPECT_EQ(why(), "it can be changed by every user of this machine.");
    ::chmod((root / "package").c_str(), 0755);
    std::filesystem::rename(root / "package/m.module", root / "other/m");
    std::filesystem::create_symlink("m.module", root / "package/m.module");
    EXPECT_THAT(why(), testing::StartsWith("it cannot be read: "));  // a loop of links
    std::filesystem::remove(root / "package/m.module");
    ASSERT_EQ(::mkfifo((root / "package/m.module").c_str(), 0600), 0);
    EXPECT_EQ(why(), "it is no regular file.");
    std::filesystem::remove(root / "package/m.module");
    for (int i = 0; i < 300; ++i) write("package/" + std::to_string(i) + ".module", good);
    search();
    EXPECT_EQ(listed(), "a");
    EXPECT_EQ(complaints.size(), 1U);
}

ModuleInfo moduleAt(const std::string& path) {
    ModuleInfo module;
    module.path = path;
    module.name = moduleNameOf(path);
    return module;
}

std::vector<LocatedToken> tokensOf(const std::string& json, const std::string& path = "/m.so") {
    ClsJsonObject document;
    LogNull log;
    std::vector<LocatedToken> tokens;
    EXPECT_TRUE(document.loadJson(json, log));
    addTokens(document.root(), moduleAt(path), tokens);
    return tokens;
}

constexpr const char* kDiscovery = R"({"manufacturer":"M","libraryDescription":"D","libraryVersion":"1.2","slots":[
  {"slotId":7,"description":"S","manufacturer":"T","flags":["token-present"],"token":{"label":"l","serialNumber":"s","manufacturer":"m","model":"o",
   "flags":["token-initialized","user-pin-locked","0x80000000"],"pin":{"min":4,"max":null}}},
  {"slotId":8,"flags":["hw-slot"]},{"slotId":9},{"flags":["token-present"],"token":{"label":"x"}},5]})";

TEST(LocatedTokenTest, IsReadFromADiscoveryDocument) {
    const auto tokens = tokensOf(kDiscovery);
    ASSERT_EQ(tokens.size(), 2U);
    const TokenInfo& token = tokens[0].token;
    EXPECT_TRUE(token.isReadable && token.isInitialised && token.userPin.isLocked && !token.needsLogin);
    EXPECT_EQ(token.minPinLength, 4U);
    EXPECT_FALSE(token.maxPinLength);
    EXPECT_EQ(uriOf(token).text(), "pkcs11:model=o;manufacturer=m;serial=s;token=l");
    EXPECT_FALSE(tokens[1].token.isReadable || tokens[1].token.userPin.isLocked || tokens[1].token.userPin.mustChange);
    EXPECT_EQ(tokens[1].token.slotId, 9U);
    for (const char* json : {"{}", "[]", R"({"slots":{}})", R"({"slots":[{"slotId":-1},{"slotId":"1"},{"slotId":1.5e99}]})"})
        EXPECT_THAT(tokensOf(json), IsEmpty()) << json;
}

TEST(LocatedTokenTest, FitsEachAttributeOfAUri) {
    const auto tokens = tokensOf(kDiscovery);
    for (const char* attribute : {"token=l", "serial=s", "manufacturer=m", "model=o", "slot-id=7", "slot-description=S", "slot-manufacturer=T",
                                  "library-description=D", "library-manufacturer=M", "library-version=1.2", "id=%01", "?module-name=m", "?module-path=/m.so"}) {
        Pkcs11Uri uri;
        LogNull log;
        ASSERT_TRUE(uri.parse(std::string("pkcs11:") + attribute, log));
        EXPECT_TRUE(fits(uri, tokens[0])) << attribute;
        EXPECT_FALSE(fits(uri, tokens[1])) << attribute;
        std::string another = attribute;
        another.back() = '3';
        ASSERT_TRUE(uri.parse("pkcs11:" + another, log));
        EXPECT_EQ(fits(uri, tokens[0]), another.starts_with("id")) << another;
    }
}

TEST(LocatedTokenTest, OfTwoModulesIsListedOnce) {
    auto tokens = tokensOf(kDiscovery, "/a.so");
    for (const char* path : {"/b.so", "/a.so"}) std::ranges::copy(tokensOf(kDiscovery, path), std::back_inserter(tokens));
    removeRepeated(tokens);
    // Two of one module are two, and what cannot be read may be another.
    EXPECT_EQ(tokens.size(), 5U);
    EXPECT_EQ(tokens[0].module.path, "/a.so");
}

TEST(LocatedTokenTest, ListsTheTokensOfAllModulesAndTheModulesThatFail) {
    const FakeModule one("libone.so");
    const FakeModule two("libtwo.so");
    const FakeModule trust("libtrust.so");
    one.world().slots = {{.id = 1, .label = "first"}};
    two.world().wantsText = "configdir='x'";
    two.world().slots = {{.id = 2, .label = "second"}};
    trust.world().slots = {{.id = 3, .label = "third"}};
    std::vector<ModuleInfo> modules = {moduleAt(trust.path()), moduleAt(one.path()), moduleAt(two.path()), moduleAt("/nowhere.so"), moduleAt(one.path())};
    modules[0].isTrust = true;
    modules[4].isForwarder = true;
    std::vector<LocatedToken> tokens;
    std::vector<std::string> failures;
    LogNull log;
    const auto labels = [&] {
        EXPECT_TRUE(listAllTokens(modules, tokens, failures, log));
        std::string out;
        for (const LocatedToken& located : tokens) out += located.token.label + " ";
        return out;
    };
    EXPECT_EQ(labels(), "first third ");
    EXPECT_THAT(failures, ElementsAre("two: C_Initialize failed with CKR_ARGUMENTS_BAD (0x7).", "nowhere: /nowhere.so does not exist."));
    modules[2].initArgs = "configdir='x'";
    EXPECT_EQ(labels(), "first second third ");
    EXPECT_EQ(failures.size(), 1U);
    EXPECT_EQ(one.world().sessions.size() + one.world().initialized, 0U);
}

TEST(InitArgsTest, ReachTheModuleAndOutliveTheObject) {
    const FakeModule module("libargs.so");
    module.world().wantsText = "configdir='sql:/x' flags=readOnly";
    for (int i = 0; i < 2; ++i) {
        Pkcs11 p11;
        XString args;
        p11.put_SharedLibPath(XString(module.path()));
        EXPECT_FALSE(p11.Initialize());
        EXPECT_THAT(p11.lastFailure().hint, HasSubstr("InitArgs"));
        p11.put_InitArgs(XString("configdir='sql:/y'"));
        module.world().journal.clear();
        EXPECT_FALSE(p11.Initialize());
        EXPECT_EQ(module.world().count("C_Initialize"), 1U);  // no second try without them
        EXPECT_EQ(p11.lastFailure().hint, "The module refuses these initialisation arguments.");
        p11.put_InitArgs(XString(module.world().wantsText));
        EXPECT_TRUE(p11.Initialize());
        p11.get_InitArgs(args);
        EXPECT_EQ(args.view(), module.world().wantsText);
        EXPECT_THAT(p11.log().text(), Not(HasSubstr("configdir='sql:/x'")));
    }
}

TEST(ReadersTest, AreWhatPcscSaysAsFarAsItMakesSense) {
    void* const library = ::dlopen(MERVANE_FAKE_PCSC, RTLD_NOW);
    ASSERT_NE(library, nullptr) << ::dlerror();
    fake::Pcsc& pcsc = *reinterpret_cast<fake::Pcsc* (*)()>(::dlsym(library, "fakePcsc"))();
    const std::string two("Reader A\0Reader \xff\0\0", 19);
    // The state and the number of readers, and of the first its name, card and the length of its ATR.
    const auto seen = [&] {
        ReaderList list;
        LogNull log;
        EXPECT_TRUE(listReaders(list, log));
        EXPECT_EQ(pcsc.numOpen, 0);
        std::string out = std::string(nameOf(list.state)) + " " + std::to_string(list.readers.size());
        if (list.readers.empty()) return out;
        const CardReader& first = list.readers.front();
        return out + " " + first.name + " " + std::string(nameOf(first.card)) + " " + std::to_string(first.atr.size()) + (first.isInUse ? " in use" : "");
    };
    const std::pair<fake::Pcsc, std::string> rows[] = {
        {{.establish = 0x8010001D}, "noDaemon 0"},
        {{.establish = static_cast<int>(0x8010001D)}, "noDaemon 0"},  // widened with its sign
        {{.establish = 0x8010001E}, "noDaemon 0"},
        {{.establish = 0x80100001}, "failed 0"},
        {{.list = 0x8010002E}, "noReader 0"},
        {{.names = std::string(1, '\0')}, "noReader 0"},
        {{.status = 0x80100001, .names = two}, "failed 0"},
        {{.names = two}, "ready 2 Reader A unknown 0"},
        {{.names = two, .eventState = 0x10, .atrSize = 20}, "ready 2 Reader A none 0"},
        {{.names = two, .eventState = 0x20, .atrSize = 20}, "ready 2 Reader A present 40"},
        {{.names = two, .eventState = 0x120, .atrSize = 20}, "ready 2 Reader A present 40 in use"},
        {{.names = two, .eventState = 0xA0, .atrSize = 20}, "ready 2 Reader A present 40 in use"},
        {{.names = two, .eventState = 0x20, .atrSize = 1UL << 40}, "ready 2 Reader A present 66"},
        {{.names = two, .eventState = 0x20}, "ready 2 Reader A mute 0"},
        {{.names = two, .eventState = 0x220, .atrSize = 20}, "ready 2 Reader A mute 0"},
        {{.names = "no end"}, "noReader 0"},
        {{.names = std::string("\xff\0\0", 3)}, "ready 1 \uFFFD unknown 0"},
        {{.names = two, .claimedSize = ~0UL}, "ready 2 Reader A unknown 0"},
        {{.names = two, .claimedSize = 3}, "failed 0"},
        {{.names = two, .isGrowing = true}, "ready 3 One more unknown 0"},
        {{.names =
              [] {
                  std::string many;
                  for (int i = 0; i < 300; ++i) many += std::string("R\0", 2);
                  return many + std::string(1, '\0');
              }()},
         "ready 256 R unknown 0"},
    };
    for (const auto& [answers, wanted] : rows) {
        pcsc = answers;
        EXPECT_EQ(seen(), wanted) << &answers - &rows[0].first;
    }
}

TEST(CardInfoTest, KnowsCardsWithoutALinuxDriver) {
    _mvLogger log;
    CardInfo card;
    EXPECT_TRUE(findCardInfo("3bb813008131fa524348544d4f494341a5", card, log));
    EXPECT_EQ(card.name, "MOICA Citizen Digital Certificate");
    EXPECT_TRUE(card.isKnown && card.isReadOnly && card.paths.empty());
    EXPECT_TRUE(findCardInfo("3B00", card, log));
    EXPECT_FALSE(card.isKnown || !card.name.empty());
}

}  // namespace
}  // namespace mervane::test

#include "tests/support.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "foundation/text/ascii.h"
#include "foundation/text/hex.h"

namespace mervane::test {
namespace {

fake::Bytes toBytes(std::span<const std::uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }

fake::Object objectOf(CK_OBJECT_HANDLE handle, CK_ULONG kind, const std::string& id, const std::string& label) {
    fake::Object object{.handle = handle};
    object.attributes = {{CKA_CLASS, fake::bytesOf(kind)}, {CKA_ID, fake::bytesOf(id.c_str())}, {CKA_LABEL, fake::bytesOf(label.c_str())}};
    return object;
}

}  // namespace

std::vector<std::string> Pkcs11::lines(_mvLogger::Entry::What what) const {
    std::vector<std::string> out;
    m_log.forEach([&](const _mvLogger::Entry& entry) {
        const std::string head = what == _mvLogger::Entry::What::Data ? std::string(entry.name) + "=" : "";
        if (entry.what == what) out.push_back(head + std::string(entry.text));
    });
    return out;
}

const std::string& scratchFolder() {
    struct Folder {
        ~Folder() {
            std::error_code error;
            if (owner == ::getpid()) std::filesystem::remove_all(path, error);  // not in a forked child
        }
        std::string path = std::filesystem::path(MERVANE_FAKE_MODULE).replace_filename("scratch-XXXXXX");
        const char* made = ::mkdtemp(path.data());
        pid_t owner = ::getpid();
    };
    static const Folder folder;
    return folder.path;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string wantedLog(const std::string& name) { return readFile(std::string(MERVANE_SOURCE) + "/tests/data/logs/" + name + ".txt"); }

std::vector<std::vector<std::string>> dataRows(const std::string& file) {
    std::ifstream in(std::string(MERVANE_SOURCE) + "/tests/data/" + file);
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("# ")) continue;
        rows.emplace_back();
        std::istringstream columns(line + "|");
        for (std::string column; std::getline(columns, column, '|');) {
            column = trimmed(column);
            for (std::size_t at = 0; (at = column.find('%', at)) != std::string::npos; ++at) {
                column.replace(at, 3, 1, static_cast<char>(fromHex(column.substr(at + 1, 2)).value()[0]));
            }
            rows.back().push_back(column);
        }
    }
    EXPECT_GE(rows.size(), 15U) << file;
    return rows;
}

FakeModule::FakeModule(const std::string& fileName) : m_path(scratchFolder() + "/" + fileName) {
    if (!std::filesystem::exists(m_path)) std::filesystem::copy_file(MERVANE_FAKE_MODULE, m_path);
    void* const library = ::dlopen(m_path.c_str(), RTLD_NOW);  // stays mapped: its world is used to the end
    if (library == nullptr) throw std::runtime_error(::dlerror());
    m_world = reinterpret_cast<fake::World* (*)()>(::dlsym(library, "fakeWorld"))();
    m_world->reset();
}

fake::Bytes certDer(const std::string& name) {
    const std::string der = readFile(std::string(MERVANE_TEST_CERTS) + "/" + name + ".der");
    EXPECT_FALSE(der.empty()) << name;
    return {der.begin(), der.end()};
}

std::shared_ptr<Certificate> loadCert(const std::string& name) {
    LogNull log;
    return Certificate::createFromDer(certDer(name), log);
}

fake::Object certObject(CK_OBJECT_HANDLE handle, const std::string& cert, const std::string& id) {
    fake::Object object = objectOf(handle, CKO_CERTIFICATE, id, cert);
    object.attributes[CKA_CERTIFICATE_TYPE] = fake::bytesOf(CKC_X_509);
    object.attributes[CKA_VALUE] = certDer(cert);
    return object;
}

fake::Object keyObject(CK_OBJECT_HANDLE handle, const std::string& cert, const KeyTraits& traits) {
    LogNull log;
    const auto parsed = loadCert(cert);
    _mvPublicKey key;
    DataBuffer subject;
    EXPECT_TRUE(parsed->getCertPublicKey(key, log) && parsed->getPartDer(1, subject, log));
    fake::Object object = objectOf(handle, CKO_PRIVATE_KEY, traits.id, cert);
    object.isPrivate = true;
    object.attributes[CKA_KEY_TYPE] = fake::bytesOf(key.getRsaKey() != nullptr ? CKK_RSA : CKK_EC);
    object.attributes[CKA_SIGN] = fake::bytesOf(traits.maySign);
    object.attributes[CKA_ALWAYS_AUTHENTICATE] = fake::bytesOf(false);
    if (traits.withSubject) object.attributes[CKA_SUBJECT] = toBytes(subject.span());
    if (traits.withModulus) object.attributes[CKA_MODULUS] = toBytes(key.getRsaKey()->modulus.bytes());
    if (traits.modulusWithZero) object.attributes[CKA_MODULUS].insert(object.attributes[CKA_MODULUS].begin(), 0);
    return object;
}

fake::Object ecPublicObject(CK_OBJECT_HANDLE handle, const std::string& cert, const std::string& id, bool wrapped) {
    LogNull log;
    _mvPublicKey key;
    DataBuffer exported;
    EXPECT_TRUE(loadCert(cert)->getCertPublicKey(key, log) && key.getEccKey()->exportEccPoint(exported, log));
    fake::Bytes point = toBytes(exported.span());
    if (wrapped) {
        const fake::Bytes head = point.size() < 128 ? fake::Bytes{0x04} : fake::Bytes{0x04, 0x81};
        point.insert(point.begin(), static_cast<unsigned char>(point.size()));
        point.insert(point.begin(), head.begin(), head.end());
    }
    fake::Object object = objectOf(handle, CKO_PUBLIC_KEY, id, cert);
    object.attributes[CKA_KEY_TYPE] = fake::bytesOf(CKK_EC);
    object.attributes[CKA_EC_POINT] = point;
    return object;
}

const std::vector<PublicCall>& publicCalls() {
    static const XString userPin(fake::Slot().userPin);
    static ClsJsonObject json;
    static const std::vector<PublicCall> calls = {
        {"Initialize", [](Pkcs11& p) { return p.Initialize(); }},
        {"QuickSession", [](Pkcs11& p) { return p.QuickSession(1, userPin); }},
        {"Discover", [](Pkcs11& p) { return p.Discover(true, json); }},
        {"OpenSession", [](Pkcs11& p) { return p.OpenSession(-1, true); }},
        {"CloseSession", [](Pkcs11& p) { return p.CloseSession(); }},
        {"Login", [](Pkcs11& p) { return p.Login(1, userPin); }},
        {"Logout", [](Pkcs11& p) { return p.Logout(); }},
        {"SetPin", [](Pkcs11& p) { return p.SetPin(userPin, userPin); }},
        {"InitPin", [](Pkcs11& p) { return p.InitPin(userPin); }},
        {"FindCert_pkcs11", [](Pkcs11& p) { return p.InitToken(9, userPin, XString("l")); }},
        {"FindObject", [](Pkcs11& p) { return json.clear(p.log()), p.FindObject(json) != 0; }},
        {"FindAllKeys", [](Pkcs11& p) { return p.FindAllKeys(XString(), json); }},
        {"FindAllCerts", [](Pkcs11& p) { return p.FindAllCerts(); }},
        {"FindCert_pkcs11", [](Pkcs11& p) { return p.FindCert(XString(), XString(), *std::make_unique<ClsCert>()); }},
        {"GetCert_pkcs11", [](Pkcs11& p) { return p.GetCert(0, *std::make_unique<ClsCert>()); }},
    };
    return calls;
}

FakeTest::FakeTest() { p11->put_SharedLibPath(XString(module.path())); }

void FakeTest::forget() {
    p11->log().clear();
    world.journal.clear();
}

std::string FakeTest::cn(ClsCert& cert) {
    LogNull log;
    XString text;
    const auto held = cert.getCert();
    if (held) held->getSubjectPart("CN", text, log);
    return std::string(text.view());
}

void FakeTest::TearDown() {
    // Scripts may refer to locals of the test, which are gone.
    world.answer = nullptr;
    world.lie = nullptr;
    if (p11) {
        const std::string log = p11->log().text();
        for (const fake::Slot& slot : world.slots) {
            EXPECT_THAT(log, Not(HasSubstr(slot.userPin)));
            EXPECT_THAT(log, Not(HasSubstr(slot.soPin)));
        }
        EXPECT_EQ(p11->log().contextDepth(), 0);
        EXPECT_THAT(world.searches, IsEmpty());
    }
    p11.reset();
    EXPECT_EQ(world.numOpened, world.numClosed);
    EXPECT_THAT(world.violations, IsEmpty());
}

}  // namespace mervane::test

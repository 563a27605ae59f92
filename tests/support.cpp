#include "tests/support.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace mervane::test {
namespace {

std::string publicPoint(const Certificate& cert) {
    LogNull log;
    _mvPublicKey key;
    DataBuffer point;
    if (cert.getCertPublicKey(key, log) && key.getEccKey() != nullptr) key.getEccKey()->exportEccPoint(point, log);
    return {point.span().begin(), point.span().end()};
}

fake::Bytes toBytes(std::span<const std::uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }

}  // namespace

std::vector<std::string> Pkcs11::lines(_mvLogger::Entry::What what) const {
    std::vector<std::string> out;
    m_log.forEach([&](const _mvLogger::Entry& entry) {
        if (entry.what != what) return;
        const bool isValue = what == _mvLogger::Entry::What::Data;
        out.push_back((isValue ? std::string(entry.name) + "=" : std::string()) + std::string(entry.text));
    });
    return out;
}

const std::string& scratchFolder() {
    struct Folder {
        Folder() {
            std::string pattern = std::filesystem::temp_directory_path() / "mervane-test-XXXXXX";
            path = ::mkdtemp(pattern.data());
        }
        ~Folder() {
            if (owner != ::getpid()) return;  // a forked child
            std::error_code error;
            std::filesystem::remove_all(path, error);
        }
        std::string path;
        pid_t owner = ::getpid();
    };
    static const Folder folder;
    return folder.path;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

FakeModule::FakeModule(const std::string& fileName) : m_path(scratchFolder() + "/" + fileName) {
    if (!std::filesystem::exists(m_path)) std::filesystem::copy_file(MERVANE_FAKE_MODULE, m_path);
    void* const library = ::dlopen(m_path.c_str(), RTLD_NOW);  // stays mapped: its world is used to the end
    if (library == nullptr) throw std::runtime_error(::dlerror());
    const auto getWorld = reinterpret_cast<fake::World* (*)()>(::dlsym(library, "fakeWorld"));
    m_world = getWorld();
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
    fake::Object object{handle, {}, {}, false};
    object.attributes[CKA_CLASS] = fake::bytesOf(CKO_CERTIFICATE);
    object.attributes[CKA_CERTIFICATE_TYPE] = fake::bytesOf(CKC_X_509);
    object.attributes[CKA_VALUE] = certDer(cert);
    object.attributes[CKA_ID] = fake::bytesOf(id.c_str());
    object.attributes[CKA_LABEL] = fake::bytesOf(cert.c_str());
    return object;
}

fake::Object keyObject(CK_OBJECT_HANDLE handle, const std::string& cert, const KeyTraits& traits) {
    LogNull log;
    const auto parsed = loadCert(cert);
    _mvPublicKey key;
    DataBuffer subject;
    EXPECT_TRUE(parsed->getCertPublicKey(key, log));
    parsed->getPartDer(1, subject, log);
    const bool isRsa = key.getRsaKey() != nullptr;
    fake::Object object{handle, {}, {}, true};
    object.attributes[CKA_CLASS] = fake::bytesOf(CKO_PRIVATE_KEY);
    object.attributes[CKA_KEY_TYPE] = fake::bytesOf(isRsa ? CKK_RSA : CKK_EC);
    object.attributes[CKA_SIGN] = fake::bytesOf(traits.maySign);
    object.attributes[CKA_ALWAYS_AUTHENTICATE] = fake::bytesOf(false);
    object.attributes[CKA_LABEL] = fake::bytesOf(cert.c_str());
    object.attributes[CKA_ID] = fake::bytesOf(traits.id.c_str());
    if (traits.withSubject) object.attributes[CKA_SUBJECT] = toBytes(subject.span());
    if (traits.withModulus) {
        fake::Bytes modulus = toBytes(key.getRsaKey()->modulus.bytes());
        if (traits.modulusWithZero) modulus.insert(modulus.begin(), 0);
        object.attributes[CKA_MODULUS] = modulus;
    }
    return object;
}

fake::Object ecPublicObject(CK_OBJECT_HANDLE handle, const std::string& cert, const std::string& id, bool wrapped) {
    std::string point = publicPoint(*loadCert(cert));
    if (wrapped) {
        std::string head = point.size() < 128 ? "\x04" : "\x04\x81";
        head.push_back(static_cast<char>(point.size()));
        point.insert(0, head);
    }
    fake::Object object{handle, {}, {}, false};
    object.attributes[CKA_CLASS] = fake::bytesOf(CKO_PUBLIC_KEY);
    object.attributes[CKA_KEY_TYPE] = fake::bytesOf(CKK_EC);
    object.attributes[CKA_ID] = fake::bytesOf(id.c_str());
    object.attributes[CKA_EC_POINT] = {point.begin(), point.end()};
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
        {"FindObject",
         [](Pkcs11& p) {
             json.clear(p.log());
             return p.FindObject(json) != 0;
         }},
        {"FindAllKeys", [](Pkcs11& p) { return p.FindAllKeys(XString(), json); }},
        {"FindAllCerts", [](Pkcs11& p) { return p.FindAllCerts(); }},
        {"FindCert_pkcs11",
         [](Pkcs11& p) {
             ClsCert cert;
             return p.FindCert(XString(), XString(), cert);
         }},
        {"GetCert_pkcs11",
         [](Pkcs11& p) {
             ClsCert cert;
             return p.GetCert(0, cert);
         }},
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

#include "tests/support.h"

#include <dlfcn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
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

std::string said(bool ok) { return ok ? "true" : "false"; }
std::string said(int handle) { return std::to_string(handle); }
int number(const std::string& word) { return static_cast<int>(std::stoll(word, nullptr, 0)); }

template <class Call>
std::string withJson(Call call, const std::string& before) {
    ClsJsonObject json;
    json.loadJson(before, json.log());
    const std::string result = said(call(json));
    return result + " " + json.emit();
}

template <class Call>
std::string withCert(Call call) {
    ClsCert cert;
    const std::string result = said(call(cert));
    return result + " " + cn(cert) + (cert.HasPrivateKey() ? ", with its key" : "");
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

std::string wanted(const std::string& name) { return readFile(std::string(MERVANE_SOURCE) + "/tests/data/" + name + ".txt"); }

std::vector<std::string> columnsOf(const std::string& line) {
    std::vector<std::string> out;
    std::istringstream columns(line + "|");
    for (std::string column; std::getline(columns, column, '|');) {
        column = trimmed(column);
        for (std::size_t at = 0; (at = column.find('%', at)) != std::string::npos; ++at) {
            column.replace(at, 3, 1, static_cast<char>(fromHex(column.substr(at + 1, 2)).value()[0]));
        }
        out.push_back(column);
    }
    return out;
}

std::vector<std::vector<std::string>> dataRows(const std::string& file) {
    std::ifstream in(std::string(MERVANE_SOURCE) + "/tests/data/" + file);
    std::vector<std::vector<std::string>> rows;
    for (std::string line; std::getline(in, line);) {
        if (!line.starts_with("# ")) rows.push_back(columnsOf(line));
    }
    EXPECT_FALSE(rows.empty()) << file;
    return rows;
}

FakeModule::FakeModule(const std::string& fileName) : m_path(scratchFolder() + "/" + fileName) {
    if (!std::filesystem::exists(m_path)) std::filesystem::copy_file(MERVANE_FAKE_MODULE, m_path);
    void* const library = ::dlopen(m_path.c_str(), RTLD_NOW);  // stays mapped: its world is used until exit
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

// The traits fromYY and untilYY. A year is two digits in front of a UTCTime.
static void setValidity(fake::Bytes& der, const std::string& traits) {
    const fake::Bytes time = {0x17, 13};
    auto at = der.begin();
    for (const char* const trait : {":from", ":until"}) {
        at = std::search(at, der.end(), time.begin(), time.end());
        if (at == der.end()) return;
        const auto found = traits.find(trait);
        const std::string year = found == std::string::npos ? "" : traits.substr(found + std::strlen(trait), 2);
        const std::string text = year + "0203040506Z";
        if (!year.empty()) std::ranges::copy(text, at + 2);
        at += 2;
    }
}

std::vector<fake::Object> objectsOf(const std::string& text) {
    std::vector<fake::Object> out;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        std::istringstream columns(word);
        std::string kind, cert, id;
        std::getline(std::getline(std::getline(columns, kind, ':'), cert, ':'), id, ':');
        const auto has = [&word](const std::string& trait) { return (word + ":").find(":" + trait + ":") != std::string::npos; };
        const CK_OBJECT_HANDLE handle = out.size() + 1;
        const KeyTraits traits{id, !has("nosign"), has("subject"), has("modulus"), has("zero")};
        out.push_back(kind == "cert"  ? certObject(handle, cert, id)
                      : kind == "key" ? keyObject(handle, cert, traits)
                                      : ecPublicObject(handle, cert, id, has("wrapped")));
        fake::Object& object = out.back();
        fake::Bytes& value = object.attributes[CKA_VALUE];
        const std::string acme = "Acme";
        if (has("unsaid")) object.attributes.erase(CKA_SIGN);
        if (has("private")) object.isPrivate = true;
        if (has("own")) object.attributes[CKA_EC_POINT] = ecPublicObject(0, cert, "", true).attributes[CKA_EC_POINT];
        if (has("malformed")) *(std::search(value.begin(), value.end(), acme.begin(), acme.end()) - 1) += 1;  // its length
        if (has("nonsense")) value = fake::bytesOf("no DER");
        if (has("wtls")) object.attributes[CKA_CERTIFICATE_TYPE] = fake::bytesOf(CK_ULONG{2});
        if (has("sensitive")) object.sensitive.insert(CKA_VALUE);
        if (has("padded")) value.resize(value.size() + 100);
        if (has("large")) value.resize(20000);
        setValidity(value, word);
        if (value.empty()) object.attributes.erase(CKA_VALUE);
    }
    return out;
}

const std::map<std::string, std::string (*)(Pkcs11&, const Words&)>& publicCalls() {
    static const char* const kOld = R"({"old":true})";
    static const std::map<std::string, std::string (*)(Pkcs11&, const Words&)> calls = {
        {"Initialize", [](auto& p, auto&) { return said(p.Initialize()); }},
        {"Discover", [](auto& p, auto& w) { return withJson([&](auto& json) { return p.Discover(w[1] == "tokens", json); }, kOld); }},
        {"OpenSession", [](auto& p, auto& w) { return said(p.OpenSession(number(w[1]), w[2] == "rw")); }},
        {"CloseSession", [](auto& p, auto&) { return said(p.CloseSession()); }},
        {"QuickSession", [](auto& p, auto& w) { return said(p.QuickSession(number(w[1]), XString(w[2]))); }},
        {"Login", [](auto& p, auto& w) { return said(p.Login(number(w[1]), XString(w[2]))); }},
        {"login", [](auto& p, auto& w) { return said(p.login(number(w[1]), w[2].c_str(), p.log())); }},
        {"alreadyLoggedIn", [](auto& p, auto& w) { return said(p.alreadyLoggedIn(number(w[1]), p.log())); }},
        {"Logout", [](auto& p, auto&) { return said(p.Logout()); }},
        {"SigContextPin",
         [](auto& p, auto&) {
             XString pin;
             return p.get_SigContextPin(pin), std::string(pin.view());
         }},
        {"SetPin", [](auto& p, auto& w) { return said(p.SetPin(XString(w[1]), XString(w[2]))); }},
        {"InitPin", [](auto& p, auto& w) { return said(p.InitPin(XString(w[1]))); }},
        {"InitToken", [](auto& p, auto& w) { return said(p.InitToken(number(w[1]), XString(w[2]), XString(w[3]))); }},
        {"FindObject", [](auto& p, auto& w) { return withJson([&](auto& json) { return p.FindObject(json); }, w[1]); }},
        {"FindAllKeys", [](auto& p, auto& w) { return withJson([&](auto& json) { return p.FindAllKeys(XString(w[1]), json); }, kOld); }},
        {"FindAllCerts", [](auto& p, auto&) { return said(p.FindAllCerts()); }},
        {"FindCert", [](auto& p, auto& w) { return withCert([&](auto& cert) { return p.FindCert(XString(w[1]), XString(w[2]), cert); }); }},
        {"GetCert", [](auto& p, auto& w) { return withCert([&](auto& cert) { return p.GetCert(number(w[1]), cert); }); }},
        {"NumCerts", [](auto& p, auto&) { return std::to_string(p.get_NumCerts()); }},
    };
    return calls;
}

using EvpKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

// Kept, since a test may ask for thousands of signatures, and not freed: OpenSSL has cleaned up by then.
static EVP_PKEY* keyPairOf(const std::string& cert) {
    static auto& keys = *std::make_unique<std::map<std::string, EvpKey>>().release();
    const auto known = keys.find(cert);
    if (known != keys.end()) return known->second.get();
    const std::string name = cert == "alice" ? "rsa" : cert == "bob" ? "rsa2" : cert;
    std::FILE* const file = std::fopen((std::string(MERVANE_TEST_CERTS) + "/" + name + ".key").c_str(), "r");
    EvpKey key(file == nullptr ? nullptr : PEM_read_PrivateKey(file, nullptr, nullptr, nullptr), &EVP_PKEY_free);
    if (file != nullptr) std::fclose(file);
    if (!key) throw std::runtime_error("no key pair: " + name);
    return keys.emplace(cert, std::move(key)).first->second.get();
}

fake::Bytes signedByOpenSsl(const fake::Object& object, const fake::Signing& signing) {
    const fake::Bytes& label = object.attributes.at(CKA_LABEL);
    EVP_PKEY* const key = keyPairOf({label.begin(), label.end()});
    // The hashing mechanisms are in rows of three: SHA-256, 384, 512.
    const CK_MECHANISM_TYPE m = signing.mechanism;
    const CK_MECHANISM_TYPE first = m >= CKM_ECDSA_SHA256 ? CKM_ECDSA_SHA256 : m >= CKM_SHA256_RSA_PKCS_PSS ? CKM_SHA256_RSA_PKCS_PSS : CKM_SHA256_RSA_PKCS;
    const bool isHashing = m != CKM_ECDSA && m >= first;
    const std::array hashes = {EVP_sha256(), EVP_sha384(), EVP_sha512()};
    const EVP_MD* const hash = isHashing ? hashes.at(m - first) : signing.pss ? hashes.at(signing.pss->mgf - CKG_MGF1_SHA256) : nullptr;
    fake::Bytes data = signing.data;
    if (isHashing) {
        unsigned size = 0;
        data.resize(EVP_MAX_MD_SIZE);
        EVP_Digest(signing.data.data(), signing.data.size(), data.data(), &size, hash, nullptr);
        data.resize(size);
    }
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(EVP_PKEY_CTX_new(key, nullptr), &EVP_PKEY_CTX_free);
    EVP_PKEY_sign_init(context.get());
    const bool isEc = EVP_PKEY_get_base_id(key) == EVP_PKEY_EC;
    if (!isEc) EVP_PKEY_CTX_set_rsa_padding(context.get(), signing.pss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING);
    if (!isEc && hash != nullptr) EVP_PKEY_CTX_set_signature_md(context.get(), hash);
    if (signing.pss) EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), static_cast<int>(signing.pss->sLen));
    fake::Bytes out(1024);
    std::size_t size = out.size();
    if (EVP_PKEY_sign(context.get(), out.data(), &size, data.data(), data.size()) != 1) return {};
    out.resize(size);
    if (!isEc) return out;
    const unsigned char* at = out.data();
    ECDSA_SIG* const pair = d2i_ECDSA_SIG(nullptr, &at, static_cast<long>(size));
    const int half = (EVP_PKEY_get_bits(key) + 7) / 8;  // on the curves used here, of the order as well
    fake::Bytes raw(2 * static_cast<std::size_t>(half));
    BN_bn2binpad(ECDSA_SIG_get0_r(pair), raw.data(), half);
    BN_bn2binpad(ECDSA_SIG_get0_s(pair), raw.data() + half, half);
    ECDSA_SIG_free(pair);
    return raw;
}

FakeTest::FakeTest() { p11->put_SharedLibPath(XString(module.path())); }

void FakeTest::forget() {
    p11->log().clear();
    world.journal.clear();
}

std::string cn(ClsCert& cert) {
    LogNull log;
    XString text;
    const auto held = cert.getCert();
    if (held) held->getSubjectPart("CN", text, log);
    return std::string(text.view());
}

void FakeTest::TearDown() {
    // Scripts may refer to the test's locals, which are gone.
    world.answer = nullptr;
    world.lie = nullptr;
    world.signer = nullptr;
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

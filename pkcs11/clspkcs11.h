#ifndef MERVANE_PKCS11_CLSPKCS11_H
#define MERVANE_PKCS11_CLSPKCS11_H

#include <span>
#include <vector>

#include "../foundation/core/clsbase.h"
#include "../foundation/json/clsjsonobject.h"
#include "../foundation/text/xstring.h"
#include "../foundation/x509/certificate.h"
#include "../foundation/x509/clscert.h"
#include "../signing/options.h"
#include "explanation.h"
#include "failure.h"
#include "records.h"
#include "signer.h"
#include "tokens.h"
#include "wrappers.h"

namespace mervane {

/// A PKCS#11 module in use: loads it, opens a session with a token, logs in, lists and chooses
/// certificates, finds the private key that belongs to one, and signs with it.
///
/// Failure is a false result, a handle of 0 or a null pointer, with the cause in lastFailure() and
/// error lines in the object's log; nothing is thrown. A line about a failed function of the module
/// names the function and the standard's CKR name. No PIN is ever logged.
///
/// Ownership: the object owns its session and its caches. Its destructor closes the session,
/// unlinks the certificates, and calls C_Finalize when it is the last of this process's objects
/// that use the module and one of them initialised it; the module's library stays mapped.
/// Certificates handed out stay valid and merely lose their link.
///
/// Thread rule: any thread may call any method; calls on one object run one after the other. Two
/// objects wait for each other only while one of them initialises or finalises the module that both
/// use, however long that takes. A module may call back into the object from within a call. A
/// thread is not cancelled while it is inside a module. After fork() the child has no session;
/// Initialize begins anew.
///
/// User types are PKCS#11's: 0 the security officer, 1 the normal user, 2 context-specific.
class ClsPkcs11 : public ClsBase, public Pkcs11SessionOwner, protected Pkcs11Wrappers {
  public:
    ClsPkcs11();
    ~ClsPkcs11() override;

    /// A new object that the caller owns (delete it); null when there is no memory.
    static ClsPkcs11* createNewCls() noexcept;

    /// Why the last public method failed; of kind None if it succeeded. Property accessors and
    /// get_NumCerts leave it as it is.
    [[nodiscard]] Failure lastFailure();

    /// Objects that the last public method could not read, or did not look at because the module
    /// lists more than it can hold; the log names them. 0: its lists are complete.
    [[nodiscard]] int get_NumLeftOut();

    // --- Module

    /// @{
    /// Path of the PKCS#11 module. It takes effect when a module is loaded next: by Discover, or by
    /// Initialize and QuickSession if none is initialised. Until then a module that is in use stays
    /// in use, and these methods say so in the log.
    void get_SharedLibPath(XString& out);
    void put_SharedLibPath(const XString& path);
    /// @}

    /// @{
    /// What C_Initialize gets when a module is initialised next; empty for nothing. NSS's modules
    /// need a text, such as "configdir='sql:/home/alice/.pki/nssdb'". It is not logged.
    void get_InitArgs(XString& out);
    void put_InitArgs(const XString& args);
    /// @}

    /// Loads the module and initialises it. True at once when that is done already.
    bool Initialize();

    /// Loads and initialises the module as needed and describes it and its slots (with
    /// `onlyTokensPresent`, only those that hold a token) in `json`, whose former content is lost
    /// in any case. Mechanisms are left out with the option "Pkcs11DiscoverSkipMechanisms". Opens
    /// no session.
    bool Discover(bool onlyTokensPresent, ClsJsonObject& json);

    // --- Session and login. A PIN or label with a NUL character in it is refused.

    /// Opens a session on the slot with this ID, or with -1 on the first slot with a token that
    /// takes one. A session that is open is replaced once the new one stands.
    bool OpenSession(int slotId, bool readWrite);

    /// Lists the tokens in the module's slots, initialising the module as needed. A token that the
    /// module cannot describe is listed as not readable.
    bool ListTokens(std::vector<TokenInfo>& tokens);

    /// Opens a session with the one token that fits `choice`, initialising the module as needed.
    /// If several fit, the call fails and names them, so no PIN reaches a token by chance.
    bool OpenToken(const TokenChoice& choice, bool readWrite);
    /// The token of the open session, as it was described when OpenToken opened it.
    bool GetToken(TokenInfo& token);

    /// Closes the session. Logins, caches and links end with it.
    bool CloseSession();

    /// Initialises as needed, opens a read-write session on any slot and logs in; does not log in
    /// when `pin` is empty. A session stays open when only the login fails.
    bool QuickSession(int userType, const XString& pin);

    /// Logs in on the open session. The context-specific type only keeps the PIN for the signing
    /// operations. An empty PIN is asked for at the reader when that has a PIN pad. A PIN is tried
    /// once; after a failure the log says what the token's flags tell of it.
    bool Login(int userType, const XString& pin);

    /// Logs out; the session stays open, caches and links end.
    bool Logout();

    /// @{
    /// The PIN that signing operations use where the key asks for one at each signature.
    void get_SigContextPin(XString& out);
    void put_SigContextPin(const XString& pin);
    /// @}

    // --- Administration and queries

    /// Changes the PIN of the user who is logged in, or the normal user's when nobody is.
    bool SetPin(const XString& oldPin, const XString& newPin);

    /// Sets the normal user's PIN; the security officer has to be logged in on a read-write
    /// session.
    bool InitPin(const XString& pin);

    /// Initialises a token: everything on it is destroyed. `label`: at most 32 bytes of UTF-8.
    bool InitToken(int slotId, const XString& soPin, const XString& label);

    /// Finds one object from its description, such as {"class":"privateKey","label":"sign"}.
    /// Returns its handle as 32 bits and adds it whole to `json` as "handle"; -1 when it needs more
    /// than 32 bits; 0 when there is none or the search failed. docs/json.md has the members.
    int FindObject(ClsJsonObject& json);

    /// Counts the certificates, keys and data objects that can be seen: no private ones unless the
    /// user is logged in.
    bool CountObjects(int& count);

    /// Fills `json` with the keys on the token: {"keys":[..]}. `selector` holds words separated by
    /// blanks or commas: private, public, secret, rsa, ec, all; empty means all.
    bool FindAllKeys(const XString& selector, ClsJsonObject& json);

    // --- Certificates

    /// Reads all certificates of the token into the cache.
    bool FindAllCerts();
    /// Certificates in the cache.
    int get_NumCerts();
    /// Gives the caller the certificate at a zero-based index of the cache.
    bool GetCert(int index, ClsCert& cert);

    /// Chooses a certificate, reading the cache first when it is not filled. `certPart` says what
    /// to match on; its letter case and surrounding blanks do not count:
    ///
    ///     "privateKey"                          the first with a private key on the token
    ///     ""                                    the first of all
    ///     "subjectDN_withTags", "subjectDN"     the subject, "CN=a, O=b" or "a, b"
    ///     "issuerCN", "issuerSerial",           "SERIAL:issuer CN", whichever of the names is used
    ///       "serialIssuer"
    ///     "serial", "thumbprint"                hexadecimal, any case
    ///     "policyOid"                           an OID of the certificate policies
    ///     "keyUsage"                            usages, one of which suffices: "nonRepudiation"
    ///     "CN", "O" or "organization", "E" or   that part of the subject
    ///       "email", any other type
    ///
    /// The first certificate that matches is given to `cert`, which is untouched on failure.
    /// The certificate to sign with is better chosen by FindSigner: "privateKey" takes the first
    /// that has a key, even a guessed one, and even if it is expired or a CA certificate.
    bool FindCert(const XString& certPart, const XString& partValue, ClsCert& cert);

    /// Chooses the certificate to sign with, and links it to its private key; see SignerQuery.
    bool FindSigner(const SignerQuery& query, ClsCert& cert);

    /// Says which rule finds the certificate's private key, and why the other keys of its type are
    /// not taken. Reads all that the token shows of them; links nothing.
    bool ExplainPrivateKey(ClsCert& cert, KeyExplanation& out);

    // --- Signing, with the key that `cert` is linked to in the open session; see
    // signing/options.h. A guessed key is proved first, and an RSA signature is verified before it
    // is given out. Outputs are untouched on failure. Keys that ask for their PIN at each signature
    // get SigContextPin; if that is refused it is not tried again until it is set anew.

    /// Signs a digest, made with the options' hash. Two module calls; three with the PIN.
    bool SignHash(ClsCert& cert, std::span<const std::uint8_t> digest, const SignOptions& options,
                  std::vector<std::uint8_t>& signature);
    /// @{
    /// Signs data, in memory or read piece by piece.
    bool SignData(ClsCert& cert, std::span<const std::uint8_t> data, const SignOptions& options,
                  std::vector<std::uint8_t>& signature);
    bool SignData(ClsCert& cert, const DataReader& reader, const SignOptions& options,
                  std::vector<std::uint8_t>& signature);
    /// @}
    /// Signs a document, which is read once: CMS SignedData (RFC 5652) in DER, with the attributes
    /// of CAdES baseline B (ETSI EN 319 122-1).
    bool SignCms(ClsCert& cert, const DataReader& reader, const CmsOptions& options,
                 std::vector<std::uint8_t>& document);
    /// Proves that the linked key is the certificate's: signs a random number and verifies that.
    bool ProveKey(ClsCert& cert, KeyProof& proof);

    // --- Entry points for the rest of the library. These take no lock.

    /// Finds the certificate's private key and links the certificate to the session. `quick` looks
    /// at less: see findPrivKeyHandle. `cert` may be null, which is false. Where no EC key fits an
    /// EC certificate by ID or point, the token's first EC key is taken, and the log says so.
    bool linkCertToPkcs11Session(Certificate* cert, bool quick, LogBase& log);

    using Pkcs11State::clearCertCache;
    using Pkcs11State::clearPrivateKeyCaches;
    /// Whether the card demands RSA-PSS padding; false for every card known.
    bool cardRequiresPss(LogBase& log);

    /// Loads the card database that the library carries.
    static bool GetCardDataJson(ClsJsonObject& json, LogBase& log);
    /// Looks a card up by its ATR (hexadecimal digits, any case): display name, whether it is to be
    /// treated as read-only, and where the driver's module may lie, best first. False with empty
    /// outputs when the card is not known.
    static bool CardDataLookupAtr(ClsJsonObject& cardData, const char* atr, StringBuffer& outName,
                                  bool& outReadOnly, ExtPtrArraySb& outPaths, LogBase& log);
    /// The same with the card database loaded for this one call.
    static bool CardDataLookupAtr2(const char* atr, StringBuffer& outName, bool& outReadOnly,
                                   ExtPtrArraySb& outPaths, LogBase& log);
    /// Appends the module paths of a driver record for a platform key such as "linux".
    static bool getPkcs11DriverPaths(ClsJsonObject& driverRecord, const char* platform,
                                     ExtPtrArraySb& paths, LogBase& log);

  protected:
    /// @cond
    // Internal methods are protected, so that a test may derive and look. They take no lock
    // (openSession and login excepted) and expect the caller to hold the critical section.

    // --- Loading (module.cpp)
    bool loadPkcs11Dll(bool bareFileName, LogBase& log);
    bool loadPkcs11Dll_2(LogBase& log);
    bool C_Initialize(LogBase& log);
    void checkSetSpecial(LogBase& log);
    bool discover(bool onlyTokensPresent, ClsJsonObject& json, LogBase& log);

    // --- Session and login (module.cpp)
    [[nodiscard]] bool hasOpenSession() const noexcept { return m_hSession != 0; }
    bool alreadyLoggedIn(int userType, LogBase& log) const noexcept;
    bool openSession(int slotId, bool readWrite, LogBase& log);
    bool login(int userType, const char* pin, LogBase& log);
    void setContextSpecificPin(const XString& pin, LogBase& log);

    // --- Certificates (certs.cpp)
    bool findPkcs11Cert(const _smartcardCertSpec& spec, ClsCert& cert, LogBase& log);

    // --- Private keys (privkeys.cpp)

    /// The handle of the certificate's private key, or 0. `keyType` gets the certificate's key type
    /// code, `expectedSignatureSize` the length of its signatures in bytes (0 where the type is not
    /// supported). `quick` reads fewer attributes of the keys: no EC points, and subjects and
    /// moduli only when the IDs do not settle it.
    CK_OBJECT_HANDLE findPrivKeyHandle(Certificate& cert, bool quick, int& keyType,
                                       int& expectedSignatureSize, LogBase& log);
    CK_OBJECT_HANDLE findRsaKeyById(Certificate& cert, bool requireSign, LogBase& log);
    CK_OBJECT_HANDLE findRsaKeyBySubjectDER(Certificate& cert, bool requireSign, LogBase& log);
    CK_OBJECT_HANDLE findRsaKeyByModulus(Certificate& cert, bool requireSign, LogBase& log);

    /// @endcond

  private:
    void copyProperty(const XString& from, XString& to);
    bool open(std::string_view path, LogBase& log);
    void unload(LogBase& log);
    bool beInUse(LogBase& log);
};

}  // namespace mervane

#endif

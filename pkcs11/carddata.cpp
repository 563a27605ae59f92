// The card database that the library carries, and the look-up of a card by its ATR. All of it is
// static: no module, no session and no object is needed.
//
// A look-up has four steps: normalise the ATR (case, white space, then the rewrite table), find the
// card, follow it to its driver, and collect the driver's paths for this platform. Outputs are
// reset before the first step, so that a failure leaves nothing of an earlier look-up. Paths are
// returned as the database spells them; whether a file exists is the loader's business.

#include <array>
#include <memory>

#include "foundation/core/guarded.h"
#include "pkcs11/carddata/atr.h"
#include "pkcs11/carddata/carddata.h"
#include "pkcs11/clspkcs11.h"

namespace mervane {
namespace {

// A family of ATRs that differ in their later bytes, and the one member that the database lists.
// The tests look at the text, not at byte boundaries; an empty one always holds.
struct AtrRewrite {
    std::string_view start;
    std::string_view inside;  // anywhere in the ATR
    std::string_view end;
    std::string_view result;
};

// The first row that holds applies: the order matters for rows 4 and 5, which begin alike, and for
// row 3, whose prefix is also a prefix of rows 9 to 13. "xx" at the end of a result stands for any
// last byte; the database spells it that way.
constexpr std::array kAtrRewrites = {
    AtrRewrite{"3BFF96", "8131FE4380318065", "",
               "3BFF9600008131FE4380318065B0855956FB12017882900088"},
    AtrRewrite{"3BFF1800FF8131FE55006B0209", "1101434E5311318", "",
               "3BFF1800FF8131FE55006B02090200011101434E531131808E"},
    AtrRewrite{"3B9F958131FE9F0066465305", "71DF0000460000", "",
               "3B9F958131FE9F006646530540081871DF000046000015"},
    AtrRewrite{"3B7F96000080318065B085", "", "FFE829000",
               "3B7F96000080318065B084413DF6120FFE829000"},
    AtrRewrite{"3B7F96000080318065B085", "", "", "3B7F96000080318065B0855956FB120268829000"},
    AtrRewrite{"3BDD96FF8131FE4580595F5374645F496E697481", "", "",
               "3BDD96FF8131FE4580595F5374645F496E6974810000"},
    AtrRewrite{"3B9F9681B1FE451F070064051EB20031B0739621DB", "", "",
               "3B9F9681B1FE451F070064051EB20031B0739621DB00000000"},
    AtrRewrite{"3BBB1800C01031FE4580670412B00303000081", "", "",
               "3BBB1800C01031FE4580670412B003030000810000"},
    AtrRewrite{"3B9F958131FE9F00664653051", "", "",
               "3B9F958131FE9F006646530534002571DF0000000000xx"},
    AtrRewrite{"3B9F958131FE9F006646530534002571DF0000000000", "", "",
               "3B9F958131FE9F006646530534002571DF0000000000xx"},
    AtrRewrite{"3B9F958131FE9F006646530534002571DF0000390000", "", "",
               "3B9F958131FE9F006646530534002571DF0000000000xx"},
    AtrRewrite{"3B9F958131FE9F006646530534002571DF0000060000", "", "",
               "3B9F958131FE9F006646530534002571DF0000060000xx"},
    AtrRewrite{"3B9F958131FE9F006646530551003371DF0000000000", "", "",
               "3B9F958131FE9F006646530551003371DF0000000000xx"},
    AtrRewrite{"3B6D000057443641018693", "", "", "3B6D000057443641018693"},
};

void normalizeAtr(StringBuffer& atr) {
    atr.toUpperCase();
    atr.trim2();
    const auto holds = [&atr](const AtrRewrite& row) {
        return atr.beginsWith(row.start) && atr.containsSubstring(row.inside) &&
               atr.endsWith(row.end);
    };
    const auto* const row = std::ranges::find_if(kAtrRewrites, holds);
    if (row != kAtrRewrites.end()) atr.setString(row->result);
}

// Appends the strings of the array at `path`, walked with the record's index variable.
bool appendPathsOfArray(ClsJsonObject& record, const std::string& path, int count,
                        ExtPtrArraySb& paths, LogBase& log) {
    if (count == 0) return false;
    const std::string element = path + "[i]";
    StringBuffer text;
    for (int i = 0; i < count; ++i) {
        record.put_I(i);
        text.clear();
        record.sbOfPathUtf8(element, text, log);
        if (text.isEmpty()) continue;
        log.LogDataSb("path", text);
        paths.appendString(text.view());
    }
    return paths.getSize() > 0;
}

bool appendPathOfString(const ClsJsonObject& record, const std::string& path, ExtPtrArraySb& paths,
                        LogBase& log) {
    StringBuffer text;
    if (!record.sbOfPathUtf8(path, text, log) || text.isEmpty()) return false;
    log.LogDataSb("path", text);
    paths.appendString(text.view());
    return true;
}

bool appendDriverPaths(ClsJsonObject& driverRecord, const char* platform, ExtPtrArraySb& paths,
                       LogBase& log) {
    const std::string path = std::string("file.") + platform;
    switch (driverRecord.JsonTypeOf(path)) {
        case ClsJsonObject::kArray:
            return appendPathsOfArray(driverRecord, path, driverRecord.sizeOfArray(path, log),
                                      paths, log);
        case ClsJsonObject::kString:
            return appendPathOfString(driverRecord, path, paths, log);
        case ClsJsonObject::kObject:
            break;
        default:
            return false;
    }
    // An object by word size. Only "x86" is read, whatever this machine's word size.
    const std::string x86 = path + ".x86";
    const int type = driverRecord.JsonTypeOf(x86);
    if (type == ClsJsonObject::kArray) {
        return appendPathsOfArray(driverRecord, x86, driverRecord.SizeOfArray(x86), paths, log);
    }
    if (type != ClsJsonObject::kString) return false;
    if (appendPathOfString(driverRecord, x86, paths, log)) return true;
    log.LogError("Failed to get Windows driver path.");  // on every platform
    return false;
}

bool lookUpCard(ClsJsonObject& cardData, const char* atr, StringBuffer& outName, bool& outReadOnly,
                ExtPtrArraySb& outPaths, LogBase& log) {
    const auto failed = [&log](std::string_view sentence) {
        log.LogError(sentence);
        return false;
    };
    ClsJsonObject* const card = findCardRecord(cardData, atr == nullptr ? "" : atr);
    const _clsBaseHolder cardHolder(card);
    if (card == nullptr) return false;

    StringBuffer driverId;
    if (!card->sbOfPathUtf8("driver", driverId, log)) return failed("Did not find driver member.");
    ClsJsonObject* const driver = cardData.FindRecord("drivers", "id", driverId.view(), false);
    const _clsBaseHolder driverHolder(driver);
    if (driver == nullptr) return failed("Did not find driver record.");
    if (!ClsPkcs11::getPkcs11DriverPaths(*driver, "linux", outPaths, log))
        return failed("Failed to find driver paths.");

    const bool hasName = card->sbOfPathUtf8("name", outName, log);
    LogNull silent;  // an absent flag means false and is not worth a line
    outReadOnly = card->boolOf("readOnly", silent);
    return hasName;
}

}  // namespace

ClsJsonObject* findCardRecord(ClsJsonObject& cardData, std::string_view atr) {
    StringBuffer normalized(atr);
    normalizeAtr(normalized);
    return cardData.FindRecord("cards", "atr", normalized.view(), false);
}

bool ClsPkcs11::GetCardDataJson(ClsJsonObject& json, LogBase& log) {
    return guarded(log, [&] {
        DataBuffer document;
        return carddata::load(carddata::constants(), document, log) && json.loadJson(document, log);
    });
}

bool ClsPkcs11::CardDataLookupAtr2(const char* atr, StringBuffer& outName, bool& outReadOnly,
                                   ExtPtrArraySb& outPaths, LogBase& log) {
    const LogContextExitor context(log, "atrToPkcs11Info");
    ClsJsonObject* const cardData = ClsJsonObject::createNewCls();
    const _clsBaseHolder holder(cardData);
    if (cardData == nullptr || !GetCardDataJson(*cardData, log)) return false;
    return CardDataLookupAtr(*cardData, atr, outName, outReadOnly, outPaths, log);
}

bool ClsPkcs11::CardDataLookupAtr(ClsJsonObject& cardData, const char* atr, StringBuffer& outName,
                                  bool& outReadOnly, ExtPtrArraySb& outPaths, LogBase& log) {
    const LogContextExitor context(log, "cardDataLookupAtr");
    outName.clear();
    outReadOnly = false;
    outPaths.removeAllSbs();
    return guarded(log,
                   [&] { return lookUpCard(cardData, atr, outName, outReadOnly, outPaths, log); });
}

bool ClsPkcs11::getPkcs11DriverPaths(ClsJsonObject& driverRecord, const char* platform,
                                     ExtPtrArraySb& paths, LogBase& log) {
    const LogContextExitor context(log, "getPkcs11DriverPaths");
    return guarded(log, [&] { return appendDriverPaths(driverRecord, platform, paths, log); });
}

}  // namespace mervane

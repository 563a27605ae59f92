// What the card database knows of a card: its name, its driver, and where that driver's module may
// lie.

#include "foundation/core/guarded.h"
#include "foundation/json/clsjsonobject.h"
#include "locate/readers.h"
#include "pkcs11/carddata/atr.h"
#include "pkcs11/clspkcs11.h"

namespace mervane {
namespace {

// What a record lacks is empty, and not worth a line.
std::string textAt(const ClsJsonObject& record, std::string_view path) {
    LogNull silent;
    StringBuffer text;
    record.sbOfPathUtf8(path, text, silent);
    return std::string(text.view());
}

bool lookUp(std::string_view atr, CardInfo& card, LogBase& log) {
    ClsJsonObject* const cards = ClsJsonObject::createNewCls();
    const _clsBaseHolder holder(cards);
    if (cards == nullptr || !ClsPkcs11::GetCardDataJson(*cards, log)) return false;
    ClsJsonObject* const record = findCardRecord(*cards, atr);
    const _clsBaseHolder recordHolder(record);
    if (record == nullptr) return false;
    LogNull silent;
    card.name = textAt(*record, "name");
    card.isReadOnly = record->boolOf("readOnly", silent);
    ClsJsonObject* const driver =
        cards->FindRecord("drivers", "id", textAt(*record, "driver"), false);
    const _clsBaseHolder driverHolder(driver);
    if (driver == nullptr) return true;
    card.driver = textAt(*driver, "name");
    ExtPtrArraySb paths;
    ClsPkcs11::getPkcs11DriverPaths(*driver, "linux", paths, silent);
    for (int i = 0; i < paths.getSize(); ++i) card.paths.emplace_back(paths.sbAt(i)->view());
    return true;
}

}  // namespace

CardInfo::CardInfo() = default;
CardInfo::CardInfo(const CardInfo& other) = default;
CardInfo::CardInfo(CardInfo&& other) noexcept = default;
CardInfo& CardInfo::operator=(const CardInfo& other) = default;
CardInfo& CardInfo::operator=(CardInfo&& other) noexcept = default;
CardInfo::~CardInfo() = default;

bool findCardInfo(std::string_view atr, CardInfo& card, LogBase& log) {
    const LogContextExitor context(log, "findCardInfo");
    return guarded(log, [&] {
        CardInfo found;
        if (!lookUp(atr, found, log)) return false;
        card = std::move(found);
        return true;
    });
}

}  // namespace mervane

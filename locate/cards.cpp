// What the card database knows of a card: its name, its driver, and where that driver's module may
// lie.

#include "foundation/core/guarded.h"
#include "foundation/json/clsjsonobject.h"
#include "locate/drivers.h"
#include "locate/readers.h"
#include "pkcs11/carddata/atr.h"
#include "pkcs11/clspkcs11.h"

namespace mervane {
namespace {

bool lookUp(std::string_view atr, CardInfo& card, LogBase& log) {
    ClsJsonObject cards;
    if (!ClsPkcs11::GetCardDataJson(cards, log)) return false;
    ClsJsonObject* const record = findCardRecord(cards, atr);
    const _clsBaseHolder recordHolder(record);
    if (record == nullptr) return true;
    LogNull silent;
    CardDriver driver = driverWithId(cards, textAt(*record, "driver"));
    card.isKnown = true;
    card.name = textAt(*record, "name");
    card.isReadOnly = record->boolOf("readOnly", silent);
    card.driver = std::move(driver.name);
    card.paths = std::move(driver.paths);
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

#ifndef MERVANE_PKCS11_CARDDATA_ATR_H
#define MERVANE_PKCS11_CARDDATA_ATR_H

#include <string_view>

#include "foundation/json/clsjsonobject.h"

namespace mervane {

/// The card's record in the card database, by its ATR (hexadecimal digits, any case) or by that of
/// the family it belongs to; null if it has none. The caller owns the record.
ClsJsonObject* findCardRecord(ClsJsonObject& cardData, std::string_view atr);

}  // namespace mervane

#endif

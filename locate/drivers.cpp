#include "locate/drivers.h"

#include "pkcs11/clspkcs11.h"

namespace mervane {

std::string textAt(const ClsJsonObject& record, std::string_view path) {
    LogNull silent;
    StringBuffer text;
    record.sbOfPathUtf8(path, text, silent);
    return std::string(text.view());
}

CardDriver driverWithId(const ClsJsonObject& cardData, std::string_view id) {
    CardDriver driver;
    ClsJsonObject* const record = cardData.FindRecord("drivers", "id", id, false);
    const _clsBaseHolder holder(record);
    if (record == nullptr) return driver;
    LogNull silent;
    ExtPtrArraySb paths;
    driver.name = textAt(*record, "name");
    ClsPkcs11::getPkcs11DriverPaths(*record, "linux", paths, silent);
    for (int i = 0; i < paths.getSize(); ++i) driver.paths.emplace_back(paths.sbAt(i)->view());
    return driver;
}

std::vector<CardDriver> allDrivers() {
    std::vector<CardDriver> drivers;
    LogNull silent;
    ClsJsonObject cardData;
    if (!ClsPkcs11::GetCardDataJson(cardData, silent)) return drivers;
    const int count = cardData.sizeOfArray("drivers", silent);
    for (int i = 0; i < count; ++i) {
        cardData.put_I(i);
        drivers.push_back(driverWithId(cardData, textAt(cardData, "drivers[i].id")));
    }
    return drivers;
}

}  // namespace mervane

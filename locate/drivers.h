#ifndef MERVANE_LOCATE_DRIVERS_H
#define MERVANE_LOCATE_DRIVERS_H

#include <string>
#include <vector>

#include "foundation/json/clsjsonobject.h"

namespace mervane {

/// A driver of the card database.
struct CardDriver {
    std::string name;
    std::vector<std::string> paths;  ///< of its module on Linux, best first; may be empty
};

/// The string at `path`, empty if there is none.
std::string textAt(const ClsJsonObject& record, std::string_view path);

/// The driver with this ID; empty if there is none.
CardDriver driverWithId(const ClsJsonObject& cardData, std::string_view id);

/// All drivers; none if the database cannot be read.
std::vector<CardDriver> allDrivers();

}  // namespace mervane

#endif

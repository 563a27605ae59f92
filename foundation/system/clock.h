#ifndef MERVANE_FOUNDATION_SYSTEM_CLOCK_H
#define MERVANE_FOUNDATION_SYSTEM_CLOCK_H

#include <string>
#include <string_view>

namespace mervane {

/// The present time as "YYYY-MM-DDThh:mm:ssZ".
std::string utcNow();

/// Whether a text is of that form; the digits may be any.
bool isUtcTime(std::string_view text) noexcept;

}  // namespace mervane

#endif

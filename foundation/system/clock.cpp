#include "foundation/system/clock.h"

#include <algorithm>
#include <array>
#include <ctime>

namespace mervane {

std::string utcNow() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    std::array<char, 32> text{};
    if (::gmtime_r(&now, &utc) == nullptr) return {};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc)};
}

bool isUtcTime(std::string_view text) noexcept {
    constexpr std::string_view kForm = "0000-00-00T00:00:00Z";
    return std::ranges::equal(text, kForm, [](char c, char form) {
        return form == '0' ? c >= '0' && c <= '9' : c == form;
    });
}

}  // namespace mervane

#include "foundation/log/logbase.h"

#include <array>
#include <charconv>
#include <memory>

#include "foundation/text/ascii.h"
#include "foundation/text/stringbuffer.h"
#include "foundation/text/xstring.h"

namespace mervane {
namespace {

// A number in decimal without allocating: a sign and 20 digits hold any of 64 bits.
struct Decimal {
    template <class Number>
    explicit Decimal(Number value) noexcept {
        end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    }
    [[nodiscard]] std::string_view view() const noexcept {
        return {digits.data(), static_cast<std::size_t>(end - digits.data())};
    }
    std::array<char, 21> digits{};
    char* end = nullptr;
};

}  // namespace

void LogBase::LogDataX(std::string_view name, const XString& value) noexcept {
    write(Kind::Data, name, value.view());
}

void LogBase::LogDataSb(std::string_view name, const StringBuffer& value) noexcept {
    write(Kind::Data, name, value.view());
}

void LogBase::LogDataLong(std::string_view name, long value) noexcept {
    write(Kind::Data, name, Decimal(value).view());
}

void LogBase::LogDataUnsigned(std::string_view name, unsigned long value) noexcept {
    write(Kind::Data, name, Decimal(value).view());
}

void LogBase::setOptions(std::string_view keywords) {
    std::string fresh(keywords);
    m_isSettingOptions = true;
    m_options.swap(fresh);
    m_isSettingOptions = false;
}

void LogBase::settleOptions() noexcept {
    if (m_isSettingOptions) std::construct_at(&m_options);
    m_isSettingOptions = false;
}

bool LogBase::hasOption(std::string_view keyword) const noexcept {
    return containsIgnoreCase(m_options, keyword);
}

}  // namespace mervane

#include "words.h"

#include <algorithm>
#include <clocale>
#include <cuchar>
#include <cwctype>
#include <limits>
#include <memory>
#include <numeric>
#include <utility>
#include <vector>

#include <mervane/foundation/text/ascii.h>

namespace mervane::cli {
namespace {

// How many letters have to be changed, added or removed (Levenshtein), whatever their case.
std::size_t distance(std::string_view a, std::string_view b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t change = toUpperAscii(a[i]) == toUpperAscii(b[j]) ? 0 : 1;
            const std::size_t best = std::min({diagonal + change, row[j] + 1, row[j + 1] + 1});
            diagonal = row[j + 1];
            row[j + 1] = best;
        }
    }
    return row[b.size()];
}

// A locale with the letters of all alphabets, whatever the user's own is.
struct FreeLocale {
    void operator()(locale_t locale) const noexcept { ::freelocale(locale); }
};
using Locale = std::unique_ptr<std::remove_pointer_t<locale_t>, FreeLocale>;

std::u32string inLowerCase(std::string_view utf8, locale_t locale) {
    std::u32string out;
    const locale_t before = ::uselocale(locale);
    std::mbstate_t state{};
    while (!utf8.empty()) {
        char32_t c = 0;
        const std::size_t size = std::mbrtoc32(&c, utf8.data(), utf8.size(), &state);
        if (size == 0 || size > utf8.size()) break;  // a NUL, or no UTF-8
        out.push_back(static_cast<char32_t>(std::towlower(static_cast<wint_t>(c))));
        utf8.remove_prefix(size);
    }
    ::uselocale(before);
    out.append(utf8.begin(), utf8.end());
    return out;
}

bool isHexDigit(char c) noexcept {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

}  // namespace

std::string nearestHint(std::string_view word, std::span<const std::string_view> names) {
    constexpr std::size_t kLongest = 64;  // no name is as long
    if (word.size() > kLongest) return {};
    std::string_view nearest;
    std::size_t least = std::numeric_limits<std::size_t>::max();
    for (const std::string_view name : names) {
        const std::size_t changes = distance(word, name);
        if (changes < least) nearest = name, least = changes;
    }
    const bool isSimilar = least <= std::max<std::size_t>(1, word.size() / 3);
    return isSimilar ? " Did you mean " + std::string(nearest) + "?" : std::string();
}

std::optional<std::string> hexDigits(std::string_view text, std::string_view wildcards) {
    text = trimmed(text);
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    std::string digits;
    for (const char c : text) {
        const char upper = toUpperAscii(c);
        if (isHexDigit(c) || wildcards.find(upper) != std::string_view::npos) {
            digits.push_back(upper);
        } else if (std::string_view(" :-\t\n").find(c) == std::string_view::npos) {
            return std::nullopt;
        }
    }
    return digits.empty() ? std::nullopt : std::optional(digits);
}

std::string spacedName(std::string_view name) {
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        out.push_back(name[i]);
        const bool isEscaped = name[i] == '\\' && i + 1 < name.size();
        if (isEscaped) out.push_back(name[++i]);
        if (isEscaped || name[i] != ',') continue;
        while (i + 1 < name.size() && name[i + 1] == ' ') ++i;
        out.push_back(' ');
    }
    return out;
}

bool isSameButForCase(std::string_view a, std::string_view b) {
    const Locale letters(::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr));
    if (!letters) return equalsIgnoreCase(a, b);
    return inLowerCase(a, letters.get()) == inLowerCase(b, letters.get());
}

std::vector<std::string> wordsOf(std::string_view text) {
    std::vector<std::string> words;
    std::string word;
    for (const char c : std::string(text) + " ") {
        const bool isSeparator = c == ',' || kWhiteSpace.find(c) != std::string_view::npos;
        if (!isSeparator) word.push_back(c);
        if (isSeparator && !word.empty()) words.push_back(std::exchange(word, {}));
    }
    return words;
}

}  // namespace mervane::cli

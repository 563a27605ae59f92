#ifndef MERVANE_CLI_WORDS_H
#define MERVANE_CLI_WORDS_H

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mervane::cli {

// Forgiving what people type, and refusing what means nothing.

/// " Did you mean NAME?" for the most similar name, or nothing if none is similar. Letter case does
/// not count.
std::string nearestHint(std::string_view word, std::span<const std::string_view> names);

/// The digits of hexadecimal as people paste it, "0x0a:1B 2c", in upper case; nothing if it is
/// none. `wildcards` count as digits, too.
std::optional<std::string> hexDigits(std::string_view text, std::string_view wildcards = {});

/// A distinguished name with one blank after each comma that separates, as names are written here.
std::string spacedName(std::string_view name);

/// The words of a text, which blanks or commas separate.
std::vector<std::string> wordsOf(std::string_view text);

}  // namespace mervane::cli

#endif

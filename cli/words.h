#ifndef MERVANE_CLI_WORDS_H
#define MERVANE_CLI_WORDS_H

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mervane::cli {

// Accepts what people type in more than one form, and refuses what means nothing.

/// " Did you mean NAME?" for the most similar name, or nothing if none is similar. Letter case does
/// not count.
std::string nearestHint(std::string_view word, std::span<const std::string_view> names);

/// The digits of hexadecimal as people paste it, "0x0a:1B 2c", in upper case; nullopt if it
/// is not hexadecimal. `wildcards` count as digits too.
std::optional<std::string> hexDigits(std::string_view text, std::string_view wildcards = {});

/// A distinguished name with one blank after each separating comma, as names are written here.
std::string spacedName(std::string_view name);

/// Whether the texts (UTF-8) differ in the case of their letters at most, in any alphabet.
bool isSameButForCase(std::string_view a, std::string_view b);

/// The words of a text, separated by blanks or commas.
std::vector<std::string> wordsOf(std::string_view text);

}  // namespace mervane::cli

#endif

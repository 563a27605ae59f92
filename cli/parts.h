#ifndef MERVANE_CLI_PARTS_H
#define MERVANE_CLI_PARTS_H

#include <string>
#include <string_view>

namespace mervane::cli {

// The parts of a certificate that one can be chosen by. What people type is brought into the form
// that the library compares; what means nothing is refused.

enum class Form : unsigned char { Text, Name, Hex, SerialAndIssuer, Usages, Oid };

struct Part {
    std::string_view name;
    Form form;
    bool takesValue = true;
};

/// The part that a word names, in any letter case. Throws a CommandError if it names none.
const Part& partOf(const std::string& word);

/// The value in the form that the library compares. Throws a CommandError if it has none.
std::string comparable(const Part& part, const std::string& value);

/// The word as FindCert understands it, which takes any name with "serial" in it for the
/// certificate's serial number.
std::string partNameFor(const std::string& word);

}  // namespace mervane::cli

#endif

#ifndef MERVANE_CLI_DIAGNOSIS_H
#define MERVANE_CLI_DIAGNOSIS_H

#include <string>
#include <string_view>
#include <vector>

#include "output.h"

namespace mervane::cli {

/// The steps that doctor walks, by their names in JSON, which stay as they are.
enum class StepId : unsigned char {
    Pcsc,
    Reader,
    Card,
    Driver,
    Configuration,
    Module,
    Token,
    Pin,
    Session,
    Login,
    Certificate,
    Signing,
};

/// What a step found.
struct Step {
    enum class Status : unsigned char {
        Ok,
        Warn,
        Missing,  ///< nothing is broken: a card or token is not there
        Fail,
    };

    StepId id;
    Status status;
    std::string subject;  ///< what was looked at: a reader, module, token or certificate
    std::string seen;     ///< what was seen of it
    std::string remedy{};
};

/// The steps walked so far, and what follows from them.
class Diagnosis {
  public:
    /// Full stops at the ends of its texts go: they are joined here.
    void add(Step step);
    [[nodiscard]] bool has(StepId id, Step::Status status) const;
    [[nodiscard]] bool hasFailed() const;
    [[nodiscard]] bool isComplete() const;

    /// With `isPrinted`, each step is printed as soon as it is known: a module that ends the
    /// program takes none of them with it.
    explicit Diagnosis(bool isPrinted) : m_isPrinted(isPrinted) {}
    void printJson(std::string_view result) const;

  private:
    bool m_isPrinted;
    std::vector<Step> m_steps;
};

/// The Debian package that has the module of that name; empty if it is not known.
std::string_view packageOf(std::string_view moduleName) noexcept;

}  // namespace mervane::cli

#endif

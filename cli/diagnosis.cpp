#include "diagnosis.h"

#include <algorithm>
#include <array>
#include <iostream>

namespace mervane::cli {
namespace {

constexpr std::array<std::string_view, 12> kNames = {
    "pcsc",  "reader", "card",    "driver", "configuration", "module",
    "token", "pin",    "session", "login",  "certificate",   "signing"};

std::string_view nameOf(StepId id) {
    return kNames[static_cast<std::size_t>(id)];
}

// What is missing has failed, as far as the person is concerned.
std::string_view nameOf(Step::Status status) {
    constexpr std::array<std::string_view, 4> kStatuses = {"ok", "warn", "fail", "fail"};
    return kStatuses[static_cast<std::size_t>(status)];
}

struct Package {
    std::string_view module;
    std::string_view name;
};

// Of Debian 12.
constexpr std::array kPackages = {
    Package{"opensc", "opensc-pkcs11"},
    Package{"onepin-opensc", "opensc-pkcs11"},
    Package{"softhsm2", "libsofthsm2"},
    Package{"tpm2", "libtpm2-pkcs11-1"},
    Package{"ykcs11", "ykcs11"},
    Package{"gnome-keyring", "gnome-keyring-pkcs11"},
    Package{"p11-kit-trust", "p11-kit-modules"},
    Package{"softokn3", "libnss3"},
};

void print(const Step& step) {
    std::string line(nameOf(step.status));
    line.resize(6, ' ');
    line.append(nameOf(step.id)).resize(21, ' ');
    if (!step.subject.empty()) line.append(printable(step.subject)).append(": ");
    line.append(printable(step.seen));
    if (!step.remedy.empty()) line.append(". ").append(printable(step.remedy));
    std::cout << line << '\n' << std::flush;
}

}  // namespace

void Diagnosis::add(Step step) {
    for (std::string* const text : {&step.seen, &step.remedy}) {
        if (text->ends_with('.')) text->pop_back();
    }
    if (m_isPrinted) print(step);
    m_steps.push_back(std::move(step));
}

bool Diagnosis::has(StepId id, Step::Status status) const {
    return std::ranges::any_of(
        m_steps, [&](const Step& step) { return step.id == id && step.status == status; });
}

bool Diagnosis::hasFailed() const {
    return std::ranges::find(m_steps, Step::Status::Fail, &Step::status) != m_steps.end();
}

bool Diagnosis::isComplete() const {
    return !hasFailed() &&
           std::ranges::find(m_steps, Step::Status::Missing, &Step::status) == m_steps.end();
}

void Diagnosis::printJson(std::string_view result) const {
    JsonPrinter document;
    document.text("result", result);
    document.beginList("steps");
    for (const Step& step : m_steps) {
        JsonValue item = JsonValue::object();
        item.set("id", nameOf(step.id));
        item.set("status", nameOf(step.status));
        item.set("subject", step.subject.empty() ? JsonValue() : JsonValue(step.subject));
        item.set("seen", step.seen);
        item.set("remedy", step.remedy.empty() ? JsonValue() : JsonValue(step.remedy));
        document.item(item);
    }
    document.endList();
    document.finish();
}

std::string_view packageOf(std::string_view moduleName) noexcept {
    const auto* const package = std::ranges::find(kPackages, moduleName, &Package::module);
    return package == kPackages.end() ? std::string_view() : package->name;
}

}  // namespace mervane::cli

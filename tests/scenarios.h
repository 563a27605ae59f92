#ifndef MERVANE_TESTS_SCENARIOS_H
#define MERVANE_TESTS_SCENARIOS_H

#include <array>

#include "tests/support.h"

namespace mervane::test {

/// What an application has at hand before it calls. Made before memory runs out: public calls do not
/// throw, but the application's own strings may.
struct ScenarioArgs {
    ScenarioArgs();
    XString userPin{fake::Slot().userPin}, soPin{fake::Slot().soPin}, newPin{"a-new-user-pin-000000001"}, empty;
    XString privateKey{"privateKey"}, commonName{"CN"}, curve{"Curve 256"}, privateWord{"private"}, label{"renewed"};
    ClsJsonObject description, keys, report;
    SignerQuery signer;
    std::vector<std::uint8_t> data = std::vector<std::uint8_t>(100), signature;
};

/// What an application does from start to finish while faults are injected. Each is a few public
/// calls; true when all of them succeeded.
struct Scenario {
    const char* name;
    bool (*run)(Pkcs11& p11, ScenarioArgs& args);
    int numLogins;  // requested
};
extern const std::array<Scenario, 8> kScenarios;

/// What the scenarios run on: a token with all attributes; one whose keys have few, on a module that
/// others have initialised; one of many objects and slots, on a module that takes no arguments when
/// it is initialised.
enum class Token { Plain, Sparse, Crowded };
/// Fills the world with a token. Sessions and initialisation stay as they are.
void furnish(fake::World& world, Token token);

/// Runs a scenario on a fresh module with the faults that `arrange` sets up, then without. After each
/// run it checks what must hold whatever the module did. `disarm` is called with the result of the
/// first run. True when the scenario succeeds without faults.
bool recovers(
    const FakeModule& module, const Scenario& scenario, Token token, const std::function<void()>& arrange,
    const std::function<void(bool ok)>& disarm = [](bool) {});

}  // namespace mervane::test

#endif

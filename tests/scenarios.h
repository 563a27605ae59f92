#ifndef MERVANE_TESTS_SCENARIOS_H
#define MERVANE_TESTS_SCENARIOS_H

#include <array>

#include "tests/support.h"

namespace mervane::test {

/// What an application has at hand before it calls. Made before memory runs out: a public call does
/// not throw, but the application's own strings may.
struct ScenarioArgs {
    ScenarioArgs();
    XString userPin{fake::Slot().userPin}, soPin{fake::Slot().soPin}, newPin{"a-new-user-pin-000000001"}, empty;
    XString privateKey{"privateKey"}, commonName{"CN"}, curve{"Curve 256"}, privateWord{"private"}, label{"renewed"};
    ClsJsonObject description, keys, report;
};

/// What an application does from beginning to end, as faults are injected into it. Each is a few
/// public calls; the result says whether all of them succeeded.
struct Scenario {
    const char* name;
    bool (*run)(Pkcs11& p11, ScenarioArgs& args);
    int numLogins;  // that it asks for
};
extern const std::array<Scenario, 6> kScenarios;

/// What the scenarios lead to: a token with all attributes; one whose keys have few, on a module that
/// others have initialised; one of many objects and slots, on a module that takes no arguments when
/// it is initialised.
enum class Token { Plain, Sparse, Crowded };
/// Sessions and initialisation stay as they are.
void furnish(fake::World& world, Token token);

/// Runs a scenario on a module as new with the faults that `arrange` sets up, and again without. What
/// holds whatever the module did is expected after each. `disarm` ends the first run and is given its
/// result. True when the scenario succeeds without faults.
bool recovers(
    const FakeModule& module, const Scenario& scenario, Token token, const std::function<void()>& arrange,
    const std::function<void(bool ok)>& disarm = [](bool) {});

}  // namespace mervane::test

#endif

#include "pkcs11/calls/ledger.h"

#include <chrono>
#include <map>
#include <memory>
#include <thread>

#include "foundation/core/critsec.h"
#include "foundation/core/forkwatch.h"

namespace mervane::ledger {
namespace {

struct Use {
    int numUsers = 0;
    bool ours = false;        // one of our objects initialised the module
    bool finalizing = false;  // the last user is in C_Finalize
};

// Never destroyed: objects of static storage may end after anything that is.
struct Book {
    MervaneCritSec section;  // survives fork
    std::uint32_t generation = forkGeneration();
    std::map<const CK_FUNCTION_LIST*, Use> uses;
};

Book& book() {
    static Book& instance = *std::make_unique<Book>().release();
    return instance;
}

// Runs `work` on the entries under the lock. After a fork no module is initialised in this process.
template <class Work>
auto withUses(Work work) {
    Book& b = book();
    const CritSecExitor lock(b.section);
    if (b.generation != forkGeneration()) {
        b.uses.clear();
        b.generation = forkGeneration();
    }
    return work(b.uses);
}

}  // namespace

void enter(const CK_FUNCTION_LIST* module) {
    constexpr auto kPause = std::chrono::milliseconds(1);
    constexpr int kMaxPauses = 5000;
    for (int numPauses = 0;; ++numPauses) {
        const bool entered = withUses([&](auto& uses) {
            Use& use = uses[module];
            if (use.finalizing && numPauses < kMaxPauses) return false;
            ++use.numUsers;
            return true;
        });
        if (entered) return;
        std::this_thread::sleep_for(kPause);
    }
}

void markOurs(const CK_FUNCTION_LIST* module) noexcept {
    withUses([&](auto& uses) {
        const auto use = uses.find(module);
        if (use != uses.end()) use->second.ours = true;
    });
}

bool leave(const CK_FUNCTION_LIST* module) noexcept {
    return withUses([&](auto& uses) {
        const auto use = uses.find(module);
        if (use == uses.end() || --use->second.numUsers > 0) return false;
        const bool ours = use->second.ours;
        use->second.finalizing = ours;
        if (!ours) uses.erase(use);
        return ours;
    });
}

void finalized(const CK_FUNCTION_LIST* module) noexcept {
    withUses([&](auto& uses) {
        const auto use = uses.find(module);
        if (use == uses.end()) return;
        use->second.ours = use->second.finalizing = false;
        if (use->second.numUsers <= 0) uses.erase(use);
    });
}

void forget(const CK_FUNCTION_LIST* module) noexcept {
    withUses([&](auto& uses) {
        const auto use = uses.find(module);
        if (use != uses.end() && --use->second.numUsers <= 0) uses.erase(use);
    });
}

}  // namespace mervane::ledger

#include "pkcs11/calls/ledger.h"

#include <map>

#include "foundation/core/forkwatch.h"
#include "foundation/core/lasting.h"

namespace mervane::ledger {
namespace {

struct Use {
    int numUsers = 0;
    bool ours = false;  // one of our objects initialised the module
};

struct Page {
    std::map<const CK_FUNCTION_LIST*, Use> uses;
    std::map<const void*, std::shared_ptr<MervaneCritSec>> turns;  // by library
    Page* before = nullptr;  // abandoned at a fork; kept in reach, so that no tool calls it a leak
};

// After a fork no module is initialised in this process, and another thread may have been writing
// on the page: a new one is begun, and the old one is abandoned, not freed.
class Book {
  public:
    template <class Work>
    auto withPage(Work work) {
        const CritSecExitor lock(m_section);
        if (m_generation != forkGeneration()) {
            auto page = std::make_unique<Page>();
            page->before = m_page.release();
            m_page = std::move(page);
            m_generation = forkGeneration();
        }
        return work(*m_page);
    }

  private:
    MervaneCritSec m_section;  // survives a fork
    std::uint32_t m_generation = forkGeneration();
    std::unique_ptr<Page> m_page = std::make_unique<Page>();
};

constinit Lasting<Book> theBook;

std::shared_ptr<MervaneCritSec> sectionOf(const void* library) {
    return theBook.get().withPage([library](Page& page) {
        auto& section = page.turns[library];
        if (!section) section = std::make_shared<MervaneCritSec>();
        return section;
    });
}

}  // namespace

Turn::Turn(const void* library) : m_section(sectionOf(library)), m_lock(*m_section) {}

void enter(const CK_FUNCTION_LIST* module, bool initialisedByUs) {
    theBook.get().withPage([&](Page& page) {
        Use& use = page.uses[module];
        ++use.numUsers;
        use.ours = use.ours || initialisedByUs;
    });
}

bool leave(const CK_FUNCTION_LIST* module) noexcept {
    return theBook.get().withPage([module](Page& page) {
        const auto use = page.uses.find(module);
        if (use == page.uses.end() || --use->second.numUsers > 0) return false;
        const bool ours = use->second.ours;
        page.uses.erase(use);
        return ours;
    });
}

void forget(const CK_FUNCTION_LIST* module) noexcept {
    theBook.get().withPage([module](Page& page) {
        const auto use = page.uses.find(module);
        if (use != page.uses.end() && --use->second.numUsers <= 0) page.uses.erase(use);
    });
}

}  // namespace mervane::ledger

// A PC/SC library whose answers the test sets. Loaded before the first look for readers, it is what the loader finds under
// its name.

#include "tests/fake/pcsc.h"

#include <algorithm>
#include <cstring>

namespace {

mervane::fake::Pcsc answers;

struct State {
    const char* name;
    void* userData;
    unsigned long currentState, eventState, atrSize;
    unsigned char atr[33];
};

}  // namespace

extern "C" {

mervane::fake::Pcsc* fakePcsc() { return &answers; }

long SCardEstablishContext(unsigned long, const void*, const void*, long* context) {
    *context = 7;
    answers.numOpen += answers.establish == 0 ? 1 : 0;
    return answers.establish;
}

long SCardReleaseContext(long context) {
    answers.numOpen -= context == 7 ? 1 : 0;
    return 0;
}

long SCardListReaders(long, const char*, char* readers, unsigned long* size) {
    if (answers.list != 0) return answers.list;
    if (readers == nullptr && answers.isGrowing) answers.names.insert(0, "One more\0", 9);
    const bool fits = *size >= answers.names.size();
    *size = answers.claimedSize != 0 ? answers.claimedSize : answers.names.size();
    if (readers == nullptr) return 0;
    if (!fits) return static_cast<long>(0x80100008);
    std::copy(answers.names.begin(), answers.names.end(), readers);
    return 0;
}

long SCardGetStatusChange(long, unsigned long, void* states, unsigned long count) {
    for (unsigned long i = 0; i < count; ++i) {
        State& state = static_cast<State*>(states)[i];
        state.eventState = answers.eventState;
        state.atrSize = answers.atrSize;
        std::memset(state.atr, 0x3B, sizeof state.atr);
    }
    return answers.status;
}
}

#ifndef MERVANE_TESTS_FAKE_PCSC_H
#define MERVANE_TESTS_FAKE_PCSC_H

#include <string>

namespace mervane::fake {

// What the PC/SC library answers. Codes are its own.
struct Pcsc {
    long establish = 0, list = 0, status = 0;
    std::string names;              // each ended by a NUL, and another one at the end
    unsigned long claimedSize = 0;  // of the names, unless 0
    bool isGrowing = false;         // another reader comes between any two questions
    unsigned long eventState = 0;
    unsigned long atrSize = 0;
    int numOpen = 0;  // contexts
};

}  // namespace mervane::fake

extern "C" mervane::fake::Pcsc* fakePcsc();

#endif

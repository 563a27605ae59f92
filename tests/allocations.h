#ifndef MERVANE_TESTS_ALLOCATIONS_H
#define MERVANE_TESTS_ALLOCATIONS_H

#include <atomic>

/// Memory that runs out on demand: the program's operator new fails once, or from then on.
namespace mervane::test::allocations {

extern std::atomic<long> left;             ///< allocations until one fails; -1: never
extern std::atomic<bool> failsOnwards;     ///< and all that follow
extern std::atomic<int>* insideModule;     ///< while this is not 0, none fails: the module's own do not count
extern std::atomic<unsigned long> number;  ///< of allocations so far
extern std::atomic<unsigned long> inUse;   ///< bytes, with what the allocator keeps for itself
extern std::atomic<unsigned long> peak;    ///< the most in use at any time

}  // namespace mervane::test::allocations

#endif

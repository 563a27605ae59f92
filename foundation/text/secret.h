#ifndef MERVANE_FOUNDATION_TEXT_SECRET_H
#define MERVANE_FOUNDATION_TEXT_SECRET_H

#include <cstring>
#include <string>

#include <strings.h>

namespace mervane {

// Erasing PINs from memory before it is freed.
//
// A plain memset() of memory about to be freed is a dead store, which the optimiser removes;
// explicit_bzero() is not. Two traps when using it on strings: assigning to a std::string or
// growing it may free the old buffer unwiped, and size() does not cover what a longer, earlier
// value left behind. Keep PINs in XString, which wipes before either can happen.

/// Overwrites `size` bytes with zeros, even if nothing reads them afterwards.
inline void wipe(void* memory, std::size_t size) noexcept {
    if (size != 0) explicit_bzero(memory, size);
}

/// Overwrites the string's whole buffer, including what earlier values left in it, and empties it.
inline void wipe(std::string& text) noexcept {
    text.resize(text.capacity());  // within the capacity: does not allocate
    wipe(text.data(), text.size());
    text.clear();
}

}  // namespace mervane

#endif

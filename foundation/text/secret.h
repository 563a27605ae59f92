#ifndef MERVANE_FOUNDATION_TEXT_SECRET_H
#define MERVANE_FOUNDATION_TEXT_SECRET_H

#include <cstring>
#include <string>

#include <strings.h>

namespace mervane {

/// Overwrites memory in a way that the optimiser may not drop.
inline void wipe(void* memory, std::size_t size) noexcept {
    if (size != 0) explicit_bzero(memory, size);
}

/// Overwrites a string's whole room, what it held before included, and empties it.
inline void wipe(std::string& text) noexcept {
    text.resize(text.capacity());  // within the capacity: does not allocate
    wipe(text.data(), text.size());
    text.clear();
}

}  // namespace mervane

#endif

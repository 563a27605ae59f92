#ifndef MERVANE_CLI_CARDS_H
#define MERVANE_CLI_CARDS_H

#include <string>

#include <mervane/locate/readers.h>

namespace mervane::cli {

/// Whether a driver's module is there.
bool isInstalled(const std::string& path);

// Sentences for a state other than Ready: why there are no readers, and what usually helps.
std::string whyNoReaders(const ReaderList& list);
std::string readersHint(const ReaderList& list);

}  // namespace mervane::cli

#endif

#include "pins.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string_view>
#include <system_error>

#include <mervane/foundation/text/secret.h>

#include "failure.h"
#include "output.h"
#include "terminal.h"

namespace mervane::cli {
namespace {

constexpr int kWriterPatience = 3000;  // milliseconds to wait for the writer of a FIFO

[[noreturn]] void noPin(const std::string& reason) {
    throw CommandError{Exit::Pin, reason, {}};
}

std::string nameOf(WantedPin wanted) {
    return std::string(wanted.isNew ? "new " : "") +
           (wanted.isOfficers ? "security officer PIN" : "user PIN");
}

void checkLine(const SecretLine& line, const std::string& from) {
    if (line.hasFailed()) noPin("The PIN cannot be read from " + from + ".");
    if (!line.isWhole()) noPin("The PIN from " + from + " is too long.");
    if (line.text().find('\0') != std::string_view::npos)
        noPin("The PIN from " + from + " is no text.");
}

// What returned calls left on the stack. A signal handler's frame holds the registers of the
// moment, and with them the piece of a PIN that was copied last.
[[gnu::noinline]] void wipeDeadStack() noexcept {
    std::array<char, 0x10000> dead;  // many times the largest such frame
    wipe(dead.data(), dead.size());
}

// --- The terminal

// What the token says about earlier tries; only the gravest.
std::string stateOf(const PinStatus& pin) {
    if (pin.isLocked) return " (it is locked)";
    if (pin.isLastTry) return " (one more wrong PIN locks it)";
    return pin.isLow ? " (a wrong PIN has been entered since the last right one)" : "";
}

std::string promptFor(WantedPin wanted, const TokenInfo& token) {
    std::string prompt = nameOf(wanted);
    prompt.front() = wanted.isNew ? 'N' : (wanted.isOfficers ? 'S' : 'U');
    const std::string label = printable(token.label);
    prompt += label.empty() ? " of the token in slot " + std::to_string(token.slotId)
                            : " of \"" + label + "\"";
    return wanted.isNew ? prompt
                        : prompt + stateOf(wanted.isOfficers ? token.officerPin : token.userPin);
}

void askOnce(const std::string& prompt, WantedPin wanted, XString& pin) {
    SecretLine line;
    if (!askUnseen(prompt, line))
        noPin("The " + nameOf(wanted) + " is missing, and there is no terminal to ask on.");
    checkLine(line, "the terminal");
    pin.setFromUtf8(line.text());
}

void ask(WantedPin wanted, const TokenInfo& token, XString& pin) {
    const std::string prompt = promptFor(wanted, token);
    askOnce(prompt + ": ", wanted, pin);
    if (!wanted.isNew || pin.isEmpty()) return;
    XString again;
    askOnce(prompt + ", again: ", wanted, again);
    if (pin.view() != again.view())
        noPin("The " + nameOf(wanted) + " was not typed the same twice; nothing was changed.");
}

// --- Files

std::string whyNotOpened(int error, const std::string& path) {
    if (error == ENOENT || error == ENOTDIR) return "no file " + path;
    if (error == EACCES) return path + " may not be read";
    return path + " cannot be opened (" + std::system_category().message(error) + ")";
}

// One byte of a file opened with O_NONBLOCK. A FIFO is at its end when somebody has written to it
// and nobody has it open for writing any more.
ssize_t readByte(int descriptor, bool isFifo, const std::string& path, char& byte) {
    for (;;) {
        const ssize_t count = ::read(descriptor, &byte, 1);
        const bool hasWriter = count < 0 && errno == EAGAIN;
        if (count < 0 && errno == EINTR) continue;
        if (count > 0 || (!hasWriter && (count < 0 || !isFifo))) return count;
        pollfd awaited{descriptor, POLLIN, 0};
        const int numReady = ::poll(&awaited, 1, hasWriter ? -1 : kWriterPatience);
        if (numReady == 0) noPin("The PIN is missing: nobody writes to the FIFO " + path + ".");
        if (numReady > 0 && (awaited.revents & POLLIN) == 0) return 0;
    }
}

void readFile(const std::string& name, WantedPin wanted, XString& pin) {
    const std::string path = printable(name);
    const std::string missing = "The " + nameOf(wanted) + " is missing: ";
    const File file(name.c_str(), O_RDONLY | O_NONBLOCK);
    if (file.descriptor() < 0) noPin(missing + whyNotOpened(errno, path) + ".");
    struct stat status {};
    ::fstat(file.descriptor(), &status);
    if (S_ISDIR(status.st_mode)) noPin(missing + path + " is a directory.");
    if (S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0)
        remark("Other users may read the PIN in " + path + ".");
    SecretLine line;
    line.read([&](char& byte) {
        return readByte(file.descriptor(), S_ISFIFO(status.st_mode), path, byte);
    });
    checkLine(line, path);
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    const bool isMarked = line.text().starts_with(kByteOrderMark);
    pin.setFromUtf8(line.text().substr(isMarked ? kByteOrderMark.size() : 0));
}

}  // namespace

int guardPins(const std::function<int()>& program) {
    ::prctl(PR_SET_DUMPABLE, 0);
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);  // holds for what a module starts as well
    try {
        return program();
    } catch (const Interrupted& interrupted) {
        wipeDeadStack();
        static_cast<void>(::raise(interrupted.signal));
        return 128 + interrupted.signal;  // as a shell reports it; the signal is blocked
    }
}

const std::optional<std::string>& loginSource(const Options& options) {
    return options.asOfficer && options.soPin ? options.soPin : options.pin;
}

bool isAsked(const std::optional<std::string>& source) {
    return !source || *source == "-";
}

Pins::Pins(const Options& options) {
    for (const auto* source : {&options.pin, &options.soPin, &options.newPin, &options.signPin}) {
        if (*source && (*source)->starts_with("env:")) take(**source);
    }
}

void Pins::take(const std::string& source) {
    const std::string name = source.substr(4);
    const char* const value = std::getenv(name.c_str());
    if (value == nullptr) return;  // taken already, or never set: reported when it is needed
    m_taken[source].setFromUtf8(value);
    // Whoever starts a program may give it a variable more than once.
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        if (!text.starts_with(name + "=")) continue;
        wipe(*entry + name.size() + 1, text.size() - name.size() - 1);
    }
    ::unsetenv(name.c_str());
}

void Pins::read(const std::optional<std::string>& source, WantedPin wanted, const TokenInfo& token,
                XString& pin) const {
    if (!source && token.hasPinPad) return;
    if (isAsked(source)) {
        ask(wanted, token, pin);
    } else if (source->starts_with("env:")) {
        const auto taken = m_taken.find(*source);
        if (taken == m_taken.end())
            noPin("The " + nameOf(wanted) + " is missing: no environment variable " +
                  printable(source->substr(4)) + ".");
        pin = taken->second;
    } else {
        readFile(source->substr(5), wanted, pin);
    }
    // An empty PIN would be tried on the token like any other.
    if (pin.isEmpty()) noPin("The " + nameOf(wanted) + " is empty.");
}

}  // namespace mervane::cli

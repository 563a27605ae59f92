#include "pins.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string_view>

#include <mervane/foundation/text/secret.h>

#include "failure.h"
#include "output.h"

namespace mervane::cli {
namespace {

volatile std::sig_atomic_t caughtSignal = 0;

[[noreturn]] void noPin(const std::string& reason) {
    throw Failure{Exit::Pin, reason, {}};
}

class File {
  public:
    File(const char* path, int flags) : m_descriptor(::open(path, flags | O_CLOEXEC)) {}
    ~File() {
        if (m_descriptor >= 0) ::close(m_descriptor);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    [[nodiscard]] int descriptor() const noexcept { return m_descriptor; }

  private:
    int m_descriptor;
};

// Turns the echo off for the length of a scope, and sees to it that a signal which ends the process
// finds it on again.
class SilentTerminal {
  public:
    explicit SilentTerminal(int descriptor) : m_descriptor(descriptor) {
        caughtSignal = 0;
        struct sigaction action {};
        action.sa_handler = [](int number) { caughtSignal = number; };
        for (std::size_t i = 0; i < kSignals.size(); ++i)
            ::sigaction(kSignals[i], &action, &m_actions[i]);
        action.sa_handler = SIG_IGN;  // a stopped program would leave the terminal silent
        ::sigaction(SIGTSTP, &action, &m_stopAction);
        m_silenced = ::tcgetattr(descriptor, &m_attributes) == 0;
        termios silent = m_attributes;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        if (m_silenced) ::tcsetattr(descriptor, TCSAFLUSH, &silent);
    }
    ~SilentTerminal() {
        if (m_silenced) ::tcsetattr(m_descriptor, TCSAFLUSH, &m_attributes);
        for (std::size_t i = 0; i < kSignals.size(); ++i)
            ::sigaction(kSignals[i], &m_actions[i], nullptr);
        ::sigaction(SIGTSTP, &m_stopAction, nullptr);
        if (caughtSignal != 0) static_cast<void>(::raise(caughtSignal));
    }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;

  private:
    static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

    int m_descriptor;
    bool m_silenced = false;
    termios m_attributes{};
    std::array<struct sigaction, kSignals.size()> m_actions{};
    struct sigaction m_stopAction {};
};

// The first line, without its end. Read into memory that is wiped; no stream keeps a copy.
void readLine(int descriptor, XString& line, const std::string& from) {
    std::array<char, 256> bytes{};  // longer than any PIN that PKCS#11 tokens take
    std::size_t size = 0;
    ssize_t count = 1;
    bool ended = false;
    while (!ended && size < bytes.size()) {
        count = ::read(descriptor, bytes.data() + size, 1);
        ended = count <= 0 || bytes[size] == '\n' || bytes[size] == '\r';
        if (!ended) ++size;
    }
    line.setFromUtf8({bytes.data(), size});
    wipe(bytes.data(), bytes.size());
    const bool isText = line.view().find('\0') == std::string_view::npos;
    if (ended && count >= 0 && isText) return;
    line.clear();
    if (count < 0) noPin("The PIN cannot be read from " + from + ".");
    noPin("The PIN from " + from + (isText ? " is too long." : " is no text."));
}

void promptForPin(const std::string& prompt, XString& pin) {
    const File terminal("/dev/tty", O_RDWR);
    if (terminal.descriptor() < 0)
        noPin("The " + prompt + " is missing, and there is no terminal to ask on.");
    const SilentTerminal silent(terminal.descriptor());
    std::cerr << prompt << ": " << std::flush;
    // The line end that was typed was not echoed.
    struct LineEnd {
        ~LineEnd() { std::cerr << '\n'; }
    } const lineEnd;
    readLine(terminal.descriptor(), pin, "the terminal");
}

}  // namespace

void readPin(const std::optional<std::string>& source, const std::string& prompt, XString& pin) {
    if (!source || *source == "-") {
        promptForPin(prompt, pin);
    } else if (source->starts_with("env:")) {
        const std::string name = source->substr(4);
        const char* const value = std::getenv(name.c_str());
        if (value == nullptr)
            noPin("The " + prompt + " is missing: no environment variable " + printable(name) +
                  ".");
        pin.setFromUtf8(value);
    } else {
        const std::string path = source->substr(5);
        const File file(path.c_str(), O_RDONLY);
        if (file.descriptor() < 0)
            noPin("The " + prompt + " is missing: no file " + printable(path) + ".");
        readLine(file.descriptor(), pin, printable(path));
    }
    // An empty PIN would be tried on the token like any other.
    if (pin.isEmpty()) noPin("The " + prompt + " is empty.");
}

void readPinOrLeaveToReader(const std::optional<std::string>& source, const std::string& prompt,
                            bool hasPinPad, XString& pin) {
    if (source || !hasPinPad) readPin(source, prompt, pin);
}

}  // namespace mervane::cli

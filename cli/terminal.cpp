#include "terminal.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <termios.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace mervane::cli {
namespace {

std::atomic<int> caughtSignal = 0;
static_assert(std::atomic<int>::is_always_lock_free, "set by a signal handler");

// Wakes the prompt, whichever thread a signal came to: a module may have threads. Never closed,
// since another thread's handler may be late.
int wakeDescriptor() {
    static const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return descriptor;
}

void onSignal(int number) {
    const int error = errno;
    caughtSignal = number;
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeDescriptor(), &one, sizeof one);
    errno = error;
}

void throwIfInterrupted() {
    if (caughtSignal != 0) throw Interrupted{caughtSignal};
}

// For the length of a scope, catches what would end the program. A signal that is ignored, or that
// somebody handles, does not end it and stays as it is.
class CaughtSignals {
  public:
    CaughtSignals() {
        caughtSignal = 0;
        wakeDescriptor();  // made here: a handler may not
        for (std::size_t i = 0; i < kSignals.size(); ++i) {
            ::sigaction(kSignals[i], nullptr, &m_former[i]);
            if (m_former[i].sa_handler != SIG_DFL) continue;
            struct sigaction action {};
            // A stopped program would leave the terminal silent.
            action.sa_handler = kSignals[i] == SIGTSTP ? SIG_IGN : onSignal;
            ::sigaction(kSignals[i], &action, nullptr);
        }
    }
    ~CaughtSignals() {
        for (std::size_t i = 0; i < kSignals.size(); ++i)
            ::sigaction(kSignals[i], &m_former[i], nullptr);
    }
    CaughtSignals(const CaughtSignals&) = delete;
    CaughtSignals& operator=(const CaughtSignals&) = delete;

  private:
    static constexpr std::array kSignals = {SIGHUP,  SIGINT,  SIGQUIT, SIGPIPE, SIGALRM,
                                            SIGTERM, SIGUSR1, SIGUSR2, SIGTSTP};

    std::array<struct sigaction, kSignals.size()> m_former{};
};

// Gives up on a terminal whose output is stopped when a signal comes.
void print(int terminal, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(terminal, text.data(), text.size());
        if (count < 0 && (errno != EINTR || caughtSignal != 0)) return;
        if (count > 0) text.remove_prefix(static_cast<std::size_t>(count));
    }
}

// The echo off for the length of a scope. What was typed before or is left over is thrown away: it
// is part of a PIN, and the shell would show it. Nothing waits for the output to drain.
class Silence {
  public:
    explicit Silence(int terminal) : m_terminal(terminal) {
        m_isKept = ::tcgetattr(terminal, &m_former) == 0;
        termios silent = m_former;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        m_isKept = m_isKept && set(silent);
        if (m_isKept) ::tcflush(terminal, TCIFLUSH);
    }
    ~Silence() {
        if (!m_isKept) return;
        ::tcflush(m_terminal, TCIFLUSH);
        set(m_former);
        print(m_terminal, "\n");  // the one that was typed was not echoed
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;
    [[nodiscard]] bool isKept() const noexcept { return m_isKept; }

  private:
    bool set(const termios& attributes) const {
        int result = -1;
        do {
            result = ::tcsetattr(m_terminal, TCSANOW, &attributes);
        } while (result != 0 && errno == EINTR);
        return result == 0;
    }

    int m_terminal;
    bool m_isKept = false;
    termios m_former{};
};

ssize_t readTyped(int terminal, char& byte) {
    std::array<pollfd, 2> awaited = {{{terminal, POLLIN, 0}, {wakeDescriptor(), POLLIN, 0}}};
    for (;;) {
        ssize_t count = ::poll(awaited.data(), awaited.size(), -1);
        throwIfInterrupted();
        if (count > 0) count = ::read(terminal, &byte, 1);
        if (count >= 0 || errno != EINTR) return count;
    }
}

}  // namespace

bool askUnseen(const std::string& prompt, SecretLine& answer) {
    const File terminal("/dev/tty", O_RDWR);
    if (terminal.descriptor() < 0) return false;
    bool isAsked = false;
    {
        const CaughtSignals signals;
        const Silence silence(terminal.descriptor());
        isAsked = silence.isKept();
        if (isAsked) {
            print(terminal.descriptor(), prompt);
            answer.read([&](char& byte) { return readTyped(terminal.descriptor(), byte); });
        }
    }
    throwIfInterrupted();  // one that came after the last byte
    return isAsked;
}

}  // namespace mervane::cli

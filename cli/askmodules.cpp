// Asks modules for their tokens without trusting them: each in a process of its own, which is this
// program again with the command ask-module. That prints the discovery document, or a failure's, on
// its standard output.
//
// PINs named by env:NAME have left the environment before a module is asked (see pins.h), and a
// child gets none of the tool's descriptors, so no child inherits a PIN.

#include "askmodules.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <system_error>

#include "commands.h"
#include "failure.h"

namespace mervane::cli {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxAnswer = 8 << 20;  // bytes; no honest module needs as many

// One module, and the process that asks it.
class Child {
  public:
    Child(const ModuleInfo& module, std::chrono::seconds limit)
        : m_answer{module}, m_limit(limit), m_end(Clock::now() + limit) {
        start();
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (m_pid > 0) end();
        if (m_output >= 0) ::close(m_output);
    }

    [[nodiscard]] bool isRunning() const noexcept { return m_pid > 0; }
    [[nodiscard]] pollfd pollEntry() const noexcept { return {m_output, POLLIN, 0}; }
    ModuleAnswer& answer() noexcept { return m_answer; }

    // Takes what the child has written, and its end.
    void go(Clock::time_point now) {
        read();
        int status = 0;
        const pid_t ended = ::waitpid(m_pid, &status, WNOHANG);
        if (ended == m_pid) {
            read();  // what it wrote last; whatever it started may hold the pipe open
            endGroup();
            conclude(status);
        } else if (ended < 0 && errno != EINTR) {
            fail(errno);
            endGroup();
        } else if (now >= m_end || m_text.size() > kMaxAnswer) {
            end();
            const bool isLate = now >= m_end;
            m_answer.outcome =
                isLate ? ModuleAnswer::Outcome::Silent : ModuleAnswer::Outcome::Failed;
            m_answer.message = isLate
                                   ? "gave no answer in " + std::to_string(m_limit.count()) + " s"
                                   : "gave an endless answer";
        }
    }

  private:
    void start() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            fail(errno);
            return;
        }
        m_output = ends[0];
        ::fcntl(m_output, F_SETFL, O_NONBLOCK);
        posix_spawn_file_actions_t actions{};
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
        posix_spawnattr_t attributes{};
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        std::array<std::string, 7> words = {"mervane-p11",
                                            "ask-module",
                                            "--json",
                                            "--",
                                            m_answer.module.path,
                                            m_answer.module.initArgs,
                                            std::to_string(::getpid())};
        std::array<char*, words.size() + 1> arguments{};
        std::ranges::transform(words, arguments.begin(), [](std::string& w) { return w.data(); });
        const int error = ::posix_spawn(&m_pid, "/proc/self/exe", &actions, &attributes,
                                        arguments.data(), environ);
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        if (error == 0) return;
        m_pid = 0;
        fail(error);
    }

    void fail(int error) {
        m_answer.message = "could not be asked: " + std::generic_category().message(error);
    }

    void read() {
        std::array<char, 16384> room{};
        while (m_output >= 0 && m_text.size() <= kMaxAnswer) {
            const ssize_t size = ::read(m_output, room.data(), room.size());
            if (size > 0) {
                m_text.append(room.data(), static_cast<std::size_t>(size));
            } else if (size < 0 && errno == EINTR) {
                continue;
            } else if (size < 0 && errno == EAGAIN) {
                return;
            } else {
                ::close(m_output);
                m_output = -1;
            }
        }
    }

    void end() {
        ::kill(m_pid, SIGKILL);
        int status = 0;
        while (::waitpid(m_pid, &status, 0) == -1 && errno == EINTR) {
        }
        endGroup();
    }

    // Whatever the module has started goes with it.
    void endGroup() {
        ::kill(-m_pid, SIGKILL);
        m_pid = 0;
    }

    void conclude(int status) {
        if (WIFSIGNALED(status)) {
            const char* const name = ::sigabbrev_np(WTERMSIG(status));
            m_answer.outcome = ModuleAnswer::Outcome::Crashed;
            m_answer.message = "crashed (" +
                               (name == nullptr ? "signal " + std::to_string(WTERMSIG(status))
                                                : "SIG" + std::string(name)) +
                               ")";
            return;
        }
        ClsJsonObject document;
        LogNull log;
        if (!document.loadJson(m_text, log)) {
            m_answer.message = "gave no answer that can be read";
        } else if (const JsonValue* const error = document.valueAt("error")) {
            const std::string text = textOf(*error, "message");
            m_answer.message = text.substr(0, text.find('\n'));
            m_answer.hint = textOf(*error, "hint");
            m_answer.kind = textOf(*error, "kind");
        } else {
            m_answer.outcome = ModuleAnswer::Outcome::Answered;
            m_answer.document = std::move(document.root());
        }
    }

    ModuleAnswer m_answer;
    std::chrono::seconds m_limit;
    Clock::time_point m_end;
    pid_t m_pid = 0;
    int m_output = -1;
    std::string m_text;
};

// Until something happens, but for a short while only: the end of a child is no event of its pipe.
void waitForAny(std::span<const std::unique_ptr<Child>> children) {
    std::vector<pollfd> entries;
    bool isAnyClosed = false;
    for (const auto& child : children) {
        if (!child->isRunning()) continue;
        entries.push_back(child->pollEntry());
        isAnyClosed = isAnyClosed || entries.back().fd < 0;
    }
    ::poll(entries.data(), entries.size(), isAnyClosed ? 1 : 50);
}

}  // namespace

std::string_view nameOf(ModuleAnswer::Outcome outcome) noexcept {
    constexpr std::array<std::string_view, 4> kNames = {"answered", "failed", "crashed", "silent"};
    return kNames[static_cast<std::size_t>(outcome)];
}

std::vector<ModuleAnswer> askModules(std::span<const ModuleInfo> modules,
                                     std::chrono::seconds limit) {
    // Ignored, as a parent may leave it, it would keep the ends of children from us.
    static_cast<void>(std::signal(SIGCHLD, SIG_DFL));
    std::vector<std::unique_ptr<Child>> children;
    for (const ModuleInfo& module : modules)
        children.push_back(std::make_unique<Child>(module, limit));
    const auto isRunning = [](const auto& child) { return child->isRunning(); };
    while (std::ranges::any_of(children, isRunning)) {
        waitForAny(children);
        const auto now = Clock::now();
        for (const auto& child : children) {
            if (child->isRunning()) child->go(now);
        }
    }
    std::vector<ModuleAnswer> answers;
    answers.reserve(children.size());
    for (const auto& child : children) answers.push_back(std::move(child->answer()));
    return answers;
}

std::vector<LocatedToken> tokensIn(std::span<const ModuleAnswer> answers) {
    std::vector<LocatedToken> tokens;
    for (const ModuleAnswer& answer : answers) addTokens(answer.document, answer.module, tokens);
    return tokens;
}

JsonValue unansweredIn(std::span<const ModuleAnswer> answers) {
    JsonValue list = JsonValue::array();
    for (const ModuleAnswer& answer : answers) {
        if (answer.hasAnswered()) continue;
        JsonValue& entry = list.append(JsonValue::object());
        entry.set("module", answer.module.name);
        entry.set("path", answer.module.path);
        entry.set("outcome", nameOf(answer.outcome));
        entry.set("message", answer.message);
        entry.set("hint", answer.hint.empty() ? JsonValue() : JsonValue(answer.hint));
    }
    return list;
}

std::string lineFor(const ModuleAnswer& answer) {
    const bool isSentence = answer.outcome == ModuleAnswer::Outcome::Failed;
    return printable(answer.module.name) + (isSentence ? ": " : " ") + printable(answer.message) +
           (isSentence ? "" : ".");
}

// The child's side. It goes when its parent does, and keeps what the module prints, while it is
// asked and when it is finalised, out of the answer.
Exit runAskModule(ClsPkcs11& p11, const Options& options) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (options.arguments[2] != std::to_string(::getppid())) return Exit::Module;
    const int output = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);  // which leads to /dev/null
    p11.put_SharedLibPath(options.arguments[0]);
    p11.put_InitArgs(options.arguments[1]);
    p11.put_Options("Pkcs11DiscoverSkipMechanisms");
    ClsJsonObject document;
    const bool isDescribed = p11.Discover(true, document);
    static_cast<void>(std::fflush(nullptr));  // what the module has printed so far
    ::dup2(output, STDOUT_FILENO);
    if (isDescribed) {
        printJson(document.root());
    } else {
        try {
            throwLastFailure(p11);
        } catch (const CommandError& error) {
            printError(error, true);
        }
    }
    std::cout.flush();
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    ::close(output);
    return isDescribed ? Exit::Done : Exit::Module;
}

}  // namespace mervane::cli

// sign: signatures of files, all in one login.
//
// What can be refused is refused before a PIN is asked for: inputs that cannot be opened, outputs
// that are folders, options that mean nothing together. A signature is written when it is whole, so
// a failure leaves no file behind.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <set>
#include <system_error>

#include <mervane/foundation/text/hex.h>

#include "certview.h"
#include "commands.h"
#include "output.h"
#include "parts.h"
#include "savefile.h"
#include "token.h"

namespace mervane::cli {
namespace {

struct Job {
    std::string input;   // "-" is standard input
    std::string output;  // "-" is standard output
};

[[noreturn]] void cannotRead(const std::string& name, int error) {
    throw CommandError{
        Exit::Module,
        printable(name) + " cannot be read: " + std::system_category().message(error) + ".",
        {}};
}

// A line on the terminal that is written over; nothing where standard error is none.
class Progress {
  public:
    explicit Progress(std::size_t numJobs) : m_numJobs(numJobs) {}
    ~Progress() { wipe(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void begin(const std::string& name, std::uint64_t size) {
        m_text =
            (m_numJobs > 1 ? std::to_string(++m_number) + " of " + std::to_string(m_numJobs) + ": "
                           : "") +
            printable(name);
        m_size = size;
        m_done = 0;
        if (m_numJobs > 1) show({});
    }
    void add(std::size_t numBytes) {
        constexpr std::uint64_t kLong = 64 << 20;  // bytes; takes a moment
        m_done += numBytes;
        if (m_size >= kLong) show(" " + std::to_string(m_done * 100 / m_size) + " %");
    }

  private:
    void show(const std::string& more) {
        const auto now = std::chrono::steady_clock::now();
        if (!m_isShown || now - m_last < std::chrono::milliseconds(100)) return;
        m_last = now;
        std::cerr << "\r\033[K" << m_text << more << std::flush;
        m_wasShown = true;
    }
    void wipe() const {
        if (m_wasShown) std::cerr << "\r\033[K" << std::flush;
    }

    std::size_t m_numJobs;
    std::size_t m_number = 0;
    std::string m_text;
    std::uint64_t m_size = 0;
    std::uint64_t m_done = 0;
    bool m_isShown = ::isatty(STDERR_FILENO) == 1;
    bool m_wasShown = false;
    std::chrono::steady_clock::time_point m_last;
};

class Input {
  public:
    explicit Input(const std::string& name)
        : m_descriptor(name == "-" ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_CLOEXEC)) {
        struct stat status {};
        if (m_descriptor < 0 || ::fstat(m_descriptor, &status) != 0) cannotRead(name, errno);
        m_size = S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
    }
    ~Input() {
        if (m_descriptor > STDIN_FILENO) ::close(m_descriptor);
    }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    [[nodiscard]] std::uint64_t size() const noexcept { return m_size; }
    // The errno of a read that failed, or 0.
    [[nodiscard]] int error() const noexcept { return m_error; }

    std::ptrdiff_t read(std::span<std::uint8_t> room) {
        for (;;) {
            const ssize_t size = ::read(m_descriptor, room.data(), room.size());
            if (size < 0 && errno == EINTR) continue;
            if (size < 0) m_error = errno;
            return size;
        }
    }

  private:
    int m_descriptor;
    std::uint64_t m_size = 0;
    int m_error = 0;
};

std::string formatOf(const Options& options) {
    if (options.format) return *options.format;
    return options.outDir || (options.out && options.out->ends_with(".p7s")) ? "cms" : "der";
}

void checkOptions(const Options& options) {
    if (!options.out && !options.outDir) usageError("sign needs --out FILE or --out-dir DIR.");
    if (options.out && options.arguments.size() > 1)
        usageError("Several files are signed with --out-dir DIR.");
    if (options.out == "-" && options.json)
        usageError("--out - and --json cannot both be printed.");
    if (formatOf(options) != "cms" && (options.attached || options.chain))
        usageError(std::string(options.attached ? "--attached" : "--chain") +
                   " is for --format cms.");
}

// Without opening it: that would take the place of the one reader of a FIFO.
void checkInput(const std::string& name) {
    std::error_code error;
    if (std::filesystem::is_directory(name, error)) cannotRead(name, EISDIR);
    if (::access(name.c_str(), R_OK) != 0) cannotRead(name, errno);
}

void checkOutput(const std::string& path) {
    std::error_code error;
    if (path != "-" && std::filesystem::is_directory(path, error))
        throw CommandError{Exit::Module, printable(path) + " is a folder.", {}};
}

std::vector<Job> jobsOf(const Options& options) {
    std::error_code error;
    if (options.outDir && !std::filesystem::is_directory(*options.outDir, error))
        throw CommandError{
            Exit::Module, "There is no folder " + printable(*options.outDir) + ".", {}};
    std::vector<Job> jobs;
    std::set<std::string> names;
    const std::string suffix = formatOf(options) == "cms" ? ".p7s" : ".sig";
    for (const std::string& input : options.arguments) {
        if (input == "-" && options.outDir) usageError("Standard input is signed with --out FILE.");
        const auto name = std::filesystem::path(input).filename().string();
        if (!names.insert(name).second)
            usageError("Two of the files have the name " + printable(name) + ".");
        jobs.push_back(
            {input, options.out
                        ? *options.out
                        : (std::filesystem::path(*options.outDir) / (name + suffix)).string()});
        checkOutput(jobs.back().output);
        if (input != "-") checkInput(input);
    }
    return jobs;
}

SignerQuery queryOf(const Options& options) {
    SignerQuery query;
    if (options.uri && options.uri->id)
        query.id = toHex(std::span(reinterpret_cast<const std::uint8_t*>(options.uri->id->data()),
                                   options.uri->id->size()));
    if (options.uri && options.uri->type != "private") query.label = options.uri->object;
    for (const auto& [word, value] : options.certParts) {
        const Part& part = partOf(word);
        const std::string form = comparable(part, value);
        if (part.name == "label") {
            query.label = form;
        } else if (part.name == "id") {
            query.id = form;
        } else if (part.name == "sha256") {
            query.sha256 = form;
        } else {
            query.parts.emplace_back(partNameFor(word), form);
        }
    }
    return query;
}

std::vector<std::uint8_t> signedFile(ClsPkcs11& p11, ClsCert& cert, const Options& options,
                                     const Job& job, Progress& progress) {
    Input input(job.input);
    progress.begin(job.input, input.size());
    const DataReader reader = [&](std::span<std::uint8_t> room) {
        const std::ptrdiff_t size = input.read(room);
        if (size > 0) progress.add(static_cast<std::size_t>(size));
        return size;
    };
    std::vector<std::uint8_t> out;
    const std::string format = formatOf(options);
    SignOptions signing = options.signing;
    signing.ecdsaForm = format == "raw" ? EcdsaForm::Raw : EcdsaForm::Der;
    const bool isSigned = format == "cms" ? p11.SignCms(cert, reader,
                                                        {.hash = signing.hash,
                                                         .padding = signing.padding,
                                                         .isAttached = options.attached,
                                                         .withIssuers = options.chain},
                                                        out)
                                          : p11.SignData(cert, reader, signing, out);
    if (input.error() != 0) cannotRead(job.input, input.error());
    if (!isSigned) throwLastFailure(p11);
    return out;
}

void printDone(const std::vector<Job>& jobs, ClsCert& cert, const TokenInfo& token,
               const Options& options) {
    if (!options.json) {
        for (const Job& job : jobs) {
            if (job.output != "-")
                std::cout << printable(job.output) << ": signed by " << printable(whoFor(cert))
                          << '\n';
        }
        return;
    }
    JsonPrinter document;
    document.text("format", formatOf(options));
    document.text("subject", read(cert, &ClsCert::get_SubjectDN));
    document.text("sha256Thumbprint", read(cert, &ClsCert::get_Sha256Thumbprint));
    document.text("uri", uriOfCert(token, cert).text());
    document.beginList("signatures");
    for (const Job& job : jobs) {
        document.beginItem();
        document.text("file", job.input);
        document.text("out", job.output);
        document.endItem();
    }
    document.endList();
    document.finish();
}

}  // namespace

Exit runSign(ClsPkcs11& p11, const Options& options) {
    checkOptions(options);
    const std::vector<Job> jobs = jobsOf(options);
    const SignerQuery query = queryOf(options);
    const OpenedToken opened = openToken(p11, options, LoginIf::ToSign);
    ClsCert cert;
    if (!p11.FindSigner(query, cert)) throwLastFailure(p11);
    {
        Progress progress(jobs.size());
        for (const Job& job : jobs) {
            const auto made = signedFile(p11, cert, options, job, progress);
            saveFile(job.output, std::string(made.begin(), made.end()));
        }
    }
    printDone(jobs, cert, opened.token, options);
    return Exit::Done;
}

}  // namespace mervane::cli

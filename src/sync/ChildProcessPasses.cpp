#include "sync/ChildProcessPasses.h"

#include "cloud/CloudAccount.h"
#include "platform/GlibOwners.h"
#include "platform/Log.h"
#include "platform/Translation.h"
#include "sync/PassReport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace almanor {

namespace {

// The child's fds for the password it is given and for its report.
constexpr int passwordFd = 3;
constexpr int reportFd = 4;
// A log line longer than this is cut.
constexpr std::size_t maxLogLine = 4096;

void wipe(std::string& text) {
    std::fill(text.begin(), text.end(), '\0');
    text.clear();
}

struct Fd {
    int fd = -1;
    Fd() = default;
    explicit Fd(int f) : fd(f) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    void reset() {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
};

// A pipe whose ends are above the child's fixed fds, so that the spawn's dup2 always makes a copy
// without FD_CLOEXEC.
bool openPipe(Fd& read, Fd& write) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        return false;
    read.fd = ::fcntl(ends[0], F_DUPFD_CLOEXEC, 10);
    write.fd = ::fcntl(ends[1], F_DUPFD_CLOEXEC, 10);
    ::close(ends[0]);
    ::close(ends[1]);
    return read.fd >= 0 && write.fd >= 0;
}

// The child's standard error, split into log lines.
class LogLines {
  public:
    void feed(std::string_view piece) {
        for (char c : piece) {
            if (c == '\n') {
                flush();
            } else if (line_.size() < maxLogLine) {
                line_ += c;
            }
        }
    }
    void flush() {
        if (!line_.empty() && line_.back() == '\r')
            line_.pop_back();
        if (!line_.empty())
            Log::forward(line_);
        line_.clear();
    }

  private:
    std::string line_;
};

// Reads what `fd` holds now into `take`; false once it has ended.
template <class Take> bool readAvailable(int fd, Take&& take) {
    std::array<char, 4096> buffer{};
    for (;;) {
        ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n > 0) {
            take(std::string_view(buffer.data(), std::size_t(n)));
            std::fill(buffer.begin(), buffer.end(), '\0');
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return n < 0 && errno == EAGAIN;
        }
    }
}

// Forks `argv` with the report pipe's write end at reportFd and, when there is one, the password
// pipe's read end at passwordFd; its standard error comes back in `errors`.
bool spawn(const std::vector<std::string>& args, const Fd& passwordRead, const Fd& reportWrite,
           GPid& pid, Fd& errors) {
    std::vector<const char*> argv;
    argv.reserve(args.size() + 1);
    for (const auto& a : args)
        argv.push_back(a.c_str());
    argv.push_back(nullptr);
    std::array<int, 2> sources{reportWrite.fd, passwordRead.fd};
    std::array<int, 2> targets{reportFd, passwordFd};
    glib::Error error;
    int stderrFd = -1;
    // Not reaped by GLib: this thread waits for it, and kills it while its pid is still its own.
    if (!g_spawn_async_with_pipes_and_fds(
            nullptr, argv.data(), nullptr,
            GSpawnFlags(G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDOUT_TO_DEV_NULL |
                        G_SPAWN_CLOEXEC_PIPES),
            nullptr, nullptr, -1, -1, -1, sources.data(), targets.data(),
            passwordRead.fd >= 0 ? 2 : 1, &pid, nullptr, nullptr, &stderrFd, glib::out(error))) {
        Log::error(std::string("Failed to start the sync: ") +
                   (error ? error->message : "unknown error"));
        return false;
    }
    errors.fd = stderrFd;
    return true;
}

std::string howItEnded(int status) {
    if (WIFEXITED(status))
        return "with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status))
        return "by signal " + std::to_string(WTERMSIG(status));
    return "abnormally";
}

// Ends the child: SIGTERM lets it cut its pass off as a quitting process does (and a password
// command it started with it); one that has not ended within a second is killed.
void end(GPid pid, int& status) {
    ::kill(pid, SIGTERM);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < until) {
        if (::waitpid(pid, &status, WNOHANG) == pid)
            return;
        ::usleep(10000);
    }
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

PassResult notAvailable() {
    Log::debug("Cloud not available for syncing");
    PassResult result;
    result.problem = _("the cloud is not available");
    result.unavailable = true;
    return result;
}

} // namespace

// How a child ended.
struct ChildEnding {
    bool started = false;
    bool stopped = false;  // this process stopped it
    bool timedOut = false; // it ran out of time
    int status = 0;
};

namespace {

// Follows a started child to its end: reads its report and its log lines as they come, and ends
// it at `deadline` or once something is written to `wake`.
void follow(GPid pid, Fd& reportRead, Fd& errors, PassReport& report, int wake,
            const std::atomic<bool>& stopping, std::chrono::steady_clock::time_point deadline,
            ChildEnding& ending) {
    LogLines lines;
    auto toReport = [&](std::string_view piece) { report.feed(piece); };
    auto toLog = [&](std::string_view piece) { lines.feed(piece); };
    bool exited = false;
    for (;;) {
        exited = ::waitpid(pid, &ending.status, WNOHANG) == pid;
        if (exited)
            break;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            ending.timedOut = true;
            break;
        }
        // The report ends when the child does; after that only its exit is waited for.
        int wait = reportRead.fd >= 0 ? 1000 : 20;
        std::array<pollfd, 3> fds{
            {{wake, POLLIN, 0}, {reportRead.fd, POLLIN, 0}, {errors.fd, POLLIN, 0}}};
        if (::poll(fds.data(), fds.size(), int(std::min<long long>(left.count(), wait))) < 0 &&
            errno != EINTR) {
            ending.timedOut = true;
            break;
        }
        if (fds[0].revents != 0 || stopping) {
            ending.stopped = true;
            break;
        }
        if (fds[1].revents != 0 && !readAvailable(reportRead.fd, toReport))
            reportRead.reset();
        if (fds[2].revents != 0 && !readAvailable(errors.fd, toLog))
            errors.reset();
    }
    if (!exited)
        end(pid, ending.status);
    g_spawn_close_pid(pid);
    if (!ending.stopped) {
        // What it wrote before it ended; what a process it started writes later is not waited for.
        if (reportRead.fd >= 0)
            readAvailable(reportRead.fd, toReport);
        if (errors.fd >= 0)
            readAvailable(errors.fd, toLog);
        lines.flush();
    }
}

} // namespace

ChildProcessPasses::ChildProcessPasses(std::filesystem::path program, const SettingsFile& defaults,
                                       std::chrono::seconds passLimit)
    : program_(std::move(program)), defaults_(defaults), passLimit_(passLimit) {
    glib::Error error;
    if (!g_unix_open_pipe(wake_, FD_CLOEXEC, glib::out(error)))
        wake_[0] = wake_[1] = -1; // a pass under way then sees stop() within a second
    else
        g_unix_set_fd_nonblocking(wake_[1], TRUE, nullptr);
}

ChildProcessPasses::~ChildProcessPasses() {
    for (int fd : wake_)
        if (fd >= 0)
            ::close(fd);
    wipe(password_);
}

void ChildProcessPasses::stop() {
    stopping_ = true;
    if (wake_[1] >= 0)
        (void)!::write(wake_[1], "x", 1);
}

void ChildProcessPasses::networkCameBack() {
    std::lock_guard lock(mutex_);
    gaveUp_ = false;
}

void ChildProcessPasses::accountChanged() {
    std::lock_guard lock(mutex_);
    gaveUp_ = false;
    wipe(password_);
    ++account_;
}

PassResult ChildProcessPasses::run(const std::function<void()>& pulled) {
    std::string password;
    std::uint64_t account = 0;
    {
        std::lock_guard lock(mutex_);
        if (gaveUp_)
            return notAvailable();
        // Without an account there is nothing to start a child for.
        if (!CloudAccount::load(defaults_)) {
            Log::debug("No CalDAV account configured");
            gaveUp_ = true;
            return notAvailable();
        }
        password = password_;
        account = account_;
    }
    PassReport report(pulled);
    ChildEnding ending = runChild(password, report);
    wipe(password);
    PassResult result;
    if (stopping_)
        return result;
    if (!ending.started) {
        std::lock_guard lock(mutex_);
        gaveUp_ = true;
        return notAvailable();
    }
    if (ending.timedOut) {
        result.problem = "the sync did not end within " + std::to_string(passLimit_.count() / 60) +
                         " min and was stopped";
        Log::error("Failed to sync: " + result.problem);
        return result;
    }
    if (!report.result()) {
        result.problem = "almanor sync ended " + howItEnded(ending.status);
        Log::error("Failed to sync: " + result.problem);
        return result;
    }
    result = *report.result();
    std::lock_guard lock(mutex_);
    // What a child hands on is kept, unless the account changed meanwhile; one it did not hand on
    // (refused, or none was had) is dropped.
    if (account == account_) {
        wipe(password_);
        password_ = report.password();
        gaveUp_ = result.unavailable;
    }
    return result;
}

// Runs one child to its end, or to the pass's time limit, or until this process stops.
ChildEnding ChildProcessPasses::runChild(const std::string& password, PassReport& report) {
    ChildEnding ending;
    Fd passwordRead;
    Fd passwordWrite;
    Fd reportRead;
    Fd reportWrite;
    if (!openPipe(reportRead, reportWrite) ||
        (!password.empty() && !openPipe(passwordRead, passwordWrite))) {
        Log::error("Failed to start the sync: no pipe for it");
        return ending;
    }
    std::vector<std::string> args{program_.string(), "sync", "--report-fd",
                                  std::to_string(reportFd)};
    if (!password.empty()) {
        // Fits the pipe's buffer (PassReport::maxPassword): written before the child runs.
        if (::write(passwordWrite.fd, password.data(), password.size()) !=
            ssize_t(password.size())) {
            passwordRead.reset();
        } else {
            args.insert(args.end(), {"--password-fd", std::to_string(passwordFd)});
        }
        passwordWrite.reset();
    }
    GPid pid = 0;
    Fd errors;
    if (stopping_ || !spawn(args, passwordRead, reportWrite, pid, errors))
        return ending;
    ending.started = true;
    passwordRead.reset();
    reportWrite.reset();
    g_unix_set_fd_nonblocking(reportRead.fd, TRUE, nullptr);
    g_unix_set_fd_nonblocking(errors.fd, TRUE, nullptr);

    follow(pid, reportRead, errors, report, wake_[0], stopping_,
           std::chrono::steady_clock::now() + passLimit_, ending);
    return ending;
}

} // namespace almanor

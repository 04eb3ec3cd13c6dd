#include "cloud/caldav/CloudAccount.h"

#include "cloud/PasswordHandover.h"
#include "cloud/caldav/CalDavService.h"
#include "platform/GlibOwners.h"
#include "platform/SettingsFile.h"
#include "platform/Translation.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <libsecret/secret.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace almanor {

namespace {

const SecretSchema* accountSchema() {
    static const SecretSchema schema = {"com.vostrel.Almanor.CloudAccount",
                                        SECRET_SCHEMA_NONE,
                                        {{"server", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                         {"user", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                         {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                                        0,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr};
    return &schema;
}

struct SecretTextDeleter {
    void operator()(gchar* p) const { secret_password_free(p); }
};

// The one place that turns libsecret's errors into CloudError.
void check(GError* raw, const char* what) {
    glib::Error error(raw);
    if (error)
        throw CloudError(std::string(_(what)) + ": " +
                         (error->message ? error->message : _("unknown keyring error")));
}

struct Fd {
    int fd = -1;
    ~Fd() {
        if (fd >= 0)
            ::close(fd);
    }
};

} // namespace

std::string CloudAccount::password(const std::atomic<bool>* cancelled) const {
    if (!passwordCommand.empty())
        return passwordFromCommand(passwordCommand, {}, cancelled);
    auto found = keyring::lookupPassword(server, user);
    if (!found)
        throw CloudError(formatText(_("no password in the keyring for %s at %s"), {user, server}));
    return *found;
}

namespace keyring {

void storePassword(const std::string& server, const std::string& user,
                   const std::string& password) {
    GError* error = nullptr;
    const std::string label = "Almanor cloud account " + user + " at " + server;
    secret_password_store_sync(accountSchema(), SECRET_COLLECTION_DEFAULT, label.c_str(),
                               password.c_str(), nullptr, &error, "server", server.c_str(), "user",
                               user.c_str(), nullptr);
    check(error, N_("could not store the password in the keyring"));
}

std::optional<std::string> lookupPassword(const std::string& server, const std::string& user) {
    GError* error = nullptr;
    std::unique_ptr<gchar, SecretTextDeleter> found(secret_password_lookup_sync(
        accountSchema(), nullptr, &error, "server", server.c_str(), "user", user.c_str(), nullptr));
    check(error, N_("could not read the password from the keyring"));
    if (!found)
        return std::nullopt;
    return std::string(found.get());
}

void removePassword(const std::string& server, const std::string& user) {
    GError* error = nullptr;
    secret_password_clear_sync(accountSchema(), nullptr, &error, "server", server.c_str(), "user",
                               user.c_str(), nullptr);
    check(error, N_("could not remove the password from the keyring"));
}

} // namespace keyring

namespace {

// Starts `sh -c command` with its standard output into `writeEnd`, in a process group of its own
// so that what it starts is ended with it.
pid_t startPasswordCommand(const std::string& command, const Fd& writeEnd) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.fd, STDOUT_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
    pid_t pid = 0;
    int spawned = posix_spawn(&pid, "/bin/sh", &actions, &attributes,
                              const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0)
        throw CloudError(
            formatText(_("password command could not start: %s"), {std::strerror(spawned)}));
    return pid;
}

// What the command printed and how it ended; `failure` says why it was given up.
struct CommandRun {
    std::string output;
    std::string failure;
    int status = 0;
    bool exited = false;
};

// Reads the command's output until it has exited and its output is drained, within the limits.
void collect(CommandRun& run, pid_t pid, const Fd& readEnd, PasswordCommandLimits limits,
             const std::atomic<bool>* cancelled) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + limits.time;
    bool open = true;
    char buffer[4096];
    while (run.failure.empty() && (open || !run.exited)) {
        if (!run.exited)
            run.exited = ::waitpid(pid, &run.status, WNOHANG) == pid;
        if (Clock::now() >= deadline) {
            run.failure = formatText(_("the password command did not finish within %d s"),
                                     {std::to_string(limits.time.count())});
            break;
        }
        if (cancelled && *cancelled) {
            run.failure = _("the password command was cut off");
            break;
        }
        if (!open) {
            ::usleep(20000);
            continue;
        }
        pollfd p{readEnd.fd, POLLIN, 0};
        // Short waits: a command that exits while something it started keeps the pipe open is
        // done once it has exited and its output is drained.
        int ready = ::poll(&p, 1, run.exited ? 0 : 50);
        if (ready < 0 && errno != EINTR) {
            run.failure = formatText(_("password command: %s"), {std::strerror(errno)});
        } else if (ready > 0) {
            ssize_t n = ::read(readEnd.fd, buffer, sizeof buffer);
            if (n < 0 && errno != EINTR && errno != EAGAIN)
                run.failure = formatText(_("password command: %s"), {std::strerror(errno)});
            else if (n == 0)
                open = false;
            else if (n > 0)
                run.output.append(buffer, std::size_t(n));
            if (run.output.size() > limits.output)
                run.failure = formatText(_("the password command printed more than %zu KiB"),
                                         {std::to_string(limits.output / 1024)});
        } else if (run.exited) {
            open = false; // exited, nothing more to read now
        }
    }
}

} // namespace

std::string passwordFromCommand(const std::string& command, PasswordCommandLimits limits,
                                const std::atomic<bool>* cancelled) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0)
        throw CloudError(formatText(_("password command: %s"), {std::strerror(errno)}));
    Fd readEnd{pipeFds[0]};
    Fd writeEnd{pipeFds[1]};
    pid_t pid = startPasswordCommand(command, writeEnd);
    ::close(writeEnd.fd);
    writeEnd.fd = -1;

    CommandRun run;
    collect(run, pid, readEnd, limits, cancelled);
    if (!run.failure.empty()) {
        ::kill(-pid, SIGKILL);
        while (!run.exited && ::waitpid(pid, &run.status, 0) < 0 && errno == EINTR) {
        }
    }
    std::string first = run.output.substr(0, run.output.find('\n'));
    if (!first.empty() && first.back() == '\r')
        first.pop_back();
    std::fill(run.output.begin(), run.output.end(), '\0');
    if (!run.failure.empty()) {
        std::fill(first.begin(), first.end(), '\0');
        throw CloudError(run.failure);
    }
    int status = run.status;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw CloudError(WIFEXITED(status)
                             ? formatText(_("the password command failed with status %d"),
                                          {std::to_string(WEXITSTATUS(status))})
                             : std::string(_("the password command failed")));
    if (first.empty())
        throw CloudError(_("the password command printed no password"));
    return first;
}

std::shared_ptr<CloudService>
makeAccountCloudService(SettingsFile& defaults, const std::shared_ptr<PasswordHandover>& handover) {
    auto account = CloudAccount::load(defaults);
    if (!account)
        return std::make_shared<caldav::CalDavService>(std::string(), std::string(), nullptr);
    // Shared with the service: its cancel() cuts a password command off too.
    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    auto service = std::make_shared<caldav::CalDavService>(
        account->server, account->user, [a = *account, cancelled, handover] {
            auto ask = [&] { return a.password(cancelled.get()); };
            return handover ? handover->password(a, ask) : ask();
        });
    service->setCancelListener([cancelled] { *cancelled = true; });
    if (handover)
        service->setRefusedListener([handover] { handover->refused(); });
    service->trustOrigins(account->origins);
    // An ordinary pull goes straight to the collection; discovery runs again only when the
    // collection is missing, and what it finds is kept for the next process.
    service->rememberHome(account->home);
    service->setHomeListener(
        [&defaults](const std::string& home, const std::vector<std::string>& origins) {
            CloudAccount::rememberDiscovery(defaults, home, origins);
        });
    return service;
}

} // namespace almanor

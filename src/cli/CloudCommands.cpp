// almanor cloud login|logout|status and almanor sync. Login and logout need the network and the
// keyring: the CalDAV adapter's module runs them (CloudLogin.cpp).

#include "cli/Cli.h"
#include "cli/Command.h"
#include "cli/Services.h"
#include "cli/TextEscapes.h"
#include "cloud/CloudAccount.h"
#include "cloud/CloudModule.h"
#include "cloud/MigrationHelper.h"
#include "cloud/PasswordHandover.h"
#include "cloud/RecordMapping.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/Module.h"
#include "platform/Settings.h"
#include "platform/Translation.h"
#include "platform/UrlText.h"
#include "platform/WriteAll.h"
#include "storage/LocalSyncLedger.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "sync/InProcessPasses.h"
#include "sync/PassReport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace almanor::cli {

namespace {

constexpr int exitPending = 1;

// What is not yet on the server, counted as the push will send it.
struct Pending {
    std::size_t inserted = 0;
    std::size_t updated = 0;
    std::size_t deleted = 0;

    std::size_t total() const { return inserted + updated + deleted; }
};

Pending countPending(SyncLedger& ledger) {
    Pending p;
    for (const auto& row : ledger.syncRows()) {
        if (!row.pending())
            continue;
        if (!row.live())
            ++p.deleted;
        else if (!row.syncId)
            ++p.inserted;
        else
            ++p.updated;
    }
    return p;
}

std::filesystem::path syncLockFile(LocalRepository& local) {
    std::filesystem::path file = local.file();
    file += ".sync-lock";
    return file;
}

// What `cloud status` reports.
struct CloudState {
    std::optional<CloudAccount> account;
    std::optional<std::string> zone;
    Pending pending;
};

void printJson(const CloudState& state) {
    std::string out = "{\"server\":";
    auto text = [&](const std::optional<std::string>& s) {
        if (s)
            appendJsonString(out, *s);
        else
            out += "null";
    };
    const auto& account = state.account;
    text(account ? std::optional(redactUrl(account->server)) : std::nullopt);
    out += ",\"user\":";
    text(account ? std::optional(account->user) : std::nullopt);
    out += ",\"zone\":";
    text(state.zone);
    out += ",\"pending\":{\"inserted\":" + std::to_string(state.pending.inserted) +
           ",\"updated\":" + std::to_string(state.pending.updated) +
           ",\"deleted\":" + std::to_string(state.pending.deleted) + "}}";
    std::printf("%s\n", out.c_str());
}

void printText(const CloudState& state) {
    const auto& account = state.account;
    if (account)
        std::printf("%s\n%s\n", formatText(_("Server: %s"), {redactUrl(account->server)}).c_str(),
                    formatText(_("User: %s"), {account->user}).c_str());
    else
        std::printf("%s\n", _("No cloud account"));
    // The zone is learnt from the server's listing at the next pull; pushes always go to ours.
    if (state.zone)
        std::printf("%s\n", formatText(_("Zone: %s"), {*state.zone}).c_str());
    else if (!account)
        std::printf("%s\n", _("Zone: none"));
    else
        std::printf(
            "%s\n",
            formatText(_("Zone: none found yet (new events go to %s)"), {appZoneName}).c_str());
    std::printf("%s\n", formatText(_("Pending: %zu inserted, %zu updated, %zu deleted"),
                                   {std::to_string(state.pending.inserted),
                                    std::to_string(state.pending.updated),
                                    std::to_string(state.pending.deleted)})
                            .c_str());
}

int cloudStatus(Services& services, bool json) {
    auto& defaults = services.defaults();
    Repository& repository = services.repository();
    if (!storeIsReadable(repository))
        return exitStoreFailed;
    CloudState state{CloudAccount::load(defaults), MigrationHelper::zoneInUse(defaults), {}};
    try {
        Settings(defaults).registerDefaults();
        MigrationManager::migrateIfNeeded(repository, defaults);
        LocalSyncLedger ledger(repository.local());
        state.pending = countPending(ledger);
    } catch (const StoreError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.what());
        return exitStoreFailed;
    }
    json ? printJson(state) : printText(state);
    return exitSuccess;
}

// One line: what did not complete, and what is still to send.
std::string incompleteSyncLine(const PassResult& result, const Pending& pending) {
    std::string line = !result.pulled   ? _("sync incomplete: the pull did not complete")
                       : !result.pushed ? _("sync incomplete: the push did not complete")
                                        : _("sync incomplete");
    if (!result.problem.empty())
        line += " (" + result.problem + ")";
    // TRANSLATORS: the first %s says what did not complete.
    return formatText(_("%s; not yet in the cloud: %zu inserted, %zu updated, %zu deleted"),
                      {line, std::to_string(pending.inserted), std::to_string(pending.updated),
                       std::to_string(pending.deleted)});
}

// `almanor sync` as the tray runs it: the fds of its report and of the password the tray hands
// over (-1: none). See PassReport.
struct TrayPipes {
    int report = -1;
    int password = -1;
};

// The password that the tray hands over, to the pipe's end (which is closed), within the record's
// limit; empty when there is none or it is too long.
std::string takeHandover(int fd) {
    std::string given;
    std::array<char, 4096> buffer{};
    for (ssize_t n = 0; (n = ::read(fd, buffer.data(), buffer.size())) != 0;) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || given.size() + std::size_t(n) > PassReport::maxPassword) {
            std::fill(given.begin(), given.end(), '\0');
            given.clear();
            break;
        }
        given.append(buffer.data(), std::size_t(n));
    }
    std::fill(buffer.begin(), buffer.end(), '\0');
    ::close(fd);
    return given;
}

void tell(int fd, std::string text) {
    // A tray that is gone reads nothing: the pass's work is in the store all the same.
    (void)writeAll(fd, text);
    std::fill(text.begin(), text.end(), '\0');
}

// The tray ends a pass it no longer wants with SIGTERM: the pass is then cut off as a quitting
// tray's own would be, a password command with it, and the process ends at once. Made before any
// other thread, which then keeps SIGTERM blocked too.
class StopOnTerm {
  public:
    explicit StopOnTerm(PassRunner& passes) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, passEnded);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        waiter_ = std::thread([&passes, set] {
            int signal = 0;
            sigwait(&set, &signal);
            if (signal == SIGTERM)
                passes.stop();
        });
    }
    ~StopOnTerm() {
        pthread_kill(waiter_.native_handle(), passEnded);
        waiter_.join();
    }
    StopOnTerm(const StopOnTerm&) = delete;
    StopOnTerm& operator=(const StopOnTerm&) = delete;

  private:
    static constexpr int passEnded = SIGUSR2; // ends the waiter
    std::thread waiter_;
};

// One pass in this process; with the tray's pipes, told to the tray as it goes.
PassResult onePass(Services& services, LocalSyncLedger& ledger, const TrayPipes& tray) {
    std::shared_ptr<PasswordHandover> handover;
    if (tray.report >= 0)
        handover = std::make_shared<PasswordHandover>(
            tray.password >= 0 ? takeHandover(tray.password) : std::string());
    InProcessPasses passes(ledger, services.cloudServices(handover), services.defaults(),
                           services.clock(), syncLockFile(services.repository().local()));
    std::optional<StopOnTerm> stopOnTerm;
    if (tray.report >= 0)
        stopOnTerm.emplace(passes);
    PassResult result = passes.run([&] {
        if (tray.report >= 0)
            tell(tray.report, PassReport::pulledLine());
    });
    if (tray.report >= 0) {
        if (std::string password = handover->handOn(); !password.empty())
            tell(tray.report, PassReport::passwordRecord(password));
        tell(tray.report, PassReport::doneLine(result));
    }
    return result;
}

int syncNow(Services& services, const TrayPipes& tray) {
    auto& defaults = services.defaults();
    // The tray's child says "no account" in its report, as a pass does.
    if (tray.report < 0 && !CloudAccount::load(defaults)) {
        std::fprintf(stderr, "%s\n", _("no cloud account; run almanor cloud login URL"));
        return exitPending;
    }
    Settings(defaults).registerDefaults();
    Repository& repository = services.repository();
    if (!storeIsReadable(repository))
        return exitStoreFailed;
    MigrationManager::migrateIfNeeded(repository, defaults);
    PassResult result;
    Pending pending;
    try {
        LocalSyncLedger ledger(repository.local());
        result = onePass(services, ledger, tray);
        pending = countPending(ledger);
    } catch (const StoreError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.what());
        return exitStoreFailed;
    }
    if (result.pulled && result.pushed && pending.total() == 0)
        return exitSuccess;
    // The tray has its own lines for a pass that did not complete.
    if (tray.report < 0)
        std::fprintf(stderr, "%s\n", incompleteSyncLine(result, pending).c_str());
    return exitPending;
}

// Login and logout run in the adapter's module; one that cannot be loaded is exit status 4.
template <class Call> int inCloudModule(Services& services, Call&& call) {
    try {
        return call(services.cloudModule().module());
    } catch (const ModuleError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.what());
        return exitModuleMissing;
    }
}

struct LoginOptions {
    std::string url;
    std::string user;
    std::string passwordCommand;
};

void declareLogin(CLI::App& cloud, Action& chosen) {
    auto o = std::make_shared<LoginOptions>();
    auto* login =
        cloud.add_subcommand("login", _("Log in to a CalDAV server and keep the account"));
    login->add_option("URL", o->url, _("The server's address"))->required();
    login->add_option("--user", o->user, _("The user name (default: your login name)"));
    login->add_option(
        "--password-command", o->passwordCommand,
        _("A command whose first line of output is the password, run whenever it is needed"));
    login->callback([&chosen, o] {
        chosen = [o](Services& services) {
            return inCloudModule(services, [&](const CloudModule& module) {
                return module.login(services.defaults(), o->url, o->user, o->passwordCommand);
            });
        };
    });
}

} // namespace

void declareCloudCommands(CLI::App& app, Action& chosen) {
    auto* cloud = app.add_subcommand("cloud", _("Connect to your calendar server, or disconnect"));
    cloud->require_subcommand(1);
    declareLogin(*cloud, chosen);
    auto* logout =
        cloud->add_subcommand("logout", _("Forget the account and its password; events stay"));
    logout->callback([&chosen] {
        chosen = [](Services& services) {
            return inCloudModule(services, [&](const CloudModule& module) {
                return module.logout(services.defaults());
            });
        };
    });
    auto json = std::make_shared<bool>(false);
    auto* status =
        cloud->add_subcommand("status", _("Print the account and what is not yet in the cloud"));
    status->add_flag("--json", *json, _("Print one JSON object"));
    status->callback([&chosen, json] {
        chosen = [json](Services& services) { return cloudStatus(services, *json); };
    });
    auto* sync =
        app.add_subcommand("sync", _("Pull from the cloud, push local changes, and wait for them"));
    // The tray's: not in the help.
    auto tray = std::make_shared<TrayPipes>();
    sync->add_option("--report-fd", tray->report)->group("")->check(CLI::Range(3, INT_MAX));
    sync->add_option("--password-fd", tray->password)
        ->group("")
        ->check(CLI::Range(3, INT_MAX))
        ->needs("--report-fd");
    sync->callback([&chosen, tray] {
        chosen = [tray](Services& services) {
            for (int fd : {tray->report, tray->password})
                if (fd >= 0 && ::fcntl(fd, F_GETFD) < 0)
                    throw UsageError{"fd " + std::to_string(fd) + " is not open"};
            if (tray->report >= 0) {
                // Nothing this process starts (a password command) inherits the report.
                ::fcntl(tray->report, F_SETFD, FD_CLOEXEC);
                std::signal(SIGPIPE, SIG_IGN);
                // The tray reads the lines' priorities back.
                Log::withPriorityPrefixes(true);
            }
            return syncNow(services, *tray);
        };
    });
}

} // namespace almanor::cli

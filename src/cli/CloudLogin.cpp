// The cloud commands that need the network and the keyring. They are built into the CalDAV
// adapter's module, so that the rest of the command line loads neither.

#include "cli/CloudLogin.h"

#include "cli/Cli.h"
#include "cloud/caldav/CalDavService.h"
#include "cloud/caldav/CloudAccount.h"
#include "platform/SettingsFile.h"
#include "platform/Translation.h"
#include "platform/UrlText.h"

#include <cstdio>
#include <iostream>
#include <termios.h>
#include <unistd.h>

namespace almanor::cli {

namespace {

constexpr int exitPending = 1;

// From the terminal without echo, or the first line of standard input when it is no terminal.
std::string readPassword(const std::string& prompt) {
    std::string line;
    if (::isatty(STDIN_FILENO)) {
        std::fprintf(stderr, "%s", prompt.c_str());
        termios old{};
        ::tcgetattr(STDIN_FILENO, &old);
        termios silent = old;
        silent.c_lflag &= ~tcflag_t(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
        std::getline(std::cin, line);
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &old);
        std::fputc('\n', stderr);
    } else {
        std::getline(std::cin, line);
    }
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

} // namespace

int cloudLogin(SettingsFile& defaults, const std::string& url, const std::string& userOption,
               const std::string& passwordCommand) {
    CloudAccount account;
    account.server = url;
    account.user = userOption;
    account.passwordCommand = passwordCommand;
    if (account.user.empty()) {
        const char* login = std::getenv("USER");
        account.user = login ? login : "";
    }
    try {
        // A URL that could never be used is refused before the password is asked for.
        if (url.empty())
            throw CloudError(_("no server given"));
        caldav::HttpClient::parseServer(url);
        std::string password =
            passwordCommand.empty()
                ? readPassword(formatText(_("Password for %s: "), {account.user}))
                : passwordFromCommand(passwordCommand);
        if (password.empty())
            throw CloudError(_("no password given"));
        // One authenticated discovery checks the URL and the credentials before anything is kept.
        caldav::CalDavService service(url, account.user, [password] { return password; });
        if (service.accountStatus() == AccountStatus::noAccount)
            throw CloudError(_("no server given"));
        account.home = service.discoverHome();
        account.origins = service.trustedOrigins();
        if (passwordCommand.empty())
            keyring::storePassword(url, account.user, password);
        if (!account.store(defaults))
            return exitStoreFailed; // the line saying why is out
        std::fprintf(stderr, "%s\n",
                     formatText(_("Logged in as %s; calendars at %s"),
                                {account.user, redactUrl(account.home)})
                         .c_str());
        return exitSuccess;
    } catch (const CloudError& e) {
        std::fprintf(stderr, "almanor: %s\n",
                     formatText(_("cloud login failed: %s"), {redactUrls(e.what())}).c_str());
        return exitUsage;
    }
}

int cloudLogout(SettingsFile& defaults) {
    auto account = CloudAccount::load(defaults);
    if (!account) {
        std::fprintf(stderr, "%s\n", _("no cloud account"));
        return exitSuccess;
    }
    // The account goes first: kept, it still has its password; gone, a password left in the
    // keyring is only a line.
    if (!CloudAccount::forget(defaults))
        return exitStoreFailed;
    int status = exitSuccess;
    if (account->passwordCommand.empty()) {
        try {
            keyring::removePassword(account->server, account->user);
        } catch (const CloudError& e) {
            std::fprintf(stderr, "almanor: %s\n", e.what());
            status = exitPending;
        }
    }
    return status;
}

} // namespace almanor::cli

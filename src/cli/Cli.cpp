#include "cli/Cli.h"

#include "cli/Command.h"
#include "cli/Services.h"
#include "cli/Store.h"
#include "cli/TextEscapes.h"
#include "platform/Log.h"
#include "platform/Module.h"
#include "platform/Translation.h"
#include "platform/UrlText.h"
#include "storage/Repository.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#ifndef ALMANOR_VERSION
#error "ALMANOR_VERSION must be defined by the build"
#endif

namespace almanor::cli {

namespace {

// The commands' synopsis, after the line for the tray: what is typed, in every language.
constexpr const char* synopsis =
    "  almanor events list [--json]\n"
    "  almanor events add NAME --date DATE [--alias TEXT] [--schedule S] [--count C]\n"
    "  almanor events edit ID [--name NAME] [--alias TEXT] [--date DATE] [--schedule S] "
    "[--count C]\n"
    "  almanor events delete ID\n"
    "  almanor events export [FILE]\n"
    "  almanor events import FILE|-\n"
    "  almanor select ID|next|random|rotate\n"
    "  almanor status [--json]\n"
    "  almanor cloud login URL [--user NAME] [--password-command CMD]\n"
    "  almanor cloud logout\n"
    "  almanor cloud status [--json]\n"
    "  almanor sync\n";

std::string description() {
    return std::string(_("Almanor counts the days until or since your events.")) + "\n\n" +
           "  almanor                 " +
           _("start the tray (the title in the panel, its menu, the window)") + "\n" + synopsis +
           "\n" +
           _("Events are kept in $XDG_DATA_HOME/Almanor/EventsV1.db, settings in "
             "$XDG_CONFIG_HOME/Almanor/settings.ini.") +
           "\n";
}

std::string footer() {
    return std::string(_(
               "DATE is YYYY-MM-DD (local midnight) or YYYY-MM-DDTHH:MM[:SS[.fff]] (local time),\n"
               "optionally followed by Z or +HH:MM/-HH:MM.")) +
           "\n" +
           _("ID is an event's id as events list prints it, or its first 4 characters or more,\n"
             "in either case.") +
           "\n" +
           _("Exit status: 0 success, 1 no event with that id (sync: not all sent), 2 bad usage\n"
             "or input, 3 the event store or a file could not be read or written, 4 the CalDAV\n"
             "module (which export, import, cloud login|logout and sync use) could not be loaded.\n"
             "More in almanor(1).");
}

// The parser's own words in the help: its headings and the help option (which subcommands copy
// from their parent when they are made). The tags in the options' column (TEXT, REQUIRED) stay:
// the parser pads that column by bytes, not by characters.
void translateParser(CLI::App& app) {
    auto formatter = app.get_formatter();
    for (const char* label :
         {N_("Usage"), N_("OPTIONS"), N_("SUBCOMMAND"), N_("SUBCOMMANDS"), N_("Positionals")}) {
        formatter->label(label, _(label));
    }
    app.option_defaults()->group(_("Options"));
    app.set_help_flag("-h,--help", _("Print this help message and exit"));
}

// The headings of each subcommand's help, once they are all declared (a subcommand makes its
// help option before it takes its parent's defaults).
void translateSubcommandGroups(CLI::App& app) {
    for (CLI::App* sub : app.get_subcommands({})) {
        sub->group(_("Subcommands"));
        sub->get_help_ptr()->group(_("Options"));
        translateSubcommandGroups(*sub);
    }
}

// The command groups, in the order of the help text.
constexpr void (*commandGroups[])(CLI::App&, Action&) = {
    declareEventCommands, declareDisplayCommands, declareCloudCommands};

// A prefix that several events' ids start with: a line saying so, then each candidate's id, as
// much of it as tells them apart, and its name.
std::string ambiguityLines(const Store::Ambiguous& e) {
    std::size_t shown = 8; // at least the id's first group
    for (std::size_t i = 1; i < e.candidates.size(); ++i) {
        const std::string a = e.candidates[i - 1]->id().uuidString();
        const std::string b = e.candidates[i]->id().uuidString();
        std::size_t same = std::mismatch(a.begin(), a.end(), b.begin()).first - a.begin();
        shown = std::max(shown, same + 1);
    }
    std::string out =
        "almanor: " +
        formatText(P_("the id %s is ambiguous: %zu event starts with it",
                      "the id %s is ambiguous: %zu events start with it", e.candidates.size()),
                   {e.id, std::to_string(e.candidates.size())}) +
        "\n";
    for (const auto& event : e.candidates) {
        out += event->id().uuidString().substr(0, shown) + "  ";
        appendListingText(out, event->name());
        out += '\n';
    }
    return out;
}

// Runs a command, turning the outcomes that are not results into their exit status.
int handled(Services& services, const Action& command) {
    try {
        return command(services);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.message.c_str());
        return exitUsage;
    } catch (const Store::NotFound& e) {
        std::fprintf(stderr, "%s\n", formatText(_("no event with id %s"), {e.id}).c_str());
        return exitNoSuchEvent;
    } catch (const Store::Ambiguous& e) {
        std::fputs(ambiguityLines(e).c_str(), stderr);
        return exitUsage;
    } catch (const Store::Failed&) {
        return exitStoreFailed; // one line on standard error has said why
    } catch (const ModuleError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.what());
        return exitModuleMissing;
    }
}

// `almanor status` or `almanor status --json`.
bool isPlainStatus(int argc, char** argv) {
    return (argc == 2 || (argc == 3 && std::string_view(argv[2]) == "--json")) &&
           std::string_view(argv[1]) == "status";
}

} // namespace

bool storeIsReadable(Repository& repository) {
    if (auto problem = repository.local().unusable()) {
        std::fprintf(stderr, "almanor: %s\n", problem->c_str());
        return false;
    }
    return true;
}

int run(int argc, char** argv, Services& services) {
    // Standard output carries only results; the system's log lines go to standard error.
    Log::toStandardError();

    // Status bars run `almanor status` every few seconds: it is answered without building the
    // parser of every other command first.
    if (isPlainStatus(argc, argv)) {
        bool json = argc == 3;
        return handled(services, [json](Services& s) { return showStatus(s, json); });
    }

    CLI::App app{description(), "almanor"};
    translateParser(app);
    app.set_version_flag("--version", std::string("almanor ") + ALMANOR_VERSION,
                         _("Print the version and exit"));
    app.require_subcommand(0, 1);
    app.footer(footer());
    Action chosen;
    for (auto declare : commandGroups) {
        declare(app, chosen);
    }
    translateSubcommandGroups(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {
            return app.exit(e); // --help, --version
        }
        // The parser quotes what it was given, which may be a URL holding a password.
        std::fprintf(stderr, "almanor: %s\n", redactUrls(e.what()).c_str());
        return exitUsage;
    }
    if (!chosen) {
        std::fputs(app.help().c_str(), stdout);
        return exitSuccess;
    }
    return handled(services, chosen);
}

} // namespace almanor::cli

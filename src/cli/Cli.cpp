#include "cli/Cli.h"

#include "cli/CloudCommands.h"
#include "cli/DateInput.h"
#include "cli/JsonText.h"
#include "cli/PlainText.h"
#include "model/Text.h"
#include "model/Utility.h"
#include "platform/Clock.h"
#include "platform/Heap.h"
#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/Settings.h"
#include "platform/UrlText.h"
#include "platform/UserDefaults.h"
#include "shell/DisplayedEventSelection.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "storage/sql/Date.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>

#ifndef ALMANOR_VERSION
#error "ALMANOR_VERSION must be defined by the build"
#endif

namespace almanor::cli {

namespace {

using namespace std::chrono;

constexpr std::array<const char*, 4> scheduleNames = {"none", "weekly", "monthly", "annually"};
constexpr std::array<const char*, 4> countNames = {"standard", "exclude-weekends", "friday-before",
                                                   "monday-after"};

const char* nameOf(Schedule s) {
    return scheduleNames[std::size_t(rawValue(s))];
}
const char* nameOf(CountMethod m) {
    return countNames[std::size_t(rawValue(m))];
}

template <typename T, std::size_t N>
T fromName(const std::array<const char*, N>& names, const std::string& name) {
    for (std::size_t i = 0; i < N; ++i) {
        if (name == names[i]) {
            return static_cast<T>(i);
        }
    }
    return static_cast<T>(0); // the option's own check has refused anything else
}

// A problem with what the user typed: one line on standard error, exit status 2.
struct UsageError {
    std::string message;
};

std::string utcText(Instant t) {
    return sql::formatDate(t) + "Z";
}

// The event's date as the user would have typed it: local, time only when there is one.
std::string localText(const DayCalendar& calendar, Instant t) {
    LocalTime wall = calendar.localTime(t);
    auto day = floor<days>(wall);
    year_month_day ymd{day};
    hh_mm_ss<milliseconds> time{wall - day};
    char buffer[48];
    int n = std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02u", int(ymd.year()),
                          unsigned(ymd.month()), unsigned(ymd.day()));
    if (time.to_duration().count() != 0) {
        n += std::snprintf(buffer + n, sizeof buffer - std::size_t(n), " %02d:%02d",
                           int(time.hours().count()), int(time.minutes().count()));
        if (time.seconds().count() != 0 || time.subseconds().count() != 0) {
            std::snprintf(buffer + n, sizeof buffer - std::size_t(n), ":%02d",
                          int(time.seconds().count()));
        }
    }
    return buffer;
}

Instant parseDateOption(const std::string& text, const DayCalendar& calendar) {
    if (auto t = parseDateInput(text, calendar)) {
        return *t;
    }
    throw UsageError{"invalid date '" + text +
                     "': use YYYY-MM-DD or YYYY-MM-DDTHH:MM[:SS[.fff]], optionally followed by "
                     "Z or +HH:MM (years 1583 to 9999)"};
}

Uuid parseId(const std::string& text) {
    if (auto id = Uuid::parse(text)) {
        return *id;
    }
    throw UsageError{"'" + text + "' is not an event id (a UUID such as " +
                     "3F2504E0-4F89-41D3-9A0C-0305E82C3301)"};
}

std::string nameArgument(const std::string& text) {
    std::string name = trimmed(text);
    if (name.empty()) {
        throw UsageError{"the event name must not be blank"};
    }
    return name;
}

std::optional<std::string> aliasArgument(const std::string& text) {
    std::string alias = trimmed(text);
    if (alias.empty()) {
        return std::nullopt; // a blank alias means no alias
    }
    return alias;
}

// Commands that read every event first make room for them: see heap::reserve. The factor is
// what reading a store takes per byte of its file (rows, their sort, the events), measured.
void reserveForReading(double bytesPerStoreByte) {
    std::error_code error;
    auto size =
        std::filesystem::file_size(paths::databaseDirectory() / paths::databaseFileName, error);
    if (!error) {
        heap::reserve(std::size_t(double(size) * bytesPerStoreByte));
    }
}

// The store as the tray opens it: defaults registered, table created on first use. One that
// cannot be read ends the command (exit 3) before anything is written.
class Store {
  public:
    explicit Store(const Services& services) : settings_(services.defaults) {
        settings_.registerDefaults();
        repository_ = &services.repository();
        if (!storeIsReadable(*repository_)) {
            throw Failed{};
        }
        MigrationManager::migrateIfNeeded(*repository_, settings_.defaults());
    }
    Repository& repository() { return *repository_; }
    const Settings& settings() const { return settings_; }

    std::vector<EventPtr> events() {
        try {
            return repository_->local().fetchAll();
        } catch (const StoreError& e) {
            // A damaged page that opening the file did not reach.
            std::fprintf(stderr, "almanor: %s\n", repository_->local().unusableLine(e).c_str());
            throw Failed{};
        }
    }
    EventPtr event(const Uuid& id) {
        for (auto& e : events()) {
            if (e->id() == id) {
                return e;
            }
        }
        throw NotFound{id};
    }

    struct Failed {};
    struct NotFound {
        Uuid id;
    };

  private:
    Settings settings_;
    Repository* repository_ = nullptr;
};

struct Options {
    bool json = false;
    std::string name;
    std::string alias;
    std::string date;
    std::string schedule = "none";
    std::string count = "standard";
    std::string id;
    std::string target;
};

int listEvents(const Options& o, const Services& s) {
    reserveForReading(o.json ? 5.0 : 4.0);
    Store store(s);
    auto events = store.events();
    auto calendar = DayCalendar::current();
    Instant today = Utility::startOfToday(*calendar, s.clock.now());
    std::string out;
    out.reserve(events.size() * (o.json ? 320 : 128));
    if (o.json) {
        out += '[';
    }
    for (const auto& e : events) {
        Instant occurrence = Utility::occurrenceDate(*calendar, today, e->date(), e->schedule());
        int days = Utility::dayCount(*calendar, today, occurrence, e->countMethod());
        std::string title = Utility::statusText(e->displayName(), days);
        if (o.json) {
            if (out.size() > 1) {
                out += ',';
            }
            out += "{\"id\":\"" + e->id().uuidString() + "\",\"name\":";
            appendJsonString(out, e->name());
            out += ",\"alias\":";
            if (e->alias()) {
                appendJsonString(out, *e->alias());
            } else {
                out += "null";
            }
            out += ",\"date\":\"" + utcText(e->date()) + "\",\"occurrence\":\"" +
                   utcText(occurrence) + "\",\"schedule\":\"" + nameOf(e->schedule()) +
                   "\",\"count\":\"" + nameOf(e->countMethod()) +
                   "\",\"days\":" + std::to_string(days) + ",\"title\":";
            appendJsonString(out, title);
            out += '}';
        } else {
            char columns[160];
            std::snprintf(columns, sizeof columns, "%s  %-16s  %-8s  %-16s  ",
                          e->id().uuidString().c_str(), localText(*calendar, e->date()).c_str(),
                          nameOf(e->schedule()), nameOf(e->countMethod()));
            out += columns;
            appendListingText(out, e->name());
            if (e->alias() && !e->alias()->empty()) {
                out += " (";
                appendListingText(out, *e->alias());
                out += ')';
            }
            out += ": ";
            appendListingText(out, title);
            out += '\n';
        }
    }
    if (o.json) {
        out += "]\n";
    }
    std::fwrite(out.data(), 1, out.size(), stdout);
    return exitSuccess;
}

int addEvent(const Options& o, const Services& s) {
    std::string name = nameArgument(o.name);
    auto alias = aliasArgument(o.alias);
    Instant date = parseDateOption(o.date, *DayCalendar::current());
    Store store(s);
    Event event(Uuid::random(), date, name, alias, fromName<Schedule>(scheduleNames, o.schedule),
                fromName<CountMethod>(countNames, o.count));
    if (!store.repository().insert(event)) {
        return exitStoreFailed;
    }
    std::printf("%s\n", event.id().uuidString().c_str());
    return exitSuccess;
}

struct EditFlags {
    bool name = false, alias = false, date = false, schedule = false, count = false;
};

int editEvent(const Options& o, const EditFlags& given, const Services& s) {
    Uuid id = parseId(o.id);
    if (!given.name && !given.alias && !given.date && !given.schedule && !given.count) {
        throw UsageError{"nothing to change: give --name, --alias, --date, --schedule or --count"};
    }
    std::optional<std::string> name;
    if (given.name) {
        name = nameArgument(o.name);
    }
    std::optional<Instant> date;
    if (given.date) {
        date = parseDateOption(o.date, *DayCalendar::current());
    }
    Store store(s);
    EventPtr event = store.event(id);
    if (name) {
        event->setName(*name);
    }
    if (given.alias) {
        event->setAlias(aliasArgument(o.alias));
    }
    if (date) {
        event->setDate(*date);
    }
    if (given.schedule) {
        event->setSchedule(fromName<Schedule>(scheduleNames, o.schedule));
    }
    if (given.count) {
        event->setCountMethod(fromName<CountMethod>(countNames, o.count));
    }
    return store.repository().update(*event) ? exitSuccess : exitStoreFailed;
}

int deleteEvent(const Options& o, const Services& s) {
    Uuid id = parseId(o.id);
    Store store(s);
    EventPtr event = store.event(id);
    return store.repository().deleteEvent(*event) ? exitSuccess : exitStoreFailed;
}

// The selection over the events read once, so that a store that cannot be read is an error here
// and never the no-events title.
DisplayedEventSelection makeSelection(Store& store, StatusItem& item,
                                      const std::vector<EventPtr>& events, const Clock& clock) {
    DisplayedEventSelection selection([&events] { return events; }, store.settings(), clock);
    selection.setStatusItem(&item);
    return selection;
}

int selectEvent(const Options& o, const Services& s) {
    Uuid id;
    if (o.target == "next") {
        id = DisplayedEventSelection::nextEventId;
    } else if (o.target == "random") {
        id = DisplayedEventSelection::randomEventId;
    } else if (o.target == "rotate") {
        id = DisplayedEventSelection::cycleUpcomingEventId;
    } else if (auto parsed = Uuid::parse(o.target)) {
        id = *parsed;
    } else {
        throw UsageError{"'" + o.target + "' is neither an event id nor next, random or rotate"};
    }
    reserveForReading(3.0);
    Store store(s);
    auto events = store.events();
    bool fixed = o.target != "next" && o.target != "random" && o.target != "rotate";
    if (fixed && std::none_of(events.begin(), events.end(),
                              [&](const EventPtr& e) { return e->id() == id; })) {
        throw Store::NotFound{id}; // must name a live event
    }
    store.settings().setSelectedEventId(id);
    RecordedStatusItem item;
    auto selection = makeSelection(store, item, events, s.clock);
    selection.resolveDisplayedEvent(id);
    std::printf("%s\n", item.title().c_str());
    return exitSuccess;
}

int status(const Options& o, const Services& s) {
    reserveForReading(3.0);
    Store store(s);
    auto events = store.events();
    RecordedStatusItem item;
    auto selection = makeSelection(store, item, events, s.clock);
    selection.resolveDisplayedEvent(store.settings().selectedEventId());
    if (!o.json) {
        std::printf("%s\n", item.title().c_str());
        return exitSuccess;
    }
    std::string out = "{\"text\":";
    appendJsonString(out, item.title());
    const EventPtr& shown = selection.displayedEvent();
    if (!shown) {
        out += ",\"tooltip\":\"No events\",\"class\":\"none\"}";
    } else {
        auto calendar = DayCalendar::current();
        Instant today = Utility::startOfToday(*calendar, s.clock.now());
        Instant occurrence =
            Utility::occurrenceDate(*calendar, today, shown->date(), shown->schedule());
        int days = Utility::dayCount(*calendar, today, occurrence, shown->countMethod());
        out += ",\"tooltip\":";
        appendJsonString(out, shown->name() + ": " + localText(*calendar, occurrence));
        out += ",\"class\":\"";
        out += days == 0 ? "today" : days > 0 ? "upcoming" : "past";
        out += "\"}";
    }
    std::printf("%s\n", out.c_str());
    return exitSuccess;
}

// Runs a command, turning the outcomes that are not results into their exit status.
template <class Command> int handled(Command&& command) {
    try {
        return command();
    } catch (const UsageError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.message.c_str());
        return exitUsage;
    } catch (const Store::NotFound& e) {
        std::fprintf(stderr, "no event with id %s\n", e.id.uuidString().c_str());
        return exitNoSuchEvent;
    } catch (const Store::Failed&) {
        return exitStoreFailed; // one line on standard error has said why
    }
}

} // namespace

bool storeIsReadable(Repository& repository) {
    if (auto problem = repository.local().unusable()) {
        std::fprintf(stderr, "almanor: %s\n", problem->c_str());
        return false;
    }
    return true;
}

int run(int argc, char** argv, const Services& services) {
    // Standard output carries only results; the system's log lines go to standard error.
    Log::toStandardError();

    // Status bars run `almanor status` every few seconds: it is answered without building the
    // parser of every other command first.
    if ((argc == 2 || (argc == 3 && std::string_view(argv[2]) == "--json")) &&
        std::string_view(argv[1]) == "status") {
        Options o;
        o.json = argc == 3;
        return handled([&] { return status(o, services); });
    }

    CLI::App app{
        "Almanor counts the days until or since your events.\n\n"
        "  almanor                 start the tray (the title in the panel, its menu, the window)\n"
        "  almanor events list [--json]\n"
        "  almanor events add NAME --date DATE [--alias TEXT] [--schedule S] [--count C]\n"
        "  almanor events edit ID [--name NAME] [--alias TEXT] [--date DATE] [--schedule S] "
        "[--count C]\n"
        "  almanor events delete ID\n"
        "  almanor select ID|next|random|rotate\n"
        "  almanor status [--json]\n"
        "  almanor cloud login URL [--user NAME] [--password-command CMD]\n"
        "  almanor cloud logout\n"
        "  almanor cloud status [--json]\n"
        "  almanor sync\n\n"
        "Events are kept in $XDG_DATA_HOME/Almanor/EventsV1.db, settings in "
        "$XDG_CONFIG_HOME/Almanor/settings.ini.\n",
        "almanor"};
    app.set_version_flag("--version", std::string("almanor ") + ALMANOR_VERSION,
                         "Print the version and exit");
    app.require_subcommand(0, 1);
    app.footer("DATE is YYYY-MM-DD (local midnight) or YYYY-MM-DDTHH:MM[:SS[.fff]] (local time),\n"
               "optionally followed by Z or +HH:MM/-HH:MM.\n"
               "Exit status: 0 success, 1 no event with that id, 2 bad usage or input,\n"
               "3 the event store could not be read or written.");

    Options o;
    EditFlags given;
    auto* events = app.add_subcommand("events", "List, add, edit and delete events");
    events->require_subcommand(1);

    auto* list = events->add_subcommand("list", "List the events, soonest date first");
    list->add_flag("--json", o.json, "Print one JSON array");

    auto scheduleCheck = CLI::IsMember({"none", "weekly", "monthly", "annually"});
    auto countCheck =
        CLI::IsMember({"standard", "exclude-weekends", "friday-before", "monday-after"});

    auto* add = events->add_subcommand("add", "Add an event and print its id");
    add->add_option("NAME", o.name, "The event's name")->required();
    add->add_option("--date", o.date, "The event's date (see DATE below)")->required();
    add->add_option("--alias", o.alias, "Shorter text for the panel instead of the name");
    add->add_option("--schedule", o.schedule, "Recurrence: none, weekly, monthly or annually")
        ->check(scheduleCheck);
    add->add_option("--count", o.count,
                    "Counting: standard, exclude-weekends, friday-before or monday-after")
        ->check(countCheck);

    auto* edit = events->add_subcommand("edit", "Change an event");
    edit->add_option("ID", o.id, "The event's id")->required();
    auto* editName = edit->add_option("--name", o.name, "New name");
    auto* editAlias = edit->add_option("--alias", o.alias, "New alias; empty removes it");
    auto* editDate = edit->add_option("--date", o.date, "New date");
    auto* editSchedule =
        edit->add_option("--schedule", o.schedule, "New recurrence")->check(scheduleCheck);
    auto* editCount = edit->add_option("--count", o.count, "New counting")->check(countCheck);

    auto* remove = events->add_subcommand("delete", "Delete an event");
    remove->add_option("ID", o.id, "The event's id")->required();

    auto* select = app.add_subcommand("select", "Choose the displayed event and print its title");
    select
        ->add_option("TARGET", o.target,
                     "An event id, or next (next upcoming), random or rotate (hourly)")
        ->required();

    auto* statusCommand =
        app.add_subcommand("status", "Print the panel's title for the displayed event");
    statusCommand->add_flag("--json", o.json,
                            "Print a JSON object for waybar: text, tooltip, class");

    auto* cloud = app.add_subcommand("cloud", "Connect to your calendar server, or disconnect");
    cloud->require_subcommand(1);
    std::string cloudUrl, cloudUser, passwordCommand;
    auto* login = cloud->add_subcommand("login", "Log in to a CalDAV server and keep the account");
    login->add_option("URL", cloudUrl, "The server's address")->required();
    login->add_option("--user", cloudUser, "The user name (default: your login name)");
    login->add_option(
        "--password-command", passwordCommand,
        "A command whose first line of output is the password, run whenever it is needed");
    auto* logout =
        cloud->add_subcommand("logout", "Forget the account and its password; events stay");
    auto* cloudStatusCommand =
        cloud->add_subcommand("status", "Print the account and what is not yet in the cloud");
    cloudStatusCommand->add_flag("--json", o.json, "Print one JSON object");
    auto* syncCommand =
        app.add_subcommand("sync", "Pull from the cloud, push local changes, and wait for them");

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

    return handled([&] {
        if (*list) {
            return listEvents(o, services);
        }
        if (*add) {
            return addEvent(o, services);
        }
        if (*edit) {
            given = {editName->count() > 0, editAlias->count() > 0, editDate->count() > 0,
                     editSchedule->count() > 0, editCount->count() > 0};
            return editEvent(o, given, services);
        }
        if (*remove) {
            return deleteEvent(o, services);
        }
        if (*select) {
            return selectEvent(o, services);
        }
        if (*statusCommand) {
            return status(o, services);
        }
        if (*login) {
            return cloudLogin(services, cloudUrl, cloudUser, passwordCommand);
        }
        if (*logout) {
            return cloudLogout(services);
        }
        if (*cloudStatusCommand) {
            return cloudStatus(services, o.json);
        }
        if (*syncCommand) {
            return syncNow(services);
        }
        std::fputs(app.help().c_str(), stdout);
        return exitSuccess;
    });
}

} // namespace almanor::cli

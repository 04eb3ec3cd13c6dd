// almanor events list|add|edit|delete (export and import: CalendarFileCommands.cpp).

#include "cli/Cli.h"
#include "cli/Command.h"
#include "cli/DateInput.h"
#include "cli/EventDescription.h"
#include "cli/Services.h"
#include "cli/Store.h"
#include "model/EventNames.h"
#include "model/Text.h"
#include "model/Utility.h"
#include "platform/Clock.h"
#include "platform/Translation.h"
#include "storage/Repository.h"

#include <cstdio>
#include <memory>
#include <vector>

namespace almanor::cli {

namespace {

// What `events add` and `events edit` are given.
struct EventOptions {
    std::string id;
    std::string name;
    std::string alias;
    std::string date;
    std::string schedule = "none";
    std::string count = "standard";
};

// Which of the options `events edit` was given.
struct EditFlags {
    bool name = false, alias = false, date = false, schedule = false, count = false;
    bool any() const { return name || alias || date || schedule || count; }
};

Instant parseDateOption(const std::string& text, const DayCalendar& calendar) {
    if (auto t = parseDateInput(text, calendar)) {
        return *t;
    }
    throw UsageError{
        formatText(_("invalid date '%s': use YYYY-MM-DD or YYYY-MM-DDTHH:MM[:SS[.fff]], "
                     "optionally followed by Z or +HH:MM (years 1583 to 9999)"),
                   {text})};
}

std::string nameArgument(const std::string& text) {
    std::string name = trimmed(text);
    if (name.empty()) {
        throw UsageError{_("the event name must not be blank")};
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

// The option's own check has refused any other spelling.
Schedule scheduleArgument(const std::string& text) {
    return scheduleNamed(text).value_or(Schedule::none);
}
CountMethod countArgument(const std::string& text) {
    return countMethodNamed(text).value_or(CountMethod::standard);
}

int listEvents(Services& services, bool json) {
    Store store(services);
    auto events = store.events();
    auto calendar = DayCalendar::current();
    Instant today = Utility::startOfToday(*calendar, services.clock().now());
    std::string out;
    out.reserve(events.size() * (json ? 320 : 128));
    out += json ? "[" : "";
    for (const auto& e : events) {
        auto description = describe(*e, *calendar, today);
        if (!json) {
            appendListingLine(out, description, *calendar);
            continue;
        }
        if (out.size() > 1) {
            out += ',';
        }
        appendJsonObject(out, description);
    }
    out += json ? "]\n" : "";
    std::fwrite(out.data(), 1, out.size(), stdout);
    return exitSuccess;
}

int addEvent(Services& services, const EventOptions& o) {
    std::string name = nameArgument(o.name);
    auto alias = aliasArgument(o.alias);
    Instant date = parseDateOption(o.date, *DayCalendar::current());
    Store store(services);
    Event event(Uuid::random(), date, name, alias, scheduleArgument(o.schedule),
                countArgument(o.count));
    if (!store.repository().insert(event)) {
        return exitStoreFailed;
    }
    std::printf("%s\n", event.id().uuidString().c_str());
    return exitSuccess;
}

int editEvent(Services& services, const EventOptions& o, const EditFlags& given) {
    IdPrefix id = IdPrefix::parse(o.id);
    if (!given.any()) {
        throw UsageError{
            _("nothing to change: give --name, --alias, --date, --schedule or --count")};
    }
    // Everything typed is checked before the store is opened.
    std::optional<std::string> name;
    if (given.name) {
        name = nameArgument(o.name);
    }
    std::optional<Instant> date;
    if (given.date) {
        date = parseDateOption(o.date, *DayCalendar::current());
    }
    Store store(services);
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
        event->setSchedule(scheduleArgument(o.schedule));
    }
    if (given.count) {
        event->setCountMethod(countArgument(o.count));
    }
    return store.repository().update(*event) ? exitSuccess : exitStoreFailed;
}

int deleteEvent(Services& services, const std::string& idText) {
    IdPrefix id = IdPrefix::parse(idText);
    Store store(services);
    EventPtr event = store.event(id);
    return store.repository().deleteEvent(*event) ? exitSuccess : exitStoreFailed;
}

CLI::IsMember spellingCheck(const auto& spellings) {
    return CLI::IsMember(std::vector<std::string>(spellings.begin(), spellings.end()));
}

// "a, b, c or d", for the help text.
std::string alternatives(const auto& spellings) {
    std::string out;
    for (std::size_t i = 0; i + 1 < spellings.size(); ++i) {
        out += i == 0 ? "" : ", ";
        out += spellings[i];
    }
    // TRANSLATORS: the last of several choices: "none, weekly, monthly or annually".
    return formatText(_("%s or %s"), {out, spellings.back()});
}

void declareList(CLI::App& events, Action& chosen) {
    auto json = std::make_shared<bool>(false);
    auto* list = events.add_subcommand("list", _("List the events, soonest date first"));
    list->add_flag("--json", *json, _("Print one JSON array"));
    list->callback([&chosen, json] {
        chosen = [json](Services& services) { return listEvents(services, *json); };
    });
}

void declareAdd(CLI::App& events, Action& chosen) {
    auto o = std::make_shared<EventOptions>();
    auto* add = events.add_subcommand("add", _("Add an event and print its id"));
    add->add_option("NAME", o->name, _("The event's name"))->required();
    add->add_option("--date", o->date, _("The event's date (see DATE below)"))->required();
    add->add_option("--alias", o->alias, _("Shorter text for the panel instead of the name"));
    add->add_option("--schedule", o->schedule,
                    formatText(_("Recurrence: %s"), {alternatives(scheduleSpellings)}))
        ->check(spellingCheck(scheduleSpellings));
    add->add_option("--count", o->count,
                    formatText(_("Counting: %s"), {alternatives(countMethodSpellings)}))
        ->check(spellingCheck(countMethodSpellings));
    add->callback(
        [&chosen, o] { chosen = [o](Services& services) { return addEvent(services, *o); }; });
}

void declareEdit(CLI::App& events, Action& chosen) {
    auto o = std::make_shared<EventOptions>();
    auto* edit = events.add_subcommand("edit", _("Change an event"));
    edit->add_option("ID", o->id, _("The event's id, or its first 4 characters or more"))
        ->required();
    auto* name = edit->add_option("--name", o->name, _("New name"));
    auto* alias = edit->add_option("--alias", o->alias, _("New alias; empty removes it"));
    auto* date = edit->add_option("--date", o->date, _("New date"));
    auto* schedule = edit->add_option("--schedule", o->schedule, _("New recurrence"))
                         ->check(spellingCheck(scheduleSpellings));
    auto* count = edit->add_option("--count", o->count, _("New counting"))
                      ->check(spellingCheck(countMethodSpellings));
    edit->callback([&chosen, o, name, alias, date, schedule, count] {
        EditFlags given{name->count() > 0, alias->count() > 0, date->count() > 0,
                        schedule->count() > 0, count->count() > 0};
        chosen = [o, given](Services& services) { return editEvent(services, *o, given); };
    });
}

void declareDelete(CLI::App& events, Action& chosen) {
    auto id = std::make_shared<std::string>();
    auto* remove = events.add_subcommand("delete", _("Delete an event"));
    remove->add_option("ID", *id, _("The event's id, or its first 4 characters or more"))
        ->required();
    remove->callback([&chosen, id] {
        chosen = [id](Services& services) { return deleteEvent(services, *id); };
    });
}

} // namespace

void declareEventCommands(CLI::App& app, Action& chosen) {
    auto* events =
        app.add_subcommand("events", _("List, add, edit, delete, export and import events"));
    events->require_subcommand(1);
    declareList(*events, chosen);
    declareAdd(*events, chosen);
    declareEdit(*events, chosen);
    declareDelete(*events, chosen);
    declareCalendarFileCommands(*events, chosen);
}

} // namespace almanor::cli

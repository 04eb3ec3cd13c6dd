// almanor select and almanor status: the displayed event, as the tray shows it.

#include "cli/Cli.h"
#include "cli/Command.h"
#include "cli/EventDescription.h"
#include "cli/Services.h"
#include "cli/Store.h"
#include "cli/TextEscapes.h"
#include "model/Utility.h"
#include "platform/Translation.h"
#include "shell/DisplayedEventSelection.h"

#include <cstdio>
#include <memory>
#include <optional>

namespace almanor::cli {

namespace {

// The selection over the events read once, so that a store that cannot be read is an error here
// and never the no-events title.
DisplayedEventSelection makeSelection(Services& services, Store& store, StatusItem& item,
                                      const std::vector<EventPtr>& events) {
    DisplayedEventSelection selection([&events] { return events; }, store.settings(),
                                      services.clock());
    selection.setStatusItem(&item);
    return selection;
}

// The three modes' ids; nullopt for anything else.
std::optional<Uuid> selectionMode(const std::string& target) {
    if (target == "next") {
        return DisplayedEventSelection::nextEventId;
    }
    if (target == "random") {
        return DisplayedEventSelection::randomEventId;
    }
    if (target == "rotate") {
        return DisplayedEventSelection::cycleUpcomingEventId;
    }
    return std::nullopt;
}

int selectEvent(Services& services, const std::string& target) {
    std::optional<Uuid> mode = selectionMode(target);
    std::optional<IdPrefix> prefix;
    if (!mode) {
        prefix = IdPrefix::parse(target, _("an event id, next, random or rotate"));
    }
    Store store(services);
    Uuid id = mode ? *mode : store.event(*prefix)->id(); // must name a live event
    auto events = store.events();
    if (!store.settings().setSelectedEventId(id)) {
        return exitStoreFailed; // the line saying why is out
    }
    RecordedStatusItem item;
    auto selection = makeSelection(services, store, item, events);
    selection.resolveDisplayedEvent(id);
    std::printf("%s\n", item.title().c_str());
    return exitSuccess;
}

// {"text": title, "tooltip": name and date of the occurrence, "class": today|upcoming|past}
std::string statusJson(Services& services, const std::string& title, const EventPtr& shown) {
    std::string out = "{\"text\":";
    appendJsonString(out, title);
    if (!shown) {
        out += ",\"tooltip\":";
        appendJsonString(out, _("No events"));
        return out + ",\"class\":\"none\"}";
    }
    auto calendar = DayCalendar::current();
    Instant today = Utility::startOfToday(*calendar, services.clock().now());
    auto description = describe(*shown, *calendar, today);
    out += ",\"tooltip\":";
    appendJsonString(out, shown->name() + ": " + localText(*calendar, description.occurrence));
    out += ",\"class\":\"";
    out += dayClass(description);
    return out + "\"}";
}

} // namespace

int showStatus(Services& services, bool json) {
    Store store(services);
    auto events = store.events();
    RecordedStatusItem item;
    auto selection = makeSelection(services, store, item, events);
    selection.resolveDisplayedEvent(store.settings().selectedEventId());
    std::string line =
        json ? statusJson(services, item.title(), selection.displayedEvent()) : item.title();
    std::printf("%s\n", line.c_str());
    return exitSuccess;
}

void declareDisplayCommands(CLI::App& app, Action& chosen) {
    auto target = std::make_shared<std::string>();
    auto* select =
        app.add_subcommand("select", _("Choose the displayed event and print its title"));
    select
        ->add_option("TARGET", *target,
                     _("An event id (or its first 4 characters or more), or next (next upcoming), "
                       "random or rotate (hourly)"))
        ->required();
    select->callback([&chosen, target] {
        chosen = [target](Services& services) { return selectEvent(services, *target); };
    });

    auto json = std::make_shared<bool>(false);
    auto* status =
        app.add_subcommand("status", _("Print the panel's title for the displayed event"));
    status->add_flag("--json", *json, _("Print a JSON object for waybar: text, tooltip, class"));
    status->callback([&chosen, json] {
        chosen = [json](Services& services) { return showStatus(services, *json); };
    });
}

} // namespace almanor::cli

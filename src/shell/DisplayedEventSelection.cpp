#include "shell/DisplayedEventSelection.h"

#include "model/Utility.h"
#include "platform/Log.h"

#include <algorithm>
#include <iterator>
#include <random>
#include <utility>
#include <vector>

namespace almanor {

const Uuid DisplayedEventSelection::nextEventId =
    Uuid::fromLiteral("c72773f5-d96e-478b-92fe-5bb5ddd62102");
const Uuid DisplayedEventSelection::randomEventId =
    Uuid::fromLiteral("d8291056-77f8-44d5-9475-07ae1cf9d9c8");
const Uuid DisplayedEventSelection::cycleUpcomingEventId =
    Uuid::fromLiteral("f32c697a-d3de-4796-bc68-b55c77265494");

namespace {

constexpr std::string_view nothingUpcoming = "No upcoming events to choose from";

double secondsBetween(Instant from, Instant to) {
    return std::chrono::duration<double>(to - from).count();
}

// Events with the seconds from today to their occurrence.
using TimedEvents = std::vector<std::pair<double, EventPtr>>;

// The events still to come, in the list's order: today's occurrences are not upcoming.
TimedEvents upcomingEvents(const std::vector<EventPtr>& events, const DayCalendar& calendar,
                           Instant today) {
    TimedEvents upcoming;
    for (const auto& e : events) {
        Instant occurrence = Utility::occurrenceDate(calendar, today, e->date(), e->schedule());
        if (double diff = secondsBetween(today, occurrence); diff > 0) {
            upcoming.emplace_back(diff, e);
        }
    }
    return upcoming;
}

// The nearest upcoming event; a tie keeps the earlier event of the list.
EventPtr nearest(const TimedEvents& upcoming) {
    const std::pair<double, EventPtr>* best = nullptr;
    for (const auto& timed : upcoming) {
        if (best == nullptr || timed.first < best->first) {
            best = &timed;
        }
    }
    return best != nullptr ? best->second : nullptr;
}

// What the rotation draws from, nearest first: the events within its window, else every upcoming
// one.
TimedEvents rotationPool(TimedEvents upcoming, double windowSeconds) {
    TimedEvents soon;
    std::copy_if(upcoming.begin(), upcoming.end(), std::back_inserter(soon),
                 [&](const auto& p) { return p.first < windowSeconds; });
    TimedEvents& pool = soon.empty() ? upcoming : soon;
    std::stable_sort(pool.begin(), pool.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    return std::move(pool);
}

} // namespace

DisplayedEventSelection::RandomIndex DisplayedEventSelection::uniformRandomIndex() {
    auto engine = std::make_shared<std::mt19937_64>(std::random_device{}());
    return [engine](std::size_t count) {
        return std::uniform_int_distribution<std::size_t>(0, count - 1)(*engine);
    };
}

DisplayedEventSelection::DisplayedEventSelection(EventSource events, Settings settings,
                                                 const Clock& clock, CalendarSource calendar,
                                                 RandomIndex random)
    : events_(std::move(events)), settings_(settings), clock_(clock),
      calendar_(std::move(calendar)), random_(std::move(random)) {}

Instant DisplayedEventSelection::startOfToday() const {
    return Utility::startOfToday(*calendar_(), clock_.now());
}

Uuid DisplayedEventSelection::displayEvent(const EventPtr& event, int modeCode) {
    auto calendar = calendar_();
    Instant today = Utility::startOfToday(*calendar, clock_.now());
    return displayEvent(event, modeCode, *calendar, today);
}

Uuid DisplayedEventSelection::displayEvent(const EventPtr& event, int modeCode,
                                           const DayCalendar& calendar, Instant today) {
    if (statusItem_ != nullptr) {
        statusItem_->setTitle(Utility::statusText(calendar, *event, today));
        statusItem_->setDayCount(Utility::dayCount(
            calendar, today,
            Utility::occurrenceDate(calendar, today, event->date(), event->schedule()),
            event->countMethod()));
    }
    switch (modeCode) {
    case nextMode:
        settings_.setSelectedEventId(nextEventId);
        break;
    case randomMode:
        settings_.setSelectedEventId(randomEventId);
        break;
    case rotateMode:
        settings_.setSelectedEventId(cycleUpcomingEventId);
        break;
    default:
        settings_.setSelectedEventId(event->id());
        break;
    }
    lastCalculated_ = today;
    displayed_ = event;
    return event->id();
}

Uuid DisplayedEventSelection::resolveDisplayedEvent(const Uuid& selected) {
    // One calendar, one today and one list for the whole resolution.
    auto calendar = calendar_();
    Instant today = Utility::startOfToday(*calendar, clock_.now());
    std::vector<EventPtr> events = events_();

    if (selected == nextEventId) {
        if (EventPtr best = nearest(upcomingEvents(events, *calendar, today))) {
            displayEvent(best, nextMode, *calendar, today);
            return nextEventId;
        }
    } else if (selected == randomEventId) {
        if (!events.empty()) {
            displayEvent(events[random_(events.size())], randomMode, *calendar, today);
            return randomEventId;
        }
        Log::debug(nothingUpcoming);
    } else if (selected == cycleUpcomingEventId) {
        TimedEvents pool =
            rotationPool(upcomingEvents(events, *calendar, today), rotationWindowSeconds);
        if (!pool.empty()) {
            displayEvent(pool[random_(pool.size())].second, rotateMode, *calendar, today);
            lastCycled_ = secondsSinceReferenceDate(clock_.now());
            return cycleUpcomingEventId;
        }
        Log::debug(nothingUpcoming);
    }

    // A fixed selection, and every mode that found nothing.
    for (const auto& e : events) {
        if (e->id() == selected) {
            return displayEvent(e, fixedMode, *calendar, today);
        }
    }
    if (!events.empty()) {
        // The selection becomes the first event for good (a deleted event, a lost mode).
        return displayEvent(events.front(), fixedMode, *calendar, today);
    }
    if (statusItem_ != nullptr) {
        statusItem_->setTitle(std::string(noEventsTitle));
        statusItem_->setDayCount(std::nullopt);
    }
    displayed_.reset();
    return settings_.selectedEventId();
}

} // namespace almanor

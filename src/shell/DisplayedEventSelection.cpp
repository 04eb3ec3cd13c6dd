#include "shell/DisplayedEventSelection.h"

#include "model/Utility.h"
#include "platform/Log.h"

#include <algorithm>
#include <random>

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

    auto secondsToOccurrence = [&](const Event& e) {
        return secondsBetween(today,
                              Utility::occurrenceDate(*calendar, today, e.date(), e.schedule()));
    };

    if (selected == nextEventId) {
        EventPtr best;
        double bestDiff = 0;
        for (const auto& e : events) {
            double diff = secondsToOccurrence(*e);
            // Today's occurrences are not upcoming; ties keep the earlier event of the list.
            if (diff > 0 && (!best || diff < bestDiff)) {
                best = e;
                bestDiff = diff;
            }
        }
        if (best) {
            displayEvent(best, nextMode, *calendar, today);
            return nextEventId;
        }
    } else if (selected == randomEventId) {
        if (!events.empty()) {
            displayEvent(events[random_(events.size())], randomMode, *calendar, today);
            return randomEventId;
        }
        Log::line(nothingUpcoming);
    } else if (selected == cycleUpcomingEventId) {
        std::vector<std::pair<double, EventPtr>> upcoming;
        for (const auto& e : events) {
            if (double diff = secondsToOccurrence(*e); diff > 0) {
                upcoming.emplace_back(diff, e);
            }
        }
        std::vector<std::pair<double, EventPtr>> soon;
        std::copy_if(upcoming.begin(), upcoming.end(), std::back_inserter(soon),
                     [](const auto& p) { return p.first < rotationWindowSeconds; });
        std::vector<std::pair<double, EventPtr>>& pool = soon.empty() ? upcoming : soon;
        if (!pool.empty()) {
            std::stable_sort(pool.begin(), pool.end(),
                             [](const auto& a, const auto& b) { return a.first < b.first; });
            displayEvent(pool[random_(pool.size())].second, rotateMode, *calendar, today);
            lastCycled_ = secondsSinceReferenceDate(clock_.now());
            return cycleUpcomingEventId;
        }
        Log::line(nothingUpcoming);
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

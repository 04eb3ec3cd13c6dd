#pragma once

#include "model/DayCalendar.h"
#include "model/Event.h"
#include "platform/Clock.h"
#include "platform/Export.h"
#include "platform/Settings.h"
#include "platform/Uuid.h"
#include "shell/StatusItem.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace almanor {

// Turns the stored selection (an event's id or one of three mode sentinels) into the displayed
// event, sets the status title and writes the selection back. Plain C++ shared by the tray and
// the command line, so both show the same event for the same state.
class ALMANOR_EXPORT DisplayedEventSelection {
  public:
    static const Uuid nextEventId;          // "Next upcoming event"
    static const Uuid randomEventId;        // "Random event selection"
    static const Uuid cycleUpcomingEventId; // "Rotate upcoming events (hourly)"

    // Display mode codes.
    static constexpr int fixedMode = 0;
    static constexpr int nextMode = 1;
    static constexpr int randomMode = 2;
    static constexpr int rotateMode = 3;

    static constexpr std::string_view noEventsTitle = "Almanor  \xF0\x9F\x8E\x89";
    // Upcoming events closer than this are preferred by the hourly rotation (90 days).
    static constexpr double rotationWindowSeconds = 7'776'000.0;

    using EventSource = std::function<std::vector<EventPtr>()>;
    using CalendarSource = std::function<std::unique_ptr<DayCalendar>()>;
    // A uniform draw from 0 to count - 1.
    using RandomIndex = std::function<std::size_t(std::size_t count)>;

    static RandomIndex uniformRandomIndex();

    DisplayedEventSelection(EventSource events, Settings settings, const Clock& clock,
                            CalendarSource calendar = &DayCalendar::current,
                            RandomIndex random = uniformRandomIndex());

    // The item whose title is set; none means the title is computed but shown nowhere.
    void setStatusItem(StatusItem* item) { statusItem_ = item; }

    Instant startOfToday() const;

    // Chooses and displays the event for the selection; returns the id the events menu marks:
    // the active mode's sentinel, or the displayed event's id.
    Uuid resolveDisplayedEvent(const Uuid& selected);

    // Shows one event in the given mode and stores the selection; returns the event's id.
    Uuid displayEvent(const EventPtr& event, int modeCode);

    // Start of the local day for which the title was last computed.
    Instant lastCalculated() const { return lastCalculated_; }
    // Seconds since 2001-01-01 of the last draw of the hourly rotation.
    double lastCycled() const { return lastCycled_; }
    // The event shown by the last resolution, or none after the no-events title.
    const EventPtr& displayedEvent() const { return displayed_; }

  private:
    Uuid displayEvent(const EventPtr& event, int modeCode, const DayCalendar& calendar,
                      Instant today);

    EventSource events_;
    Settings settings_;
    const Clock& clock_;
    CalendarSource calendar_;
    RandomIndex random_;
    StatusItem* statusItem_ = nullptr;
    Instant lastCalculated_{};
    double lastCycled_ = 0.0;
    EventPtr displayed_;
};

} // namespace almanor

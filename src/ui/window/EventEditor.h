#pragma once

#include "model/Event.h"
#include "platform/Clock.h"
#include "platform/Translation.h"

#include <array>
#include <functional>
#include <string>
#include <string_view>

namespace almanor {

class DateText;
class DayCalendar;
class Repository;

// The event form's working copy and its rules, apart from the widgets: nothing reaches the event
// until it is saved. Add mode has no event; edit mode edits the shared event itself on save.
class EventEditor {
  public:
    // Add mode: starts at the current instant.
    EventEditor(Repository& repository, const Clock& clock);
    // Edit mode.
    EventEditor(Repository& repository, EventPtr event);

    // In English; the window shows them through the catalogue.
    static constexpr std::string_view eventLabel = N_("Event:");
    static constexpr std::string_view aliasLabel = N_("Menubar:");
    static constexpr std::string_view aliasHelp =
        N_("Alternative text to display on the menubar instead of the event name.");
    static constexpr std::string_view dateLabel = N_("Date:");
    static constexpr std::string_view recurringLabel = N_("Recurring:");
    static constexpr std::string_view countLabel = N_("Count:");
    static const std::array<std::string_view, 4> scheduleChoices;
    static const std::array<std::string_view, 4> countChoices;
    static std::string_view countHelp(CountMethod method);

    bool addModal() const { return !event_; }
    const EventPtr& event() const { return event_; }
    const std::string& title() const { return title_; }
    bool dirty() const { return dirty_; }
    // "Save Event" is sensitive only when the form is dirty and the typed date is a date.
    bool canSave() const { return dirty_ && dateValid_; }

    const std::string& name() const { return name_; }
    const std::string& alias() const { return alias_; }
    Instant date() const { return date_; }
    Schedule schedule() const { return schedule_; }
    CountMethod countMethod() const { return countMethod_; }
    bool dateValid() const { return dateValid_; }

    void setName(std::string name);
    void setAlias(std::string alias);
    void setDate(Instant date);
    // A calendar day chosen or typed: the working date moves to that day in the calendar's zone
    // and keeps its time of day.
    void setDay(const DayCalendar& calendar, int year, int month, int day);
    // The date field's text as typed; text that is no date marks the field invalid.
    void setDateText(const DateText& dates, const DayCalendar& calendar, std::string_view text);
    void setSchedule(Schedule schedule);
    void setCountMethod(CountMethod method);

    // Writes the event (insert in add mode, update in edit mode). Returns whether it saved; the
    // add dialog closes through `closeDialog`.
    bool save(const std::function<void()>& closeDialog = {});

    // The title of an event: its name, " - " and its date as "MMM d, yyyy".
    static std::string titleOf(const Event& event, const DateText& dates);

  private:
    void checkDirty();

    Repository& repository_;
    EventPtr event_;
    std::string title_;
    std::string name_;
    std::string alias_;
    Instant date_{};
    Schedule schedule_ = Schedule::none;
    CountMethod countMethod_ = CountMethod::standard;
    bool dirty_ = false;
    bool dateValid_ = true;
};

} // namespace almanor

#include "ui/window/EventEditor.h"

#include "dates/DateText.h"
#include "model/DayCalendar.h"
#include "model/Text.h"
#include "platform/Translation.h"
#include "storage/Repository.h"

namespace almanor {

// Marked here, translated where they are shown.
const std::array<std::string_view, 4> EventEditor::scheduleChoices{N_("None"), N_("Weekly"),
                                                                   N_("Monthly"), N_("Annually")};
const std::array<std::string_view, 4> EventEditor::countChoices{
    N_("Every day"), N_("Exclude weekends"), N_("Adjust weekend date to the Friday before"),
    N_("Adjust weekend date to the Monday after")};

std::string_view EventEditor::countHelp(CountMethod method) {
    switch (method) {
    case CountMethod::excludeWeekends:
        return _("Count only weekdays (Mon - Fri) until/since the event date.\n ");
    case CountMethod::weekendUsesFridayBefore:
        return _("When a recurring event date falls on a weekend, count \nuntil/from the Friday "
                 "immediately before.");
    case CountMethod::weekendUsesMondayAfter:
        return _("When a recurring event date falls on a weekend, count \nuntil/from the Monday "
                 "immediately after.");
    case CountMethod::standard:
        break;
    }
    return _("Count all days until/since the event date.\n ");
}

EventEditor::EventEditor(Repository& repository, const Clock& clock)
    : repository_(repository), title_(_("Add Event")), date_(clock.now()) {}

EventEditor::EventEditor(Repository& repository, EventPtr event)
    : repository_(repository), event_(std::move(event)), name_(event_->name()),
      alias_(event_->alias().value_or("")), date_(event_->date()), schedule_(event_->schedule()),
      countMethod_(event_->countMethod()) {
    title_ = titleOf(*event_, DateText());
}

std::string EventEditor::titleOf(const Event& event, const DateText& dates) {
    return event.name() + " - " + dates.format(event.date(), "MMM d, yyyy");
}

void EventEditor::setName(std::string name) {
    name_ = std::move(name);
    checkDirty();
}

void EventEditor::setAlias(std::string alias) {
    alias_ = std::move(alias);
    checkDirty();
}

void EventEditor::setDate(Instant date) {
    date_ = date;
    dateValid_ = true;
    checkDirty();
}

void EventEditor::setDay(const DayCalendar& calendar, int year, int month, int day) {
    using namespace std::chrono;
    LocalTime wall = calendar.localTime(date_);
    auto timeOfDay = wall - floor<days>(wall);
    auto chosen = local_days(std::chrono::year(year) / std::chrono::month(unsigned(month)) /
                             std::chrono::day(unsigned(day)));
    setDate(calendar.instant(LocalTime(chosen.time_since_epoch() + timeOfDay)));
}

void EventEditor::setDateText(const DateText& dates, const DayCalendar& calendar,
                              std::string_view text) {
    int y = 0, m = 0, d = 0;
    if (dates.parseDay(text, y, m, d)) {
        setDay(calendar, y, m, d);
    } else {
        dateValid_ = false;
    }
}

void EventEditor::setSchedule(Schedule schedule) {
    schedule_ = schedule;
    checkDirty();
}

void EventEditor::setCountMethod(CountMethod method) {
    countMethod_ = method;
    checkDirty();
}

void EventEditor::checkDirty() {
    std::string name = trimmed(name_);
    if (!event_) {
        dirty_ = !name.empty();
        return;
    }
    if (name.empty()) {
        dirty_ = false;
        return;
    }
    std::string alias = trimmed(alias_);
    dirty_ = name != event_->name() || alias != event_->alias().value_or("") ||
             date_ != event_->date() || schedule_ != event_->schedule() ||
             countMethod_ != event_->countMethod();
}

bool EventEditor::save(const std::function<void()>& closeDialog) {
    if (name_.empty() || !dateValid_) {
        return false;
    }
    std::string name = trimmed(name_);
    std::string trimmedAlias = trimmed(alias_);
    std::optional<std::string> alias;
    if (!trimmedAlias.empty()) {
        alias = trimmedAlias;
    }
    bool saved = false;
    if (!event_) {
        auto event = makeEvent(Uuid::random(), date_, name, alias, schedule_, countMethod_);
        saved = repository_.insert(*event);
        title_ = titleOf(*event, DateText());
    } else {
        event_->setName(name);
        event_->setAlias(alias);
        event_->setDate(date_);
        event_->setSchedule(schedule_);
        event_->setCountMethod(countMethod_);
        saved = repository_.update(*event_);
        title_ = titleOf(*event_, DateText());
    }
    if (!event_ && closeDialog) {
        closeDialog();
    }
    checkDirty();
    return saved;
}

} // namespace almanor

#include "ui/window/EventsModel.h"

#include "platform/Fatal.h"
#include "platform/GlibOwners.h"
#include "platform/Translation.h"
#include "storage/LocalRepository.h"
#include "storage/Repository.h"

#include <algorithm>
#include <glib.h>

namespace almanor {

Model::Model(Repository& repository, Signals& center, MainThread& mainThread)
    : repository_(repository), center_(center), mainThread_(mainThread),
      events_(repository.fetchAll()) {
    // The store posts on whichever thread wrote; the list may only change on the main thread.
    observer_ = center_.connect(std::string(eventChangeNotification),
                                [this] { mainThread_.run([this] { reload(); }); });
}

Model::~Model() {
    center_.disconnect(observer_);
}

void Model::reload() {
    auto events = repository_.fetchAll();
    if (willChange_) {
        willChange_();
    }
    events_ = std::move(events);
    if (didChange_) {
        didChange_();
    }
}

EventPtr Model::find(const std::optional<Uuid>& id) const {
    if (!id) {
        return nullptr;
    }
    for (const auto& e : events_) {
        if (e->id() == *id) {
            return e;
        }
    }
    return nullptr;
}

std::array<EventSection, sectionCount> eventSections(const std::vector<EventPtr>& events) {
    std::array<EventSection, sectionCount> sections{{
        {_("One Off Events"), Schedule::none, {}},
        {_("Weekly Events"), Schedule::weekly, {}},
        {_("Monthly Events"), Schedule::monthly, {}},
        {_("Annual Events"), Schedule::annually, {}},
    }};
    for (const auto& e : events) {
        sections[static_cast<std::size_t>(rawValue(e->schedule()))].events.push_back(e);
    }
    return sections;
}

EventRowText eventRowText(const Event& event) {
    EventRowText row{event.name(), std::nullopt};
    if (event.alias() && !event.alias()->empty()) {
        row.alias = *event.alias();
    }
    return row;
}

std::string searchFold(std::string_view text) {
    // Plain ASCII, what most names are, needs neither normalising nor Unicode's case tables.
    if (std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; })) {
        std::string folded(text);
        std::transform(folded.begin(), folded.end(), folded.begin(),
                       [](char c) { return char(g_ascii_tolower(c)); });
        return folded;
    }
    // Decomposed, so that accents become marks of their own and are dropped; then case folded.
    glib::Chars decomposed(g_utf8_normalize(text.data(), gssize(text.size()), G_NORMALIZE_ALL));
    if (!decomposed) {
        return {};
    }
    std::string bare;
    for (const gchar* c = decomposed.get(); *c != 0; c = g_utf8_next_char(c)) {
        if (g_unichar_type(g_utf8_get_char(c)) != G_UNICODE_NON_SPACING_MARK) {
            bare.append(c, std::size_t(g_utf8_next_char(c) - c));
        }
    }
    glib::Chars folded(g_utf8_casefold(bare.data(), gssize(bare.size())));
    return folded.get();
}

void EventSearch::index(const std::vector<EventPtr>& events) {
    keys_.clear();
    keys_.reserve(events.size());
    for (const auto& e : events) {
        keys_.push_back(searchFold(e->name()) + '\n' + searchFold(e->alias().value_or("")));
    }
}

void EventSearch::setQuery(std::string_view query) {
    const char* blank = " \t\n\r\f\v";
    auto first = query.find_first_not_of(blank);
    query_ = first == std::string_view::npos
                 ? std::string()
                 : searchFold(query.substr(first, query.find_last_not_of(blank) - first + 1));
}

std::string versionText(std::string_view version) {
    if (version.empty()) {
        return {};
    }
    // Written into place: GCC 12 misreads "v" + text as an overlapping copy (-Wrestrict).
    std::string text(version.size() + 1, 'v');
    std::copy(version.begin(), version.end(), text.begin() + 1);
    return text;
}

void ManageEventsState::pressAdd() {
    selection_.reset();
    showAdd_ = true;
}

void ManageEventsState::pressDelete() {
    showDelete_ = selectedEvent() != nullptr;
}

ConfirmDelete::ConfirmDelete(EventPtr event, std::function<void()> dismiss,
                             std::function<void(const Event&)> performDelete)
    : event_(std::move(event)), dismiss_(std::move(dismiss)),
      performDelete_(std::move(performDelete)) {
    if (!event_) {
        // The "-" button opens the dialog only for an event that exists.
        fatalError("Almanor/ConfirmDeleteSheet", __LINE__, "No event to delete");
    }
}

std::string ConfirmDelete::question() const {
    // One message with the name in it, so that a language can place it (and quote it) its way.
    return formatText(_("Are you sure you want to remove \"%s\"?"), {event_->name()});
}

void ConfirmDelete::confirm() {
    dismiss_();
    performDelete_(*event_);
}

} // namespace almanor

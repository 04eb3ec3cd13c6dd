#pragma once

#include "model/Event.h"
#include "platform/MainThread.h"
#include "platform/Signals.h"

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

namespace almanor {

class Repository;

// The management window's list: every live event in the repository's order, reloaded on each
// change notification. The list changes only on the main thread, where the views read it.
class Model {
  public:
    using Listener = std::function<void()>;

    Model(Repository& repository, Signals& center, MainThread& mainThread);
    ~Model();
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;

    const std::vector<EventPtr>& events() const { return events_; }
    // Fetches the list again; listeners hear it just before it changes.
    void reload();
    // Called before every change of the list (objectWillChange).
    void setWillChange(Listener listener) { willChange_ = std::move(listener); }
    // Called after every change of the list, for views that redraw from the new one.
    void setDidChange(Listener listener) { didChange_ = std::move(listener); }

    EventPtr find(const std::optional<Uuid>& id) const;

  private:
    Repository& repository_;
    Signals& center_;
    MainThread& mainThread_;
    Signals::Token observer_;
    std::vector<EventPtr> events_;
    Listener willChange_;
    Listener didChange_;
};

// One section of the sidebar: its header and its events, in the list's order.
struct EventSection {
    std::string_view header;
    Schedule schedule;
    std::vector<EventPtr> events;
};

// One section per schedule: always all of them, in the schedules' order.
inline constexpr std::size_t sectionCount = 4;
std::array<EventSection, sectionCount> eventSections(const std::vector<EventPtr>& events);

// The text of a sidebar row: the name, and the alias when there is one that is not empty.
struct EventRowText {
    std::string name;
    std::optional<std::string> alias;
};
EventRowText eventRowText(const Event& event);

// The sidebar's search. Text is folded so that case, accents and compatibility forms do not count:
// "cafe" finds "Café", "strasse" finds "Straße", "ﬁ" finds "fi". Not UTF-8: no text.
std::string searchFold(std::string_view text);

// The sidebar's filter: each event's name and alias folded once per list, so that a keystroke
// costs one substring search per row shown.
class EventSearch {
  public:
    // Folds the names and aliases of `events`, the list whose rows shows() is then asked about.
    void index(const std::vector<EventPtr>& events);
    // Trimmed, then folded. Blank: every row is shown.
    void setQuery(std::string_view query);
    bool active() const { return !query_.empty(); }
    // Whether the `i`th event of the indexed list holds the query in its name or alias.
    bool shows(std::size_t i) const {
        return i < keys_.size() && keys_[i].find(query_) != std::string::npos;
    }

  private:
    std::vector<std::string> keys_; // folded name, a line break, folded alias
    std::string query_;
};

// The version text under the list: "v" and the version, or nothing without a version.
std::string versionText(std::string_view version);

// What the window shows and which dialog is up, apart from the widgets.
class ManageEventsState {
  public:
    explicit ManageEventsState(const Model& model) : model_(model) {}

    const std::optional<Uuid>& selection() const { return selection_; }
    void select(std::optional<Uuid> id) { selection_ = id; }
    // The event the detail shows, or none ("Nothing Selected"); a stale id finds none.
    EventPtr selectedEvent() const { return model_.find(selection_); }

    bool showAdd() const { return showAdd_; }
    bool showDelete() const { return showDelete_; }

    // "+": clears the selection, then presents the add dialog.
    void pressAdd();
    // "-": presents the delete confirmation only for an event that exists.
    void pressDelete();
    void dismissAdd() { showAdd_ = false; }
    void dismissDelete() { showDelete_ = false; }

  private:
    const Model& model_;
    std::optional<Uuid> selection_;
    bool showAdd_ = false;
    bool showDelete_ = false;
};

// The delete confirmation: "Confirm" dismisses the dialog first, then deletes, so the dialog is
// gone before the store changes and the list reloads.
class ConfirmDelete {
  public:
    ConfirmDelete(EventPtr event, std::function<void()> dismiss,
                  std::function<void(const Event&)> performDelete);

    // Are you sure you want to remove "<name>"?
    std::string question() const;
    void cancel() { dismiss_(); }
    void confirm();

  private:
    EventPtr event_;
    std::function<void()> dismiss_;
    std::function<void(const Event&)> performDelete_;
};

} // namespace almanor

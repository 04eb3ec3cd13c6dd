#include "ui/window/ManageEventsWindowGtk.h"

#include "dates/DateText.h"
#include "model/DayCalendar.h"
#include "platform/Translation.h"
#include "storage/Repository.h"
#include "ui/window/EventEditor.h"

#include <gdkmm/display.h>
#include <gdkmm/general.h>
#include <gdkmm/monitor.h>
#include <gdkmm/screen.h>
#include <gdkmm/seat.h>
#include <glibmm/binding.h>
#include <glibmm/main.h>
#include <glibmm/markup.h>
#include <glibmm/property.h>
#include <gtkmm/builder.h>
#include <gtkmm/button.h>
#include <gtkmm/calendar.h>
#include <gtkmm/cellrenderertext.h>
#include <gtkmm/comboboxtext.h>
#include <gtkmm/cssprovider.h>
#include <gtkmm/dialog.h>
#include <gtkmm/entry.h>
#include <gtkmm/label.h>
#include <gtkmm/menubutton.h>
#include <gtkmm/popover.h>
#include <gtkmm/radiobutton.h>
#include <gtkmm/scrolledwindow.h>
#include <gtkmm/searchbar.h>
#include <gtkmm/searchentry.h>
#include <gtkmm/stack.h>
#include <gtkmm/stylecontext.h>
#include <gtkmm/togglebutton.h>
#include <gtkmm/tooltip.h>
#include <gtkmm/treemodelfilter.h>
#include <gtkmm/treestore.h>
#include <gtkmm/treeview.h>
#include <gtkmm/window.h>
#include <stdexcept>
#include <unordered_map>

#ifndef ALMANOR_VERSION
#define ALMANOR_VERSION ""
#endif

namespace almanor {

namespace {

constexpr const char* resources = "/com/vostrel/Almanor/window/";

// Every widget a view needs is in its .ui file; a missing one is a broken build, said loudly.
template <class T> T* widget(const Glib::RefPtr<Gtk::Builder>& builder, const char* id) {
    T* w = nullptr;
    builder->get_widget(id, w);
    if (w == nullptr) {
        throw std::logic_error(std::string("The window's layout has no widget ") + id);
    }
    return w;
}

void installStyle() {
    static bool installed = false;
    if (installed) {
        return;
    }
    installed = true;
    auto css = Gtk::CssProvider::create();
    css->load_from_resource(std::string(resources) + "style.css");
    Gtk::StyleContext::add_provider_for_screen(Gdk::Screen::get_default(), css,
                                               GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
}

// A shortcut of a window, run before the focused widget sees the key: only for keys with Ctrl,
// which no field of ours uses. Removed with the group.
void addShortcut(const Glib::RefPtr<Gtk::AccelGroup>& group, const char* accelerator,
                 std::function<void()> action) {
    using Action = std::function<void()>;
    guint key = 0;
    GdkModifierType mods{};
    gtk_accelerator_parse(accelerator, &key, &mods);
    GClosure* closure = g_cclosure_new(
        G_CALLBACK(+[](GtkAccelGroup*, GObject*, guint, GdkModifierType, gpointer data) {
            (*static_cast<Action*>(data))();
            return TRUE;
        }),
        new Action(std::move(action)),
        +[](gpointer data, GClosure*) { delete static_cast<Action*>(data); });
    gtk_accel_group_connect(group->gobj(), key, mods, GtkAccelFlags(0), closure);
}

Glib::RefPtr<Gtk::AccelGroup> shortcutsOf(Gtk::Window& window) {
    auto group = Gtk::AccelGroup::create();
    window.add_accel_group(group);
    return group;
}

int textWidth(Gtk::Widget& widget, const Glib::ustring& text) {
    int width = 0, height = 0;
    widget.create_pango_layout(text)->get_pixel_size(width, height);
    return width;
}

// A sidebar row's text: the name, ellipsized only at the row's end, then the alias, dimmed,
// where it fits after the whole name. An alias that would cut the name is left to the tooltip.
class NameCell final : public Gtk::CellRendererText {
  public:
    NameCell() : Glib::ObjectBase("AlmanorNameCell"), alias_(*this, "alias") {
        property_ellipsize() = Pango::ELLIPSIZE_END;
    }

    Glib::PropertyProxy<Glib::ustring> property_alias() { return alias_.get_proxy(); }

    // What a row of `width` pixels shows of its texts.
    struct Fit {
        bool nameCut;
        bool aliasShown;
    };
    Fit fit(Gtk::Widget& widget, const Glib::ustring& name, const Glib::ustring& alias,
            int width) const {
        int xpad = 0, ypad = 0;
        get_padding(xpad, ypad);
        int room = width - 2 * xpad - textWidth(widget, name);
        return {room < 0, !alias.empty() && room >= gap + textWidth(widget, alias)};
    }

  protected:
    void render_vfunc(const Cairo::RefPtr<Cairo::Context>& cr, Gtk::Widget& widget,
                      const Gdk::Rectangle& background, const Gdk::Rectangle& cell,
                      Gtk::CellRendererState flags) override {
        Gtk::CellRendererText::render_vfunc(cr, widget, background, cell, flags);
        Glib::ustring alias = alias_.get_value();
        Glib::ustring name = property_text().get_value();
        if (alias.empty() || !fit(widget, name, alias, cell.get_width()).aliasShown) {
            return;
        }
        int xpad = 0, ypad = 0;
        get_padding(xpad, ypad);
        auto layout = widget.create_pango_layout(alias);
        int width = 0, height = 0;
        layout->get_pixel_size(width, height);
        int offset = xpad + textWidth(widget, name) + gap;
        int x = widget.get_direction() == Gtk::TEXT_DIR_RTL
                    ? cell.get_x() + cell.get_width() - offset - width
                    : cell.get_x() + offset;
        // The row's own text colour (white on a selected row), as a dimmed label has it.
        auto style = widget.get_style_context();
        Gdk::RGBA colour = style->get_color(style->get_state());
        colour.set_alpha(colour.get_alpha() * 0.55);
        cr->save();
        Gdk::Cairo::set_source_rgba(cr, colour);
        int y = cell.get_y() + (cell.get_height() - height) / 2; // whole pixels, as the name's
        cr->move_to(x, y);
        layout->show_in_cairo_context(cr);
        cr->restore();
    }

  private:
    static constexpr int gap = 8;
    Glib::Property<Glib::ustring> alias_;
};

// The schedule's radio buttons in the editor's layout, in the schedules' order.
constexpr std::array scheduleIds{"schedule-none", "schedule-weekly", "schedule-monthly",
                                 "schedule-annually"};

// The event form: the plain editor's working copy, drawn and fed by GTK widgets.
class EditorView {
  public:
    EditorView(std::unique_ptr<EventEditor> editor, std::function<void()> closeDialog)
        : editor_(std::move(editor)), closeDialog_(std::move(closeDialog)),
          builder_(Gtk::Builder::create_from_resource(std::string(resources) + "editor.ui")) {
        findWidgets();
        showWorkingCopy();
        connectFields();
        connectButtons();
        refresh();
    }

    Gtk::Box& root() { return *root_; }
    EventEditor& editor() { return *editor_; }
    // Ctrl+S: what the Save button does, when it may.
    void saveIfEnabled() {
        if (save_->is_sensitive()) {
            save_->clicked();
        }
    }

  private:
    void findWidgets() {
        root_ = widget<Gtk::Box>(builder_, "editor");
        title_ = widget<Gtk::Label>(builder_, "title");
        name_ = widget<Gtk::Entry>(builder_, "name");
        alias_ = widget<Gtk::Entry>(builder_, "alias");
        date_ = widget<Gtk::Entry>(builder_, "date");
        calendar_ = widget<Gtk::Calendar>(builder_, "calendar");
        popover_ = widget<Gtk::Popover>(builder_, "calendar-popover");
        count_ = widget<Gtk::ComboBoxText>(builder_, "count");
        countHelp_ = widget<Gtk::Label>(builder_, "count-help");
        save_ = widget<Gtk::Button>(builder_, "save");
        cancel_ = widget<Gtk::Button>(builder_, "cancel");
        widget<Gtk::Label>(builder_, "alias-help")->set_text(_(EventEditor::aliasHelp.data()));
        for (std::size_t i = 0; i < schedules_.size(); ++i) {
            schedules_[i] = widget<Gtk::RadioButton>(builder_, scheduleIds[i]);
        }
        for (auto choice : EventEditor::countChoices) {
            count_->append(_(choice.data())); // (the choices are literals: ended by a NUL)
        }
    }

    // The working copy into the widgets.
    void showWorkingCopy() {
        name_->set_text(editor_->name());
        alias_->set_text(editor_->alias());
        schedules_[static_cast<std::size_t>(rawValue(editor_->schedule()))]->set_active(true);
        count_->set_active(rawValue(editor_->countMethod()));
        showDate();
        cancel_->set_visible(editor_->addModal());
    }

    // Every change of a field goes to the working copy at once.
    void connectFields() {
        name_->signal_changed().connect([this] {
            editor_->setName(name_->get_text());
            refresh();
        });
        alias_->signal_changed().connect([this] {
            editor_->setAlias(alias_->get_text());
            refresh();
        });
        date_->signal_changed().connect([this] {
            if (!showingDate_) {
                editor_->setDateText(dates_, *calendarOfZone_, date_->get_text().raw());
                refresh();
            }
        });
        calendar_->signal_day_selected().connect([this] {
            if (showingDate_) {
                return;
            }
            guint y = 0, m = 0, d = 0;
            calendar_->get_date(y, m, d);
            editor_->setDay(*calendarOfZone_, int(y), int(m) + 1, int(d));
            showDate();
            refresh();
        });
        calendar_->signal_day_selected_double_click().connect([this] { popover_->popdown(); });
        for (std::size_t i = 0; i < schedules_.size(); ++i) {
            schedules_[i]->signal_toggled().connect([this, i] {
                if (schedules_[i]->get_active()) {
                    editor_->setSchedule(static_cast<Schedule>(i));
                    refresh();
                }
            });
        }
        count_->signal_changed().connect([this] {
            if (count_->get_active_row_number() >= 0) {
                editor_->setCountMethod(static_cast<CountMethod>(count_->get_active_row_number()));
                refresh();
            }
        });
    }

    void connectButtons() {
        save_->signal_clicked().connect([this] {
            editor_->save(closeDialog_);
            refresh();
        });
        cancel_->signal_clicked().connect([this] {
            if (closeDialog_) {
                closeDialog_();
            }
        });
    }

    void showDate() {
        showingDate_ = true;
        date_->set_text(dates_.shortDate(editor_->date()));
        auto local = calendarOfZone_->localTime(editor_->date());
        auto ymd = std::chrono::year_month_day(std::chrono::floor<std::chrono::days>(local));
        calendar_->select_month(unsigned(ymd.month()) - 1, int(ymd.year()));
        calendar_->select_day(unsigned(ymd.day()));
        showingDate_ = false;
    }

    void refresh() {
        title_->set_text(editor_->title());
        save_->set_sensitive(editor_->canSave());
        countHelp_->set_text(std::string(EventEditor::countHelp(editor_->countMethod())));
        auto style = date_->get_style_context();
        if (editor_->dateValid()) {
            style->remove_class("error");
        } else {
            style->add_class("error");
        }
    }

    std::unique_ptr<EventEditor> editor_;
    std::function<void()> closeDialog_;
    Glib::RefPtr<Gtk::Builder> builder_;
    DateText dates_;
    std::unique_ptr<DayCalendar> calendarOfZone_ = DayCalendar::current();
    bool showingDate_ = false;
    Gtk::Box* root_ = nullptr;
    Gtk::Label* title_ = nullptr;
    Gtk::Entry* name_ = nullptr;
    Gtk::Entry* alias_ = nullptr;
    Gtk::Entry* date_ = nullptr;
    Gtk::Calendar* calendar_ = nullptr;
    Gtk::Popover* popover_ = nullptr;
    std::array<Gtk::RadioButton*, scheduleIds.size()> schedules_{};
    Gtk::ComboBoxText* count_ = nullptr;
    Gtk::Label* countHelp_ = nullptr;
    Gtk::Button* save_ = nullptr;
    Gtk::Button* cancel_ = nullptr;
};

} // namespace

struct ManageEventsWindowGtk::Impl {
    Repository& repository;
    const Clock& clock;
    Model model;
    ManageEventsState state{model};
    EventSearch search;
    Glib::RefPtr<Gtk::Builder> builder;
    std::unique_ptr<Gtk::Window> window;
    Glib::RefPtr<Gtk::AccelGroup> shortcuts;
    Gtk::Stack* detail = nullptr;
    Gtk::SearchBar* searchBar = nullptr;
    Gtk::SearchEntry* searchEntry = nullptr;
    Glib::RefPtr<Glib::Binding> searchButtonBinding;
    // The sidebar is one tree: the sections are its top rows (their expanders collapse them), the
    // events their children. One virtualised view stays quick with thousands of rows.
    struct Columns : Gtk::TreeModelColumnRecord {
        Gtk::TreeModelColumn<Glib::ustring> name;
        Gtk::TreeModelColumn<Glib::ustring> alias;
        Gtk::TreeModelColumn<Glib::ustring> id; // empty on a section's row
        Gtk::TreeModelColumn<int> weight;
        Gtk::TreeModelColumn<int> index; // in the model's list; -1 on a section's row
        Columns() {
            add(name);
            add(alias);
            add(id);
            add(weight);
            add(index);
        }
    };
    Columns columns;
    // Every event's row; the view shows those the search lets through. A keystroke filters these
    // rows instead of making them again, which takes several times longer at 10,000 events.
    Glib::RefPtr<Gtk::TreeStore> store;
    // While a search is on: the filter over the store that the view shows.
    Glib::RefPtr<Gtk::TreeModelFilter> filter;
    // The store's row of the selected event, while there is one.
    std::optional<Gtk::TreeStore::iterator> selectedRow;
    std::unique_ptr<Gtk::TreeView> list;
    Gtk::TreeViewColumn* nameColumn = nullptr;
    NameCell* nameCell = nullptr;
    // Sections start open; the user's folding survives reloads.
    std::array<bool, sectionCount> collapsed{};
    std::unique_ptr<EditorView> editor;
    std::unique_ptr<Gtk::Dialog> addDialog;
    std::unique_ptr<EditorView> addEditor;
    std::unique_ptr<Gtk::Dialog> deleteDialog;
    std::unique_ptr<ConfirmDelete> confirm;
    bool selecting = false;

    Impl(Repository& r, Signals& center, MainThread& mainThread, const Clock& c)
        : repository(r), clock(c), model(r, center, mainThread),
          builder(Gtk::Builder::create_from_resource(std::string(resources) + "window.ui")) {
        installStyle();
        takeWindow();
        connectButtons();
        makeList();
        followFolding();
        connectSearch();
        connectKeys();
        model.setDidChange([this] { reloaded(); });
        search.index(model.events());
        fillRows();
        showDetail();
    }

    // The builder's top-level window, owned from here on.
    void takeWindow() {
        Gtk::Window* w = nullptr;
        builder->get_widget("window", w);
        if (w == nullptr) {
            throw std::logic_error("The window's layout has no window");
        }
        window.reset(w);
        detail = widget<Gtk::Stack>(builder, "detail");
        widget<Gtk::Label>(builder, "version")->set_text(versionText(ALMANOR_VERSION));
        // Closing keeps the window for the next "Manage Events".
        window->signal_delete_event().connect([this](GdkEventAny*) {
            window->hide();
            return true;
        });
    }

    void connectButtons() {
        widget<Gtk::Button>(builder, "add-button")->signal_clicked().connect([this] {
            pressAdd();
        });
        widget<Gtk::Button>(builder, "delete-button")->signal_clicked().connect([this] {
            pressDelete();
        });
    }

    // The sidebar's view: one column of names (aliases after them where they fit) over the tree
    // of rows.
    void makeList() {
        list = std::make_unique<Gtk::TreeView>();
        list->set_headers_visible(false);
        list->set_enable_search(false); // typing starts the sidebar's own search, which filters
        list->get_accessible()->set_name(_("Events"));
        nameCell = Gtk::make_managed<NameCell>();
        nameColumn = Gtk::make_managed<Gtk::TreeViewColumn>(_("Name"), *nameCell);
        nameColumn->add_attribute(nameCell->property_text(), columns.name);
        nameColumn->add_attribute(nameCell->property_alias(), columns.alias);
        nameColumn->add_attribute(nameCell->property_weight(), columns.weight);
        // Rows of one height, laid out without measuring each.
        nameColumn->set_sizing(Gtk::TREE_VIEW_COLUMN_FIXED);
        nameColumn->set_expand(true);
        list->append_column(*nameColumn);
        list->set_fixed_height_mode(true);
        list->set_has_tooltip(true);
        list->signal_query_tooltip().connect(
            [this](int x, int y, bool keyboard, const Glib::RefPtr<Gtk::Tooltip>& tooltip) {
                return rowTooltip(x, y, keyboard, tooltip);
            });
        // Section rows are headers: they fold, they are not chosen.
        list->get_selection()->set_select_function([](const Glib::RefPtr<Gtk::TreeModel>&,
                                                      const Gtk::TreeModel::Path& path,
                                                      bool) { return path.size() > 1; });
        list->get_selection()->signal_changed().connect([this] { rowSelected(); });
        widget<Gtk::ScrolledWindow>(builder, "list-scroll")->add(*list);
        list->show();
    }

    // What a row cannot show: its whole name and its alias, on hovering it.
    bool rowTooltip(int x, int y, bool keyboard, const Glib::RefPtr<Gtk::Tooltip>& tooltip) {
        Gtk::TreeModel::iterator iter;
        if (!list->get_tooltip_context_iter(x, y, keyboard, iter)) {
            return false;
        }
        auto path = list->get_model()->get_path(iter);
        if (path.size() < 2) {
            return false;
        }
        Glib::ustring name = (*iter)[columns.name];
        Glib::ustring alias = (*iter)[columns.alias];
        Gdk::Rectangle cell;
        list->get_cell_area(path, *nameColumn, cell);
        auto fit = nameCell->fit(*list, name, alias, cell.get_width());
        if (!fit.nameCut && (alias.empty() || fit.aliasShown)) {
            return false;
        }
        tooltip->set_text(alias.empty() ? name : name + "\n" + alias);
        list->set_tooltip_row(tooltip, path);
        return true;
    }

    // The sections' header rows, which the events' rows go under.
    void addSectionRows() {
        for (const auto& section : eventSections({})) {
            auto row = store->append();
            (*row)[columns.name] = std::string(section.header);
            (*row)[columns.weight] = Pango::WEIGHT_BOLD;
            (*row)[columns.index] = -1;
        }
    }

    // What the user folds, not what a reload or a search does to the rows.
    void followFolding() {
        list->signal_row_expanded().connect(
            [this](const Gtk::TreeModel::iterator&, const Gtk::TreeModel::Path& path) {
                if (!selecting && path.size() == 1) {
                    collapsed[std::size_t(path[0])] = false;
                }
            });
        list->signal_row_collapsed().connect(
            [this](const Gtk::TreeModel::iterator&, const Gtk::TreeModel::Path& path) {
                if (!selecting && path.size() == 1) {
                    collapsed[std::size_t(path[0])] = true;
                }
            });
    }

    // The search bar over the list filters it at each keystroke, not after the pause the entry
    // leaves for slow searches: a keystroke costs some 15 ms at 10,000 events. Enter goes to the
    // first row found; closing the bar shows every row again.
    void connectSearch() {
        searchBar = widget<Gtk::SearchBar>(builder, "search-bar");
        searchEntry = widget<Gtk::SearchEntry>(builder, "search");
        searchBar->connect_entry(*searchEntry);
        searchButtonBinding = Glib::Binding::bind_property(
            widget<Gtk::ToggleButton>(builder, "search-button")->property_active(),
            searchBar->property_search_mode_enabled(), Glib::BINDING_BIDIRECTIONAL);
        searchEntry->signal_changed().connect([this] {
            search.setQuery(searchEntry->get_text().raw());
            showRows();
        });
        searchEntry->signal_activate().connect([this] { goToFirstRow(); });
        searchBar->property_search_mode_enabled().signal_changed().connect([this] {
            if (!searchBar->get_search_mode()) {
                searchEntry->set_text("");
                list->grab_focus();
            }
        });
        // Typing in the list starts a search, as in a file chooser; Delete deletes the selected
        // event.
        list->signal_key_press_event().connect(
            [this](GdkEventKey* key) {
                if (key->keyval == GDK_KEY_Delete &&
                    (key->state & gtk_accelerator_get_default_mod_mask()) == 0) {
                    pressDelete();
                    return true;
                }
                return searchBar->handle_event(key);
            },
            false);
    }

    void openSearch() {
        searchBar->set_search_mode(true);
        searchEntry->grab_focus();
    }

    void goToFirstRow() {
        auto rows = list->get_model();
        for (const auto& section : rows->children()) {
            if (!section.children().empty()) {
                list->set_cursor(rows->get_path(section.children().begin()));
                list->grab_focus();
                return;
            }
        }
    }

    // Ctrl+N adds, Ctrl+F searches, Ctrl+S saves the edited event, Ctrl+W closes. Escape closes
    // the search, else the window, once nothing focused wanted it (a popover, the search entry).
    void connectKeys() {
        shortcuts = shortcutsOf(*window);
        addShortcut(shortcuts, "<Control>n", [this] { pressAdd(); });
        addShortcut(shortcuts, "<Control>f", [this] { openSearch(); });
        addShortcut(shortcuts, "<Control>s", [this] {
            if (editor) {
                editor->saveIfEnabled();
            }
        });
        addShortcut(shortcuts, "<Control>w", [this] { window->hide(); });
        window->signal_key_press_event().connect(
            [this](GdkEventKey* key) {
                if (key->keyval != GDK_KEY_Escape) {
                    return false;
                }
                if (searchBar->get_search_mode()) {
                    searchBar->set_search_mode(false);
                } else {
                    window->hide();
                }
                return true;
            },
            true);
    }

    // The store's rows made again from the model's list.
    void fillRows() {
        auto built = eventSections(model.events());
        std::unordered_map<const Event*, int> indices;
        for (std::size_t i = 0; i < model.events().size(); ++i) {
            indices.emplace(model.events()[i].get(), int(i));
        }
        // A new store, filled while nothing watches it: erasing the old rows would tell the
        // store's listeners of each.
        list->unset_model();
        filter.reset();
        selectedRow.reset();
        store = Gtk::TreeStore::create(columns);
        addSectionRows();
        std::size_t i = 0;
        for (const auto& section : store->children()) {
            // From the last row up: prepending takes the same time for every row, appending walks
            // the rows before it.
            const auto& events = built[i].events;
            for (auto event = events.rbegin(); event != events.rend(); ++event) {
                auto text = eventRowText(**event);
                std::string id = (*event)->id().uuidString();
                // One call a row: setting each column would tell the store's listeners each time.
                GtkTreeIter row;
                gtk_tree_store_insert_with_values(
                    store->gobj(), &row, const_cast<GtkTreeIter*>(section.gobj()), 0,
                    columns.name.index(), text.name.c_str(), columns.alias.index(),
                    text.alias ? text.alias->c_str() : "", columns.id.index(), id.c_str(),
                    columns.weight.index(), int(Pango::WEIGHT_NORMAL), columns.index.index(),
                    indices.at(event->get()), -1);
                if (state.selection() && *state.selection() == (*event)->id()) {
                    // The store's rows keep their iterators.
                    selectedRow = Gtk::TreeStore::iterator(GTK_TREE_MODEL(store->gobj()), &row);
                }
            }
            ++i;
        }
        showRows();
    }

    // The rows the search lets through, the sections open as the user left them (all open while
    // searching), the selected event's row selected. A new filter each time: it reads only the
    // rows the view opens, where refiltering one walks every row and tells the view of each
    // (seconds at 10,000 events). Without a search, the store itself: a third of the time.
    void showRows() {
        selecting = true;
        list->unset_model();
        filter.reset();
        Glib::RefPtr<Gtk::TreeModel> rows = store;
        if (search.active()) {
            rows = filter = Gtk::TreeModelFilter::create(store);
            filter->set_visible_func([this](const Gtk::TreeModel::const_iterator& row) {
                int index = (*row)[columns.index];
                return index < 0 || search.shows(std::size_t(index));
            });
        }
        list->set_model(rows);
        std::size_t i = 0;
        for (const auto& section : rows->children()) {
            if (!collapsed[i] || search.active()) {
                list->expand_row(rows->get_path(section), false);
            }
            ++i;
        }
        if (selectedRow && state.selection() &&
            Glib::ustring((**selectedRow)[columns.id]) == state.selection()->uuidString()) {
            auto path = store->get_path(*selectedRow);
            if (filter) {
                path = filter->convert_child_path_to_path(path); // empty when hidden
            }
            if (!path.empty()) {
                list->get_selection()->select(path);
            }
        }
        selecting = false;
    }

    // As if its row had been clicked; rows made again so that the selection finds its row.
    void showEvent(const Uuid& id) {
        state.select(id);
        fillRows();
        if (selectedRow && !filter) { // a search may hide it
            list->scroll_to_row(store->get_path(*selectedRow));
        }
        showDetail();
    }

    void rowSelected() {
        if (selecting) {
            return;
        }
        auto iter = list->get_selection()->get_selected();
        if (!iter) {
            return;
        }
        state.select(Uuid::parse(Glib::ustring((*iter)[columns.id]).raw()));
        selectedRow = filter ? filter->convert_iter_to_child_iter(iter) : iter;
        showDetail();
    }

    void showDetail() {
        EventPtr event = state.selectedEvent();
        if (editor) {
            detail->remove(editor->root());
            editor.reset();
        }
        if (!event) {
            detail->set_visible_child("nothing");
            return;
        }
        editor =
            std::make_unique<EditorView>(std::make_unique<EventEditor>(repository, event), nullptr);
        detail->add(editor->root(), "editor");
        detail->set_visible_child("editor");
    }

    void reloaded() {
        search.index(model.events());
        fillRows();
        // Keep a form the user is typing into; otherwise show the event as it is now.
        EventPtr event = state.selectedEvent();
        if (editor && event && editor->editor().dirty() &&
            editor->editor().event()->id() == event->id()) {
            return;
        }
        showDetail();
    }

    // A sheet: modal over the window; Escape (the dialog's own key) and Ctrl+W close it.
    std::unique_ptr<Gtk::Dialog> makeSheet(const char* title, std::function<void()> close) {
        auto sheet = std::make_unique<Gtk::Dialog>(title, *window, true);
        sheet->set_resizable(false);
        sheet->signal_response().connect([close](int) { close(); });
        addShortcut(shortcutsOf(*sheet), "<Control>w", std::move(close));
        return sheet;
    }

    void pressAdd() {
        state.pressAdd();
        selecting = true;
        list->get_selection()->unselect_all();
        selecting = false;
        showDetail();
        addDialog = makeSheet(_("Add Event"), [this] { closeAdd(); });
        addEditor = std::make_unique<EditorView>(std::make_unique<EventEditor>(repository, clock),
                                                 [this] { closeAdd(); });
        addShortcut(shortcutsOf(*addDialog), "<Control>s", [this] {
            if (addEditor) {
                addEditor->saveIfEnabled();
            }
        });
        addDialog->get_content_area()->pack_start(addEditor->root(), Gtk::PACK_EXPAND_WIDGET);
        addDialog->show();
    }

    // Hides a dialog now and frees it (with what it shows) once GTK is done with the click that
    // closed it; a dialog opened again meanwhile is kept.
    template <class Content>
    void closeDialog(std::unique_ptr<Gtk::Dialog>& dialog, std::unique_ptr<Content>& content) {
        if (!dialog) {
            return;
        }
        dialog->hide();
        Glib::signal_idle().connect_once([&dialog, &content] {
            if (dialog && !dialog->get_visible()) {
                dialog.reset();
                content.reset();
            }
        });
    }

    void closeAdd() {
        state.dismissAdd();
        closeDialog(addDialog, addEditor);
    }

    void pressDelete() {
        state.pressDelete();
        if (!state.showDelete()) {
            return;
        }
        confirm = std::make_unique<ConfirmDelete>(
            state.selectedEvent(), [this] { closeDelete(); },
            [this](const Event& event) { repository.deleteEvent(event); });
        deleteDialog = makeSheet(_("Delete Event"), [this] { closeDelete(); });
        auto* area = deleteDialog->get_content_area();
        area->set_spacing(20);
        area->set_border_width(20);
        auto* question = Gtk::make_managed<Gtk::Label>();
        question->set_markup("<b>" + Glib::Markup::escape_text(confirm->question()) + "</b>");
        question->set_line_wrap(true);
        area->pack_start(*question, Gtk::PACK_EXPAND_WIDGET);
        auto* buttons = Gtk::make_managed<Gtk::Box>(Gtk::ORIENTATION_HORIZONTAL, 0);
        auto* cancel = Gtk::make_managed<Gtk::Button>(_("_Cancel"), true);
        auto* confirmButton = Gtk::make_managed<Gtk::Button>(_("C_onfirm"), true);
        for (auto [button, colour] : {std::pair{cancel, "gray"}, std::pair{confirmButton, "red"}}) {
            button->get_style_context()->add_class("sheet-button");
            button->get_style_context()->add_class(colour);
        }
        buttons->pack_start(*cancel, Gtk::PACK_SHRINK);
        buttons->pack_end(*confirmButton, Gtk::PACK_SHRINK);
        area->pack_start(*buttons, Gtk::PACK_SHRINK);
        cancel->signal_clicked().connect([this] { confirm->cancel(); });
        confirmButton->signal_clicked().connect([this] { confirm->confirm(); });
        deleteDialog->show_all();
    }

    void closeDelete() {
        state.dismissDelete();
        closeDialog(deleteDialog, confirm);
    }
};

ManageEventsWindowGtk::ManageEventsWindowGtk(Repository& repository, Signals& center,
                                             MainThread& mainThread, const Clock& clock)
    : impl_(std::make_unique<Impl>(repository, center, mainThread, clock)) {}

ManageEventsWindowGtk::~ManageEventsWindowGtk() = default;

bool ManageEventsWindowGtk::isVisible() const {
    return impl_->window->get_visible();
}

// On the monitor that holds the pointer, where the user is looking, centred in what panels leave
// of it; the whole screen's centre may straddle two monitors.
void ManageEventsWindowGtk::center() {
    auto& w = *impl_->window;
    auto display = w.get_display();
    Glib::RefPtr<Gdk::Monitor> monitor;
    if (auto pointer = display->get_default_seat()->get_pointer()) {
        Glib::RefPtr<Gdk::Screen> screen;
        int x = 0, y = 0;
        pointer->get_position(screen, x, y);
        monitor = display->get_monitor_at_point(x, y);
    }
    if (!monitor) {
        monitor = display->get_primary_monitor();
    }
    if (!monitor) {
        return; // no monitor known: where the window manager puts it
    }
    Gdk::Rectangle area;
    monitor->get_workarea(area);
    int width = 0, height = 0;
    w.get_size(width, height);
    w.move(area.get_x() + std::max(0, (area.get_width() - width) / 2),
           area.get_y() + std::max(0, (area.get_height() - height) / 2));
}

void ManageEventsWindowGtk::present() {
    impl_->window->present();
}

void ManageEventsWindowGtk::showEvent(const Uuid& id) {
    impl_->showEvent(id);
}

Gtk::Window& ManageEventsWindowGtk::window() {
    return *impl_->window;
}

Gtk::Entry& ManageEventsWindowGtk::searchEntry() {
    return *impl_->searchEntry;
}

const Model& ManageEventsWindowGtk::model() const {
    return impl_->model;
}

} // namespace almanor

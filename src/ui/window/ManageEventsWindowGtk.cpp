#include "ui/window/ManageEventsWindowGtk.h"

#include "dates/DateText.h"
#include "model/DayCalendar.h"
#include "platform/Translation.h"
#include "storage/Repository.h"
#include "ui/window/EventEditor.h"

#include <gdkmm/screen.h>
#include <glibmm/main.h>
#include <glibmm/markup.h>
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
#include <gtkmm/stack.h>
#include <gtkmm/stylecontext.h>
#include <gtkmm/treestore.h>
#include <gtkmm/treeview.h>
#include <gtkmm/window.h>
#include <stdexcept>

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
    Gtk::Button& saveButton() { return *save_; }

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
    Glib::RefPtr<Gtk::Builder> builder;
    std::unique_ptr<Gtk::Window> window;
    Gtk::Stack* detail = nullptr;
    // The sidebar is one tree: the sections are its top rows (their expanders collapse them), the
    // events their children. One virtualised view stays quick with thousands of rows.
    struct Columns : Gtk::TreeModelColumnRecord {
        Gtk::TreeModelColumn<Glib::ustring> name;
        Gtk::TreeModelColumn<Glib::ustring> alias;
        Gtk::TreeModelColumn<Glib::ustring> id; // empty on a section's row
        Gtk::TreeModelColumn<int> weight;
        Columns() {
            add(name);
            add(alias);
            add(id);
            add(weight);
        }
    };
    Columns columns;
    Glib::RefPtr<Gtk::TreeStore> rows;
    std::unique_ptr<Gtk::TreeView> list;
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
        addSectionRows();
        followFolding();
        model.setDidChange([this] { reloaded(); });
        drawList();
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

    // The sidebar's view: a name column and an alias column over the tree of rows.
    void makeList() {
        rows = Gtk::TreeStore::create(columns);
        list = std::make_unique<Gtk::TreeView>(rows);
        list->set_headers_visible(false);
        list->set_enable_search(false);
        list->get_accessible()->set_name(_("Events"));
        auto* name = Gtk::make_managed<Gtk::CellRendererText>();
        name->property_ellipsize() = Pango::ELLIPSIZE_END;
        auto* nameColumn = Gtk::make_managed<Gtk::TreeViewColumn>(_("Name"), *name);
        nameColumn->add_attribute(name->property_text(), columns.name);
        nameColumn->add_attribute(name->property_weight(), columns.weight);
        auto* alias = Gtk::make_managed<Gtk::CellRendererText>();
        alias->property_ellipsize() = Pango::ELLIPSIZE_END;
        alias->property_foreground() = "gray";
        auto* aliasColumn = Gtk::make_managed<Gtk::TreeViewColumn>(_("Alias"), *alias);
        aliasColumn->add_attribute(alias->property_text(), columns.alias);
        // Rows of one height, laid out without measuring each: the name takes what the alias
        // leaves.
        for (auto* column : {nameColumn, aliasColumn}) {
            column->set_sizing(Gtk::TREE_VIEW_COLUMN_FIXED);
            list->append_column(*column);
        }
        nameColumn->set_expand(true);
        aliasColumn->set_fixed_width(50);
        list->set_fixed_height_mode(true);
        // Section rows are headers: they fold, they are not chosen.
        list->get_selection()->set_select_function([](const Glib::RefPtr<Gtk::TreeModel>&,
                                                      const Gtk::TreeModel::Path& path,
                                                      bool) { return path.size() > 1; });
        list->get_selection()->signal_changed().connect([this] { rowSelected(); });
        widget<Gtk::ScrolledWindow>(builder, "list-scroll")->add(*list);
        list->show();
    }

    // The sections' header rows, made once; reloads refill only their children.
    void addSectionRows() {
        for (const auto& section : eventSections({})) {
            auto row = rows->append();
            (*row)[columns.name] = std::string(section.header);
            (*row)[columns.weight] = Pango::WEIGHT_BOLD;
        }
    }

    // What the user folds, not what a reload does to the rows.
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

    void drawList() {
        selecting = true;
        auto built = eventSections(model.events());
        // Refilled while detached, so the view is not told of each row.
        list->unset_model();
        std::optional<Gtk::TreeModel::iterator> selected;
        std::size_t i = 0;
        for (const auto& section : rows->children()) {
            while (!section.children().empty()) {
                rows->erase(section.children().begin());
            }
            // From the last row up: prepending takes the same time for every row, appending walks
            // the rows before it.
            const auto& events = built[i].events;
            for (auto event = events.rbegin(); event != events.rend(); ++event) {
                auto text = eventRowText(**event);
                auto row = rows->prepend(section.children());
                (*row)[columns.name] = text.name;
                (*row)[columns.alias] = text.alias.value_or("");
                (*row)[columns.id] = (*event)->id().uuidString();
                (*row)[columns.weight] = Pango::WEIGHT_NORMAL;
                if (state.selection() && *state.selection() == (*event)->id()) {
                    selected = row; // the store's rows keep their iterators
                }
            }
            ++i;
        }
        list->set_model(rows);
        i = 0;
        for (const auto& section : rows->children()) {
            if (!collapsed[i]) {
                list->expand_row(rows->get_path(section), false);
            }
            ++i;
        }
        if (selected) {
            list->get_selection()->select(rows->get_path(*selected));
        }
        selecting = false;
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
        drawList();
        // Keep a form the user is typing into; otherwise show the event as it is now.
        EventPtr event = state.selectedEvent();
        if (editor && event && editor->editor().dirty() &&
            editor->editor().event()->id() == event->id()) {
            return;
        }
        showDetail();
    }

    void pressAdd() {
        state.pressAdd();
        selecting = true;
        list->get_selection()->unselect_all();
        selecting = false;
        showDetail();
        addDialog = std::make_unique<Gtk::Dialog>(_("Add Event"), *window, true);
        addDialog->set_resizable(false);
        addEditor = std::make_unique<EditorView>(std::make_unique<EventEditor>(repository, clock),
                                                 [this] { closeAdd(); });
        addDialog->get_content_area()->pack_start(addEditor->root(), Gtk::PACK_EXPAND_WIDGET);
        addDialog->signal_response().connect([this](int) { closeAdd(); });
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
        deleteDialog = std::make_unique<Gtk::Dialog>(_("Delete Event"), *window, true);
        deleteDialog->set_resizable(false);
        auto* area = deleteDialog->get_content_area();
        area->set_spacing(20);
        area->set_border_width(20);
        auto* question = Gtk::make_managed<Gtk::Label>();
        question->set_markup("<b>" + Glib::Markup::escape_text(confirm->question()) + "</b>");
        question->set_line_wrap(true);
        area->pack_start(*question, Gtk::PACK_EXPAND_WIDGET);
        auto* buttons = Gtk::make_managed<Gtk::Box>(Gtk::ORIENTATION_HORIZONTAL, 0);
        auto* cancel = Gtk::make_managed<Gtk::Button>(_("Cancel"));
        auto* confirmButton = Gtk::make_managed<Gtk::Button>(_("Confirm"));
        for (auto [button, colour] : {std::pair{cancel, "gray"}, std::pair{confirmButton, "red"}}) {
            button->get_style_context()->add_class("sheet-button");
            button->get_style_context()->add_class(colour);
        }
        buttons->pack_start(*cancel, Gtk::PACK_SHRINK);
        buttons->pack_end(*confirmButton, Gtk::PACK_SHRINK);
        area->pack_start(*buttons, Gtk::PACK_SHRINK);
        cancel->signal_clicked().connect([this] { confirm->cancel(); });
        confirmButton->signal_clicked().connect([this] { confirm->confirm(); });
        deleteDialog->signal_response().connect([this](int) { closeDelete(); });
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

void ManageEventsWindowGtk::center() {
    auto& w = *impl_->window;
    auto screen = w.get_screen();
    int width = 0, height = 0;
    w.get_size(width, height);
    if (screen) {
        w.move(std::max(0, (screen->get_width() - width) / 2),
               std::max(0, (screen->get_height() - height) / 2));
    }
}

void ManageEventsWindowGtk::present() {
    impl_->window->present();
}

Gtk::Window& ManageEventsWindowGtk::window() {
    return *impl_->window;
}

const Model& ManageEventsWindowGtk::model() const {
    return impl_->model;
}

} // namespace almanor

#include "ui/tray/Indicator.h"

#include <gtkmm/checkmenuitem.h>
#include <gtkmm/separatormenuitem.h>
#include <libayatana-appindicator/app-indicator.h>

namespace almanor {

namespace {
constexpr const char* applicationId = "com.vostrel.Almanor";
}

Indicator::Indicator(Gtk::Menu& menu, const std::filesystem::path& iconThemePath)
    : menu_(menu), iconThemePath_(iconThemePath) {}

Indicator::~Indicator() {
    if (indicator_ != nullptr) {
        g_object_unref(indicator_);
    }
}

StatusItem& Indicator::createStatusItem() {
    indicator_ =
        app_indicator_new(applicationId, applicationId, APP_INDICATOR_CATEGORY_APPLICATION_STATUS);
    if (!iconThemePath_.empty()) {
        app_indicator_set_icon_theme_path(indicator_, iconThemePath_.c_str());
    }
    app_indicator_set_title(indicator_, "Almanor");
    app_indicator_set_menu(indicator_, menu_.gobj());
    app_indicator_set_status(indicator_, APP_INDICATOR_STATUS_ACTIVE);
    return *this;
}

void Indicator::setTitle(const std::string& title) {
    if (indicator_ == nullptr) {
        return;
    }
    app_indicator_set_label(indicator_, title.c_str(), "");
    app_indicator_set_title(indicator_, title.c_str());
    app_indicator_set_icon_full(indicator_, applicationId, title.c_str());
}

GtkMenuPresenter::GtkMenuPresenter(Actions actions) : actions_(std::move(actions)) {}

std::unique_ptr<Gtk::MenuItem> GtkMenuPresenter::makeItem(const MenuItem& item,
                                                          std::function<void()> clicked) {
    std::unique_ptr<Gtk::MenuItem> widget;
    if (item.separator) {
        widget = std::make_unique<Gtk::SeparatorMenuItem>();
    } else if (item.action == MenuItem::Action::updateSelectedEvent ||
               item.action == MenuItem::Action::toggleLaunchAtLogin) {
        auto check = std::make_unique<Gtk::CheckMenuItem>(item.title, false);
        check->set_active(item.state);
        widget = std::move(check);
    } else {
        widget = std::make_unique<Gtk::MenuItem>(item.title, false);
    }
    if (!item.separator && item.action == MenuItem::Action::none && !item.hasSubmenu) {
        widget->set_sensitive(false);
    }
    if (clicked) {
        widget->signal_activate().connect([this, clicked = std::move(clicked)] {
            if (!drawing_) {
                clicked();
            }
        });
    }
    widget->show();
    return widget;
}

void GtkMenuPresenter::buildMenu(const std::vector<MenuItem>& menu) {
    for (std::size_t i = 0; i < menu.size(); ++i) {
        const MenuItem& item = menu[i];
        std::function<void()> clicked;
        switch (item.action) {
        case MenuItem::Action::manageEvents:
            clicked = actions_.manageEvents;
            break;
        case MenuItem::Action::toggleLaunchAtLogin:
            clicked = [this, i] {
                actions_.toggleLaunchAtLogin(i);
                showMarks(topItems_, actions_.menu());
            };
            break;
        case MenuItem::Action::quit:
            clicked = actions_.quit;
            break;
        default:
            break;
        }
        auto widget = makeItem(item, std::move(clicked));
        if (item.hasSubmenu) {
            widget->set_submenu(eventsMenu_);
        }
        menu_.append(*widget);
        topItems_.push_back(std::move(widget));
    }
    menu_.show_all();
}

void GtkMenuPresenter::rebuildEventsMenu(const std::vector<MenuItem>& rows) {
    for (auto& old : eventItems_) {
        eventsMenu_.remove(*old);
    }
    eventItems_.clear();
    drawing_ = true;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        std::function<void()> clicked;
        if (rows[i].action == MenuItem::Action::updateSelectedEvent) {
            clicked = [this, i] {
                actions_.updateSelectedEvent(i);
                showMarks(eventItems_, actions_.eventsMenu());
            };
        }
        auto widget = makeItem(rows[i], std::move(clicked));
        eventsMenu_.append(*widget);
        eventItems_.push_back(std::move(widget));
    }
    drawing_ = false;
}

void GtkMenuPresenter::showMarks(std::vector<std::unique_ptr<Gtk::MenuItem>>& items,
                                 const std::vector<MenuItem>& rows) {
    // A click toggles the check item itself; the delegate's marks are what must show.
    drawing_ = true;
    for (std::size_t i = 0; i < items.size() && i < rows.size(); ++i) {
        if (auto* check = dynamic_cast<Gtk::CheckMenuItem*>(items[i].get())) {
            if (check->get_active() != rows[i].state) {
                check->set_active(rows[i].state);
            }
        }
    }
    drawing_ = false;
}

void GtkMenuPresenter::setEventsMenuState(std::size_t index, bool on) {
    if (index < eventItems_.size()) {
        if (auto* check = dynamic_cast<Gtk::CheckMenuItem*>(eventItems_[index].get())) {
            drawing_ = true;
            check->set_active(on);
            drawing_ = false;
        }
    }
}

void GtkMenuPresenter::setMenuState(std::size_t index, bool on) {
    if (index < topItems_.size()) {
        if (auto* check = dynamic_cast<Gtk::CheckMenuItem*>(topItems_[index].get())) {
            drawing_ = true;
            check->set_active(on);
            drawing_ = false;
        }
    }
}

} // namespace almanor

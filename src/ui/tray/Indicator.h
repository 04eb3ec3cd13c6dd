#pragma once

#include "shell/AppDelegate.h"

#include <filesystem>
#include <functional>
#include <gtkmm/menu.h>
#include <memory>
#include <vector>

typedef struct _AppIndicator AppIndicator;

namespace almanor {

// The status item in the panel: an application indicator whose label is the title. Panels that
// show no labels get the same text as the indicator's title and accessible description.
class Indicator final : public StatusBar, public StatusItem {
  public:
    // `iconThemePath`: a folder holding hicolor/ icons, for runs from the build tree; empty when
    // the icon is installed.
    Indicator(Gtk::Menu& menu, const std::filesystem::path& iconThemePath);
    ~Indicator() override;

    StatusItem& createStatusItem() override;
    void setTitle(const std::string& title) override;
    void setTag(std::size_t tag) override { tag_ = tag; }

  private:
    AppIndicator* indicator_ = nullptr;
    Gtk::Menu& menu_;
    std::filesystem::path iconThemePath_;
    std::size_t tag_ = 0;
};

// Draws the delegate's menus as GTK menus and forwards clicks to it. Labels are shown as they are
// (no mnemonics), rows without an action are insensitive, rows that can be marked are check items.
class GtkMenuPresenter final : public MenuPresenter {
  public:
    struct Actions {
        std::function<void()> manageEvents;
        std::function<void(std::size_t)> updateSelectedEvent; // index in the events menu
        std::function<void(std::size_t)> toggleLaunchAtLogin; // index in the top menu
        std::function<void()> quit;
        // The delegate's rows after a click, whose marks the check items must show.
        std::function<const std::vector<MenuItem>&()> eventsMenu;
        std::function<const std::vector<MenuItem>&()> menu;
    };

    explicit GtkMenuPresenter(Actions actions);

    Gtk::Menu& menu() { return menu_; }

    void buildMenu(const std::vector<MenuItem>& menu) override;
    void rebuildEventsMenu(const std::vector<MenuItem>& rows) override;
    void setEventsMenuState(std::size_t index, bool on) override;
    void setMenuState(std::size_t index, bool on) override;

  private:
    std::unique_ptr<Gtk::MenuItem> makeItem(const MenuItem& item, std::function<void()> clicked);
    void showMarks(std::vector<std::unique_ptr<Gtk::MenuItem>>& items,
                   const std::vector<MenuItem>& rows);

    Actions actions_;
    Gtk::Menu menu_;
    Gtk::Menu eventsMenu_;
    // Owned here, not by the menus, so that a rebuild frees the rows it replaces.
    std::vector<std::unique_ptr<Gtk::MenuItem>> topItems_;
    std::vector<std::unique_ptr<Gtk::MenuItem>> eventItems_;
    bool drawing_ = false; // marks being set by code, not clicked
};

} // namespace almanor

#pragma once

#include "shell/TrayApplication.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace almanor {

// Serves the delegate's menus over the menu protocol (com.canonical.dbusmenu) that panels read,
// and forwards clicks to it. Rows are shown as they are (underscores are text, not mnemonics),
// rows without an action are disabled, rows that can be marked carry a check mark. A panel about
// to show the menu or the events submenu is passed on (`aboutToShow`) before it reads the rows.
class DbusMenuPresenter final : public MenuPresenter {
  public:
    struct Actions {
        std::function<void()> manageEvents;
        std::function<void(std::size_t)> updateSelectedEvent;  // index in the events menu
        std::function<void(std::size_t)> toggleLaunchAtLogin;  // index in the top menu
        std::function<void(std::size_t)> toggleNotifyOnTheDay; // index in the top menu
        std::function<void()> quit;
        std::function<void()> aboutToShow; // the menu or the events submenu
    };

    // Exports the menu at `objectPath` on the session bus.
    DbusMenuPresenter(const std::string& objectPath, Actions actions);
    ~DbusMenuPresenter() override;
    DbusMenuPresenter(const DbusMenuPresenter&) = delete;
    DbusMenuPresenter& operator=(const DbusMenuPresenter&) = delete;

    void buildMenu(const std::vector<MenuItem>& menu) override;
    void rebuildEventsMenu(const std::vector<MenuItem>& rows) override;
    void setEventsMenuState(std::size_t index, bool on) override;
    void setMenuState(std::size_t index, bool on) override;

    // The text a panel is given for a row: underscores doubled, as the protocol reads a single
    // one as a mnemonic.
    static std::string label(const std::string& title);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace almanor

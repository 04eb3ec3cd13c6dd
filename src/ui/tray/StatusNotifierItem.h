#pragma once

#include "shell/StatusItem.h"
#include "shell/TrayApplication.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

// NOLINTNEXTLINE(bugprone-reserved-identifier): GLib's own struct name, as its headers declare it.
typedef struct _GDBusConnection GDBusConnection;

namespace almanor {

// The item in the panel: a StatusNotifierItem exported on the application's bus connection and
// registered with the panel's StatusNotifierWatcher. The title is its label (XAyatanaLabel), its
// Title and its ToolTip; the menu is served beside it at <path>/Menu. A watcher that appears
// later, or again after a panel restart, is registered with at once. The icon carries the day
// count as pixels (IconPixmap); IconName stays the application's icon.
class StatusNotifierItem final : public StatusBar, public StatusItem {
  public:
    struct Options {
        std::string id;         // Id, and the name of the application's icon
        std::string objectPath; // where the item is exported; the menu is at <objectPath>/Menu
        // A folder with hicolor/ icons, for runs from the build tree; empty when installed.
        std::filesystem::path iconThemePath;
        // Asked at each count: whether the icon carries it (panels without labels).
        std::function<bool()> iconShowsCount;
        // Shows the user a desktop notification (title, body): here, that no panel shows items.
        std::function<void(const std::string&, const std::string&)> notify;
    };

    StatusNotifierItem(GDBusConnection* connection, Options options);
    ~StatusNotifierItem() override;
    StatusNotifierItem(const StatusNotifierItem&) = delete;
    StatusNotifierItem& operator=(const StatusNotifierItem&) = delete;

    // Exports the item and starts watching for the watcher.
    StatusItem& createStatusItem() override;

    void setTitle(const std::string& title) override;
    void setDayCount(std::optional<int> days) override;

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

} // namespace almanor

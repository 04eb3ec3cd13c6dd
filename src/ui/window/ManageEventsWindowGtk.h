#pragma once

#include "platform/Clock.h"
#include "platform/MainThread.h"
#include "platform/Signals.h"
#include "shell/TrayApplication.h"
#include "ui/window/EventsModel.h"

#include <memory>

namespace Gtk {
class Entry;
class Window;
} // namespace Gtk

namespace almanor {

class Repository;

// The management window in GTK: a sidebar of the four sections over the model, the editor of the
// selected event, the add dialog and the delete confirmation. It draws the plain state classes and
// forwards to them; closing it only hides it.
class ManageEventsWindowGtk final : public ManageEventsWindow {
  public:
    ManageEventsWindowGtk(Repository& repository, Signals& center, MainThread& mainThread,
                          const Clock& clock);
    ~ManageEventsWindowGtk() override;

    bool isVisible() const override;
    void center() override;
    void present() override;
    void showEvent(const Uuid& id) override;

    Gtk::Window& window();
    // The sidebar's search, which filters the list as it changes.
    Gtk::Entry& searchEntry();
    const Model& model() const;

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

} // namespace almanor

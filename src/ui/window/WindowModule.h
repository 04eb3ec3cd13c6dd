#pragma once
// The seam between the tray and its management window. The window (and GTK with it) lives in a
// module that the tray loads the first time the window is opened, so that the panel item and its
// menu run without GTK. Plain C++: no GTK type crosses it.

#include "shell/TrayApplication.h"

#include <memory>

namespace almanor {

class Clock;
class MainThread;
class Signals;
class Repository;

struct WindowModule {
    // Raised whenever this table or the window it makes changes: a tray refuses a module built
    // for another one.
    static constexpr int currentVersion = 2;
    static constexpr const char* fileName = "almanor-window.so";
    static constexpr const char* entryPoint = "almanor_window_module";

    int version;
    // Starts GTK on the first call, then makes the window. Null, after one line on standard
    // output, when GTK cannot start (no display).
    std::unique_ptr<ManageEventsWindow> (*makeManageEventsWindow)(Repository& repository,
                                                                  Signals& center,
                                                                  MainThread& mainThread,
                                                                  const Clock& clock);
    // Brings the application's visible windows to the front.
    void (*presentWindows)();
};

} // namespace almanor

#pragma once

#include "platform/Export.h"

#include <functional>

namespace almanor {

// The thread that runs the user interface. Work that touches what the user sees is carried to it;
// the tray's is GLib's main loop, tests use a queue they drain themselves.
class ALMANOR_EXPORT MainThread {
  public:
    using Work = std::function<void()>;

    virtual ~MainThread() = default;

    // Whether the caller is on the main thread.
    virtual bool isCurrent() const = 0;
    // Runs `work` later on the main thread, in the order posted. Callable from any thread.
    virtual void post(Work work) = 0;

    // Runs `work` now when on the main thread, else posts it.
    void run(Work work) {
        if (isCurrent()) {
            work();
        } else {
            post(std::move(work));
        }
    }
};

} // namespace almanor

#pragma once

#include "platform/Export.h"
#include "sync/SyncPass.h"

#include <functional>

namespace almanor {

// Runs one pass of the sync (a pull, then a push) however it is done: in this process
// (InProcessPasses) or by a child `almanor sync` that keeps the network stack out of the caller
// (ChildProcessPasses). CloudSync decides when, one pass at a time.
class ALMANOR_EXPORT PassRunner {
  public:
    virtual ~PassRunner() = default;

    // One pass, on the caller's thread; `pulled` is called once its pull has ended.
    virtual PassResult run(const std::function<void()>& pulled) = 0;
    // From any thread, for a process that is quitting: the pass under way ends at once (what was
    // not acknowledged stays pending), and later ones end before they start.
    virtual void stop() = 0;
    // The cloud may be asked again after an earlier attempt gave up.
    virtual void networkCameBack() = 0;
    // Another account was named (or none): the next pass asks for its service afresh.
    virtual void accountChanged() = 0;
};

} // namespace almanor

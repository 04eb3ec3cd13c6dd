#pragma once

#include <cstddef>

namespace almanor::heap {

// Grows the heap once by `bytes` and has the kernel populate it in one call, so that the
// allocations that follow (a store's worth of rows, the sort behind them, the events) do not
// each take a page fault. Page faults dominate a short process that reads a large store,
// especially under virtualisation, where one costs several microseconds. Freed memory is kept for
// reuse rather than returned. For short-lived processes only; does nothing when the kernel lacks
// the call.
void reserve(std::size_t bytes);

} // namespace almanor::heap

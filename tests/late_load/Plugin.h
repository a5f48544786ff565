// What the late plugin shows to its host.
#pragma once

namespace LateLoad {

struct SPlugin {
    /// Sets a heap up, records allocations of the calling thread and of a few others in a memory event log, and takes
    /// all of it down. The number of events whose call stack was captured twice alike; 0 when anything went wrong.
    int (*run)();
};

} // namespace LateLoad

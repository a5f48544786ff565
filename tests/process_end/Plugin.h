// What the plugin of the tests of a process's end does for its host.
#pragma once

namespace ProcessEndTest {

struct SPlugin {
    /// Makes a pool that goes with the module, and waits until a job is running that never ends.
    void (*leaveJobRunning)();
    /// The same, and when the module goes more jobs are pushed than a ring holds.
    void (*leaveFullRing)();
    /// Makes a thread whose end another thread waits for, and which the module joins, too, when it goes.
    void (*leaveThreadJoined)();
};

} // namespace ProcessEndTest

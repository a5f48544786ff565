/// \file
/// Threads for tests, on the library's own thread class.
#pragma once

#include <vlmcore/threads.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace TestSupport {

/// How much longer than usual stress tests run: environment variable VLMCORE_STRESS, 1 by default.
inline unsigned GetStressFactor()
{
    char const* const text = std::getenv("VLMCORE_STRESS");
    int const factor = text != nullptr ? std::atoi(text) : 1;
    return factor > 0 ? static_cast<unsigned>(factor) : 1;
}

/// Runs a function on a thread of its own; joins when it goes.
class CFunctionThread : public Velmor::IThread {
public:
    explicit CFunctionThread(std::function<void()> body) : m_body(std::move(body)) {}
    ~CFunctionThread() override { Join(); }

    using IThread::GetStopFlag;
    using IThread::SetStopFlag;

private:
    void Execute() override { m_body(); }

    std::function<void()> m_body;
};

/// Runs `body(0)` to `body(count - 1)` at the same time, each on its own thread, and waits for all.
inline void RunConcurrently(unsigned count, std::function<void(unsigned)> const& body)
{
    std::vector<std::unique_ptr<CFunctionThread>> threads;
    for (unsigned index = 0; index < count; ++index)
        threads.push_back(std::make_unique<CFunctionThread>([&body, index] { body(index); }));
    for (auto& thread : threads)
        thread->Run();
    for (auto& thread : threads)
        thread->Join();
}

/// Waits until the condition holds; false when it does not within ten seconds.
template <class Condition>
bool Eventually(Condition&& condition)
{
    for (unsigned round = 0; round < 10'000; ++round) {
        if (condition())
            return true;
        Velmor::Thread::Sleep(1);
    }
    return false;
}

} // namespace TestSupport

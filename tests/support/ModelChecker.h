/// \file
/// An exhaustive checker for small concurrent algorithms: it runs them in every order of their accesses to shared
/// words, on one thread, and finds the orders that break a rule or from which there is no way to the end.
///
/// The algorithm is the real code, a template over its atomic type, here TModelAtomic. The checker knows a thread by
/// the results of its accesses so far: to take one step it runs the code from the start of its phase, answers the known
/// accesses from memory, carries the next one out, and stops the code at the one after it. States that were seen before
/// are not explored again, so that waiting loops end.
///
/// Accesses are taken to be sequentially consistent: orders that only weaker memory allows are for the thread sanitizer
/// and the reader.
#pragma once

#include <vlmcore/types.h>

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace TestSupport {

class CModelChecker {
public:
    using u32 = Velmor::u32;
    using u64 = Velmor::u64;

    /// A part of a thread that hands nothing on to the next but in words.
    using Phase = std::function<void()>;

    struct SResult {
        u64 states = 0;
        u64 ends = 0;      ///< states in which all threads are done
        std::string error; ///< empty when every rule holds
    };

    CModelChecker() { s_current = this; }
    CModelChecker(CModelChecker const&) = delete;
    CModelChecker& operator=(CModelChecker const&) = delete;
    ~CModelChecker() { s_current = nullptr; }

    static CModelChecker& Get() { return *s_current; }

    /// A word of the model. Called by TModelAtomic.
    u32 AddWord(u64 value)
    {
        m_start.words.push_back(value);
        return static_cast<u32>(m_start.words.size() - 1);
    }

    void AddThread(std::vector<Phase> phases)
    {
        m_programs.push_back(std::move(phases));
        m_start.threads.emplace_back();
    }

    /// Must hold when all threads are done.
    void SetEndRule(std::function<bool()> rule) { m_endRule = std::move(rule); }

    /// One access: `visible` ones are what other threads can come between.
    template <class Operation>
    u64 Access(bool visible, Operation&& operation)
    {
        std::vector<u64>& history = m_state.threads[m_running].history;
        if (m_position < history.size())
            return history[m_position++];
        if (visible && m_acted)
            throw SStop();
        m_acted = m_acted || visible;
        u64 const result = operation(m_state.words);
        history.push_back(result);
        ++m_position;
        return result;
    }

    /// Within a phase: starts it over, another attempt.
    [[noreturn]] void Retry()
    {
        m_state.threads[m_running].history.clear();
        throw SStop();
    }

    /// Within a phase: the last access is made again.
    [[noreturn]] void RepeatAccess()
    {
        m_state.threads[m_running].history.pop_back();
        throw SStop();
    }

    /// Within a phase: goes on with another one instead of the next.
    [[noreturn]] void GoTo(u32 phase)
    {
        m_state.threads[m_running].history.clear();
        m_state.threads[m_running].phase = phase;
        throw SStop();
    }

    /// A rule of the code under test.
    void Require(bool holds, char const* rule)
    {
        if (!holds && m_error.empty())
            m_error = rule;
    }

    /// A word's value in the state at hand, for rules.
    [[nodiscard]] u64 Peek(u32 word) const { return m_state.words[word]; }

    /// Explores everything; stops at the first broken rule and at `mostStates`.
    SResult Explore(u64 mostStates = 3'000'000)
    {
        std::unordered_map<std::string, u32> known;
        std::deque<std::pair<u32, SState>> open;
        std::vector<std::vector<u32>> before; // per state: the states that lead to it
        std::vector<u32> ends;
        auto const note = [&](SState const& state, u32 from) {
            auto const [at, isNew] = known.try_emplace(Encode(state), static_cast<u32>(before.size()));
            if (isNew) {
                before.emplace_back();
                open.emplace_back(at->second, state);
            }
            before[at->second].push_back(from);
        };
        note(m_start, 0);
        while (!open.empty() && m_error.empty()) {
            auto const [number, state] = std::move(open.front());
            open.pop_front();
            bool ended = true;
            for (u32 thread = 0; thread < m_programs.size() && m_error.empty(); ++thread) {
                if (state.threads[thread].phase == m_programs[thread].size())
                    continue;
                ended = false;
                m_state = state;
                Step(thread);
                note(m_state, number);
            }
            if (ended) {
                ends.push_back(number);
                m_state = state;
                Require(!m_endRule || m_endRule(), "a rule for the end is broken");
            }
            Require(before.size() <= mostStates, "there are too many states");
        }
        if (m_error.empty())
            CheckThatAllCanEnd(before, ends);
        return {before.size(), ends.size(), m_error};
    }

private:
    struct SStop {};
    struct SThread {
        u32 phase = 0;
        std::vector<u64> history{};
    };
    struct SState {
        std::vector<u64> words{};
        std::vector<SThread> threads{};
    };

    void Step(u32 thread)
    {
        m_running = thread;
        m_position = 0;
        m_acted = false;
        SThread& self = m_state.threads[thread];
        try {
            m_programs[thread][self.phase]();
            self.history.clear();
            ++self.phase;
        }
        catch (SStop const&) {
        }
    }

    static void Append(std::string& key, u64 value)
    {
        if (value < 255) {
            key.push_back(static_cast<char>(value));
            return;
        }
        key.push_back('\xFF');
        for (int byte = 0; byte < 8; ++byte)
            key.push_back(static_cast<char>(value >> (8 * byte)));
    }

    static std::string Encode(SState const& state)
    {
        std::string key;
        for (u64 const word : state.words)
            Append(key, word);
        for (SThread const& thread : state.threads) {
            Append(key, thread.phase);
            Append(key, thread.history.size());
            for (u64 const result : thread.history)
                Append(key, result);
        }
        return key;
    }

    void CheckThatAllCanEnd(std::vector<std::vector<u32>> const& before, std::vector<u32> pending)
    {
        std::vector<bool> canEnd(before.size(), false);
        u64 count = 0;
        while (!pending.empty()) {
            u32 const number = pending.back();
            pending.pop_back();
            if (canEnd[number])
                continue;
            canEnd[number] = true;
            ++count;
            pending.insert(pending.end(), before[number].begin(), before[number].end());
        }
        Require(count == before.size(), "the threads can get stuck");
    }

    static inline CModelChecker* s_current = nullptr;

    std::vector<std::vector<Phase>> m_programs;
    std::function<bool()> m_endRule;
    SState m_start;
    SState m_state;
    u32 m_running = 0;
    std::size_t m_position = 0;
    bool m_acted = false;
    std::string m_error;
};

/// A word of the current checker with the members of std::atomic that the library uses.
template <class T>
class TModelAtomic {
public:
    TModelAtomic() : TModelAtomic(T{}) {}
    TModelAtomic(T value) : m_word(CModelChecker::Get().AddWord(static_cast<Velmor::u64>(value))) {}

    T load(std::memory_order = std::memory_order_seq_cst) const
    {
        return Do([this](auto& words) { return words[m_word]; });
    }
    void store(T value, std::memory_order = std::memory_order_seq_cst)
    {
        Do([this, value](auto& words) { return words[m_word] = static_cast<Velmor::u64>(value); });
    }
    T exchange(T value, std::memory_order = std::memory_order_seq_cst)
    {
        return Do([this, value](auto& words) { return std::exchange(words[m_word], static_cast<Velmor::u64>(value)); });
    }
    T fetch_or(T bits, std::memory_order = std::memory_order_seq_cst)
    {
        return Do([this, bits](auto& words) { return std::exchange(words[m_word], words[m_word] | bits); });
    }
    T fetch_add(T value, std::memory_order = std::memory_order_seq_cst)
    {
        return Do([this, value](auto& words) { return std::exchange(words[m_word], words[m_word] + value); });
    }
    T fetch_sub(T value, std::memory_order = std::memory_order_seq_cst)
    {
        return Do([this, value](auto& words) { return std::exchange(words[m_word], words[m_word] - value); });
    }
    bool compare_exchange_strong(T& expected, T desired, std::memory_order = std::memory_order_seq_cst,
                                 std::memory_order = std::memory_order_seq_cst)
    {
        T const seen = Do([this, expected, desired](auto& words) {
            Velmor::u64 const old = words[m_word];
            if (old == static_cast<Velmor::u64>(expected))
                words[m_word] = static_cast<Velmor::u64>(desired);
            return old;
        });
        return std::exchange(expected, seen) == seen;
    }
    bool compare_exchange_weak(T& expected, T desired, std::memory_order success = std::memory_order_seq_cst,
                               std::memory_order failure = std::memory_order_seq_cst)
    {
        return compare_exchange_strong(expected, desired, success, failure);
    }

    [[nodiscard]] T Peek() const { return static_cast<T>(CModelChecker::Get().Peek(m_word)); }

protected:
    template <class Operation>
    T Do(Operation&& operation) const
    {
        return static_cast<T>(CModelChecker::Get().Access(true, operation));
    }

    Velmor::u32 m_word;
};

/// A word for the model's own bookkeeping: nothing comes between its accesses and the one before them.
class CModelNote {
public:
    explicit CModelNote(Velmor::u64 value = 0) : m_word(CModelChecker::Get().AddWord(value)) {}

    /// Adds and gives the new value.
    Velmor::u64 Add(Velmor::u64 value)
    {
        return CModelChecker::Get().Access(false, [this, value](auto& words) { return words[m_word] += value; });
    }
    void Set(Velmor::u64 value)
    {
        CModelChecker::Get().Access(false, [this, value](auto& words) { return words[m_word] = value; });
    }
    [[nodiscard]] Velmor::u64 Get() const
    {
        return CModelChecker::Get().Access(false, [this](auto& words) { return words[m_word]; });
    }
    [[nodiscard]] Velmor::u64 Peek() const { return CModelChecker::Get().Peek(m_word); }

private:
    Velmor::u32 m_word;
};

} // namespace TestSupport

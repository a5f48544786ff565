// Allocation hooks that count, check and fail on demand. One state for the program; Reset() before each use.
#pragma once

#include <vlmcore/memory.h>
#include <vlmcore/types.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

namespace Velmor::Test {

/// Counts what a heap asks of its hooks, and notices what it must not ask.
class CCountingHooks {
public:
    /// Forgets everything; blocks that are left, among them the objects of heaps that are gone, are freed.
    static void Reset()
    {
        for (auto const& [block, start] : Get().starts)
            std::free(start);
        Get() = SState{};
    }

    /// Creates this module's heap on these hooks.
    static void Initialize(unsigned char flags, u64 budget = 0)
    {
        Memory::Initialize(&Malloc, &Realloc, &Free, flags, budget);
    }

    /// The n-th request from now on (1 is the next) and all behind it are refused; 0 refuses none.
    static void FailFrom(u64 request)
    {
        Get().failFrom = request == 0 ? 0 : Get().requests + request;
        Get().failOnce = false;
    }
    /// Only the n-th request from now on is refused.
    static void FailOnce(u64 request)
    {
        FailFrom(request);
        Get().failOnce = true;
    }

    static u64 GetRequests() { return Get().requests; }
    static u64 GetLiveBlocks() { return Get().blocks.size(); }
    /// Bytes of the live blocks, as they were requested.
    static u64 GetBytes()
    {
        u64 bytes = 0;
        for (auto const& [block, size] : Get().blocks)
            bytes += size;
        return bytes;
    }
    static u64 GetFreesOfNull() { return Get().freesOfNull; }
    /// Blocks freed or resized that were never handed out or are gone already.
    static u64 GetForeignBlocks() { return Get().foreignBlocks; }
    /// Size that a live block was requested with; 0 for any other address.
    static u64 GetBlockSize(void const* block)
    {
        auto const found = Get().blocks.find(block);
        return found == Get().blocks.end() ? 0 : found->second;
    }
    /// Each block lies this many bytes further behind a 16-byte boundary than the one before it.
    static void SetShift(u64 step) { Get().shiftStep = step; }

    static void* Malloc(u64 size)
    {
        std::lock_guard const lock(GetMutex());
        return IsRefused() ? nullptr : Allocate(size);
    }

    static void* Realloc(void* block, u64 size)
    {
        std::lock_guard const lock(GetMutex());
        if (IsRefused())
            return nullptr;
        if (block == nullptr)
            return Allocate(size);
        u64 const oldSize = GetBlockSize(block);
        if (oldSize == 0) {
            ++Get().foreignBlocks;
            return nullptr;
        }
        void* const moved = Allocate(size);
        if (moved == nullptr)
            return nullptr;
        std::memcpy(moved, block, oldSize < size ? oldSize : size);
        Release(block);
        return moved;
    }

    static void Free(void* block)
    {
        std::lock_guard const lock(GetMutex());
        if (block == nullptr)
            ++Get().freesOfNull;
        else
            Release(block);
    }

private:
    struct SState {
        u64 requests = 0;
        u64 failFrom = 0;
        bool failOnce = false;
        u64 freesOfNull = 0;
        u64 foreignBlocks = 0;
        u64 shiftStep = 0;
        u64 shift = 0;
        std::map<void const*, u64> blocks;
        std::map<void const*, void*> starts;
    };

    static SState& Get()
    {
        static SState& state = *new SState; // outlives the heap, which is taken down at exit
        return state;
    }

    static std::mutex& GetMutex()
    {
        static std::mutex& mutex = *new std::mutex;
        return mutex;
    }

    static bool IsRefused()
    {
        SState& state = Get();
        ++state.requests;
        if (state.failFrom == 0)
            return false;
        return state.failOnce ? state.requests == state.failFrom : state.requests >= state.failFrom;
    }

    static void* Allocate(u64 size)
    {
        SState& state = Get();
        if (size > u64{1} << 40)
            return nullptr;
        state.shift = (state.shift + state.shiftStep) % 16;
        void* const start = std::malloc(size + state.shift);
        void* const block = static_cast<u8*>(start) + state.shift;
        state.blocks[block] = size;
        state.starts[block] = start;
        return block;
    }

    static void Release(void* block)
    {
        SState& state = Get();
        auto const found = state.starts.find(block);
        if (found == state.starts.end()) {
            ++state.foreignBlocks;
            return;
        }
        std::free(found->second);
        state.starts.erase(found);
        state.blocks.erase(block);
    }
};

} // namespace Velmor::Test

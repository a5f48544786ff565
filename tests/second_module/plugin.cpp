#include "Plugin.h"
#include "../support/PluginEntry.h"

#include <vlmcore/memory.h>

#include <cstring>
#include <new>
#include <string>

using namespace Velmor;

namespace {

// A static of the plugin that owns memory of the host's heap while the plugin is unloaded.
struct SOwner {
    ~SOwner() { Memory::FreeQuietly(block); }
    void* block = nullptr;
};
SOwner g_owner;

void Adopt(void* hooks)
{
    Memory::InitFromExternal(hooks);
    g_owner.block = Memory::Malloc(50, EHeap::Pool);
}

bool ThrowsWithoutHeap()
{
    try {
        static_cast<void>(Memory::Malloc(1, EHeap::Pool));
    }
    catch (std::bad_alloc const&) {
        return true;
    }
    return false;
}

char const* GetRefusal(void* hooks)
{
    try {
        Memory::InitFromExternal(hooks);
    }
    catch (CForeignHeap const& error) {
        static std::string text;
        text = error.what();
        return text.c_str();
    }
    return nullptr;
}

// Allocates, fills, checks and frees.
void Churn(u64 seed, u64 count)
{
    for (u64 index = 0; index < count; ++index) {
        u64 const size = 1 + (seed + index * 37) % 2000;
        void* const block = Memory::Malloc(size, static_cast<EHeap::Type>(index % 5));
        std::memset(block, static_cast<int>(index & 0xFF), size);
        Memory::Free(block);
    }
}

constexpr PluginTest::SPlugin Plugin = {
    &Adopt,
    &Memory::IsInitialized,
    [](u64 size, u32 kind) { return Memory::Malloc(size, static_cast<EHeap::Type>(kind)); },
    [](void* block, u64 size) { return Memory::Realloc(block, size, EHeap::General); },
    [](void* block) { Memory::Free(block); },
    [](void* block) { return Memory::GetSize(block); },
    [](void* block) { return static_cast<u32>(Memory::GetHeap(block)); },
    &PluginTest::GetLivePoolBlocks,
    &Churn,
    &ThrowsWithoutHeap,
    &GetRefusal,
};

} // namespace

VLMCORE_TEST_PLUGIN(Plugin)

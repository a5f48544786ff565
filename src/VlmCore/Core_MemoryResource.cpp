#include <vlmcore/impl/Core_Allocator.h>

namespace Velmor {

CMemoryResource::~CMemoryResource() = default;

void* CMemoryResource::do_allocate(std::size_t size, std::size_t alignment)
{
    void* const memory =
        alignment <= 16 ? Memory::Malloc(size == 0 ? 1 : size, Impl::GetAlignedKind(m_heap, alignment)) : nullptr;
    if (memory == nullptr)
        throw CBadAllocation();
    return memory;
}

void CMemoryResource::do_deallocate(void* block, std::size_t, std::size_t)
{
    Memory::FreeQuietly(block);
}

bool CMemoryResource::do_is_equal(std::pmr::memory_resource const& other) const noexcept
{
    return dynamic_cast<CMemoryResource const*>(&other) != nullptr;
}

} // namespace Velmor

#include "support/GuardedPages.h"

#include <windows.h>

#include <new>

namespace Velmor::Test {

namespace {

u64 GetPageSize()
{
    SYSTEM_INFO information;
    GetSystemInfo(&information);
    return information.dwPageSize;
}

} // namespace

CGuardedPages::CGuardedPages(u64 bytes)
{
    u64 const page = GetPageSize();
    m_size = (bytes + page - 1) / page * page;
    void* const area = VirtualAlloc(nullptr, m_size + 2 * page, MEM_RESERVE, PAGE_NOACCESS);
    if (area == nullptr)
        throw std::bad_alloc();
    m_begin = static_cast<u8*>(area) + page;
    if (VirtualAlloc(m_begin, m_size, MEM_COMMIT, PAGE_READWRITE) == nullptr)
        throw std::bad_alloc();
}

CGuardedPages::~CGuardedPages()
{
    VirtualFree(m_begin - GetPageSize(), 0, MEM_RELEASE);
}

} // namespace Velmor::Test

#include "support/GuardedPages.h"

#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace Velmor::Test {

CGuardedPages::CGuardedPages(u64 bytes)
{
    u64 const page = static_cast<u64>(sysconf(_SC_PAGESIZE));
    m_size = (bytes + page - 1) / page * page;
    void* const area = mmap(nullptr, m_size + 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (area == MAP_FAILED)
        throw std::bad_alloc();
    m_begin = static_cast<u8*>(area) + page;
    if (mprotect(m_begin, m_size, PROT_READ | PROT_WRITE) != 0)
        throw std::bad_alloc();
}

CGuardedPages::~CGuardedPages()
{
    u64 const page = static_cast<u64>(sysconf(_SC_PAGESIZE));
    munmap(m_begin - page, m_size + 2 * page);
}

} // namespace Velmor::Test

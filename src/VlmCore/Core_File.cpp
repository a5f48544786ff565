#include <vlmcore/files.h>

#include "Core_Path.h"

namespace Velmor {

// Hosts implement and call these classes by their layout: reference count first, then the members in order.
static_assert(sizeof(CResource) == 4);
static_assert(sizeof(CNullFile) == 16 + sizeof(SFileName));
static_assert(sizeof(CNativeFile) == sizeof(CNullFile) + 16);
static_assert(sizeof(CMemoryFile) == sizeof(CNullFile) + 40);
static_assert(sizeof(CByteStreamFile) == sizeof(CNullFile) + 32);

IFile::~IFile() = default;

CNullFile::CNullFile(CString const& path) : m_name(Path::Split(path)) {}

CNullFile::~CNullFile() = default;

u64 CNullFile::Read(void*, u64)
{
    return 0;
}

u64 CNullFile::Write(void const*, u64)
{
    return 0;
}

u64 CNullFile::Seek(ESeek::Type, i64)
{
    return 0;
}

} // namespace Velmor

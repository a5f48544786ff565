#include <vlmcore/exceptions.h>

#include "Core_Printf.h"

#include <vlmcore/memory.h>

namespace Velmor {

namespace {
constexpr u64 MessageCapacity = 4096;
} // namespace

CException::CException(char const* format, ...) : m_kind(PlainKind)
{
    char text[MessageCapacity];
    std::va_list arguments;
    va_start(arguments, format);
    FormatStrict(text, sizeof text, format, arguments);
    va_end(arguments);
    m_text = CString(text);
}

CException::CException(i64 kind, CString const& text) : m_text(text), m_kind(kind) {}

CException::CException(CException const& other) = default;
CException& CException::operator=(CException const& other) = default;
CException::~CException() = default;

CException* CException::Clone() const
{
    return Memory::New<CException>(EHeap::Pool, *this);
}

CString CException::GetText() const
{
    return CString(m_text);
}

CFileException::CFileException(CString const& text, EFileError::Type error)
    : CException(FileKind, text), m_fileError(error)
{
}

CFileException::CFileException(CFileException const& other) = default;
CFileException& CFileException::operator=(CFileException const& other) = default;
CFileException::~CFileException() = default;

CFileException* CFileException::Clone() const
{
    return Memory::New<CFileException>(EHeap::Pool, *this);
}

} // namespace Velmor

#include "Core_JSONFile.h"

#include "Core_Log.h"
#include "platform/Platform_WholeWrite.h"

#include <vlmcore/debug.h>

#include <algorithm>
#include <cstring>
#include <typeinfo>

namespace Velmor {

namespace {

constexpr u64 PageSize = 4096;

void ReportLoss(u64 size)
{
    Debug::Print("Memory log: the file did not take %llu bytes.\n", static_cast<unsigned long long>(size));
}

/// A class derived from the native file may write in a way of its own.
[[nodiscard]] bool IsNativeFile(IFile const* file)
{
    return file != nullptr && typeid(*file) == typeid(CNativeFile);
}

} // namespace

CJSONFile::CJSONFile(TResourcePtr<IFile> const& file, CJSONFile* referred)
    : m_file(file), m_referred(referred), m_isNative(IsNativeFile(file.Get()))
{
    m_text.Reserve(1);
    try {
        if (m_file) {
            MoveTo(m_file->GetPosition());
            static_cast<void>(Open());
        }
    }
    catch (...) {
        // The first item tries again.
    }
}

/// The trailer is at `position` now.
void CJSONFile::MoveTo(u64 position)
{
    m_position = position;
    u64 const end = m_isNative ? Platform::GetWholeWriteEnd(position) : (position / PageSize + 1) * PageSize;
    m_dueSize = end - std::min(end, position + TrailerSize);
}

/// Without memory for more, what is collected makes room.
bool CJSONFile::MakeRoom(u64 size) noexcept
{
    for (bool const isEmpty : {false, true}) {
        if (isEmpty)
            Flush();
        try {
            m_text.Reserve(size);
            return true;
        }
        catch (CBadAllocation const&) {
        }
    }
    return false;
}

void CJSONFile::Flush() noexcept
{
    if (m_text.GetSizeByte() != 0)
        WriteItems(m_text.GetSizeByte());
}

/// Writes the first `size` bytes of the text with a trailer behind them, and drops them from the text.
void CJSONFile::WriteItems(u64 size) noexcept
{
    if (m_referred != nullptr)
        m_referred->Flush();
    // The first item of the file has no comma before it.
    u64 const start = m_hasItems ? 0 : 1;
    char* const data = m_text.GetData();
    char following[TrailerSize]; // what the trailer takes the place of for the time of the write
    std::memcpy(following, data + size, TrailerSize);
    std::memcpy(data + size, Log::JsonTrailer, TrailerSize);
    if (TryWrite(data + start, size - start + TrailerSize))
        m_hasItems = true;
    else if (m_file)
        ReportLoss(size - start);
    std::memcpy(data + size, following, TrailerSize);
    m_text.RemoveFront(size);
}

/// Writes items and trailer over the old trailer and moves back to the new one. False: none of it is in the file.
bool CJSONFile::TryWrite(char const* data, u64 size) noexcept
{
    try {
        if (!m_file || (!m_isOpen && !Open()) || (m_isDamaged && !TryRepair()))
            return false;
        m_isDamaged = true;
        if (WriteAll(data, size)) {
            m_file->Seek(ESeek::Current, -static_cast<i64>(TrailerSize));
            MoveTo(m_position + size - TrailerSize);
            m_isDamaged = false;
            return true;
        }
    }
    catch (...) {
        // Below it makes no difference whether the file refused or threw.
    }
    if (m_isDamaged)
        static_cast<void>(TryRepair());
    return false;
}

/// Puts a trailer at its position again and blanks what lies behind it. No byte of the file is new, so that this works
/// on a full disk too.
bool CJSONFile::TryRepair() noexcept
{
    try {
        m_file->Seek(ESeek::Begin, static_cast<i64>(m_position));
        u64 const end = m_file->GetSizeByte();
        u64 remaining = std::max(end, m_position + TrailerSize) - m_position;
        char blanks[PageSize];
        std::memset(blanks, ' ', sizeof blanks);
        std::memcpy(blanks, Log::JsonTrailer, TrailerSize);
        while (remaining > 0) {
            u64 const size = std::min(remaining, sizeof blanks);
            if (!WriteAll(blanks, size))
                return false;
            remaining -= size;
            std::memset(blanks, ' ', TrailerSize);
        }
        m_file->Seek(ESeek::Begin, static_cast<i64>(m_position));
        m_isDamaged = false;
    }
    catch (...) {
    }
    return !m_isDamaged;
}

bool CJSONFile::Open()
{
    m_file->Seek(ESeek::Begin, static_cast<i64>(m_position));
    char opening[32];
    u64 const openingSize = std::strlen(Log::JsonOpening);
    std::memcpy(opening, Log::JsonOpening, openingSize);
    std::memcpy(opening + openingSize, Log::JsonTrailer, TrailerSize);
    if (!WriteAll(opening, openingSize + TrailerSize))
        return false;
    MoveTo(m_position + openingSize);
    m_isOpen = true;
    m_isDamaged = true;
    m_file->Seek(ESeek::Current, -static_cast<i64>(TrailerSize));
    m_isDamaged = false;
    return true;
}

/// False when the file takes no more.
bool CJSONFile::WriteAll(char const* data, u64 size)
{
    while (size > 0) {
        u64 const taken = std::min(WriteSome(data, size), size);
        if (taken == 0)
            return false;
        data += taken;
        size -= taken;
    }
    return true;
}

u64 CJSONFile::WriteSome(char const* data, u64 size)
{
    if (!m_isNative || !Platform::NeedsWholeWrite(m_position, size))
        return m_file->Write(data, size);
    u64 done = 0;
    return Platform::WriteFileWhole(m_file->GetNativeHandle(), data, size, done) == 0 ? done : 0;
}

} // namespace Velmor

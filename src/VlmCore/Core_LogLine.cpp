#include "Core_LogLine.h"

#include "Core_Log.h"

#include <vlmcore/memory.h>

#include <cstring>

namespace Velmor {

namespace {

/// Room for twenty digits, ": [", the longest level name, "] ", the new line and the terminators that the string
/// functions leave behind.
constexpr u64 FrameSize = 64;
constexpr u64 DigitsSize = 24;

[[nodiscard]] u8* Append(u8* place, char const* text, u64 size)
{
    std::memcpy(place, text, size);
    return place + size;
}

} // namespace

CLogLine::CLogLine(Log::EMessage::Type type, u64 timestamp, CString const& message) : m_data(m_inline)
{
    u64 const allocatedSize = message.GetAllocatedSizeAs(EStringEncoding::UTF8);
    u64 const messageSize = allocatedSize > 0 ? allocatedSize - 1 : 0;
    if (messageSize + FrameSize > InlineSize) {
        m_data = static_cast<u8*>(Memory::Malloc(messageSize + FrameSize, EHeap::Pool));
        if (m_data == nullptr)
            throw CBadAllocation();
    }
    char digits[DigitsSize];
    u64 const digitCount = IString::FromUnsignedInteger(timestamp, digits, sizeof digits, EStringEncoding::UTF8);
    char const* const level = Log::GetLevelName(type);
    u8* place = Append(m_data, digits, digitCount);
    place = Append(place, ": [", 3);
    place = Append(place, level, std::strlen(level));
    place = Append(place, "] ", 2);
    if (messageSize > 0)
        message.CopyAs(EStringEncoding::UTF8, place, false);
    place += messageSize;
    *place++ = '\n';
    m_size = static_cast<u64>(place - m_data);
}

CLogLine::~CLogLine()
{
    if (m_data != m_inline)
        Memory::FreeQuietly(m_data);
}

} // namespace Velmor

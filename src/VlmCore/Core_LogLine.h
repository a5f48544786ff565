/// \file
/// A message as one line of text.
#pragma once

#include <vlmcore/logging.h>
#include <vlmcore/strings.h>
#include <vlmcore/types.h>

namespace Velmor {

/// The bytes of "timestamp: [level] message" and a new line, UTF-8: what the format engine makes of
/// "%1: [%2] %3\\n". Put together by hand, because a line that fits the object then needs no memory and so takes none
/// of the memory manager's locks: threads that log do not wait for each other while they format.
class CLogLine {
public:
    /// Throws CBadAllocation, for long messages only.
    CLogLine(Log::EMessage::Type type, u64 timestamp, CString const& message);
    CLogLine(CLogLine const&) = delete;
    CLogLine& operator=(CLogLine const&) = delete;
    ~CLogLine();

    [[nodiscard]] u8 const* GetData() const { return m_data; }
    /// Bytes, new line included; there is no terminator.
    [[nodiscard]] u64 GetSizeByte() const { return m_size; }

private:
    static constexpr u64 InlineSize = 1024;

    u8 m_inline[InlineSize];
    u8* m_data;
    u64 m_size;
};

} // namespace Velmor

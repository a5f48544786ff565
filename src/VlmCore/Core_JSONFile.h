/// \file
/// A file that is a complete JSON document after every write: one object with the array "Data".
#pragma once

#include "Core_JSONText.h"

#include <vlmcore/files.h>
#include <vlmcore/types.h>

namespace Velmor {

/// The file ends with "]}" and a new line at all times. Items are added by one write that overwrites this trailer with
/// the items and a new trailer, after which the position moves back to the trailer. Whatever ends the process, the file
/// is whole: before the write or after it.
///
/// Items are collected until they would pass the end of what one write may carry (Platform_WholeWrite.h). Where nothing
/// keeps a kill from cutting a write, that is the file's current page: cuts fall between two pages, so that what lies
/// in one page is written whole or not at all, and the item on the border of two pages is written alone.
///
/// Errors: nothing throws. A file that fails loses the items it was given; the trailer is put back, now or before the
/// next write, and the loss is reported with Debug::Print. No file: everything is discarded.
class CJSONFile {
public:
    /// Writes the opening and the trailer at the file's current position. `referred`, when given, is the file that the
    /// items of this one refer to: whatever waits there is written before anything is written here. Throws
    /// CBadAllocation.
    explicit CJSONFile(TResourcePtr<IFile> const& file, CJSONFile* referred = nullptr);
    CJSONFile(CJSONFile const&) = delete;
    CJSONFile& operator=(CJSONFile const&) = delete;

    /// Adds the item that `build(text)` appends to a CJSONText, beginning with "{". False, and no item, when the build
    /// throws or there is no memory for the one item. A page of it is set aside at the start.
    template <class Build>
    bool AddItem(Build const& build) noexcept
    {
        if (!TryAppend(build)) {
            Flush(); // without memory for more, what is collected makes room
            if (!TryAppend(build))
                return false;
        }
        WriteIfDue();
        return true;
    }

    /// The same for an item that `write(at)` writes to the place it is given, beginning with "{", returning its end. It
    /// may touch `RoomSize` bytes and does not fail.
    template <u64 RoomSize, class Write>
    bool AddShortItem(Write const& write) noexcept
    {
        constexpr u64 Most = 1 + RoomSize + TrailerSize;
        if (!m_text.HasRoom(Most)) [[unlikely]] {
            if (!MakeRoom(Most))
                return false;
        }
        m_itemStart = m_text.GetSizeByte();
        char* const start = m_text.GetEnd();
        *start = ',';
        m_text.ExtendTo(write(start + 1));
        WriteIfDue();
        return true;
    }

    /// Writes the collected items.
    void Flush() noexcept;

private:
    static constexpr u64 TrailerSize = 3;

    template <class Build>
    [[nodiscard]] bool TryAppend(Build const& build) noexcept
    {
        m_itemStart = m_text.GetSizeByte();
        try {
            m_text.Append(",");
            build(m_text);
            m_text.Reserve(TrailerSize);
            return true;
        }
        catch (...) {
            m_text.Truncate(m_itemStart);
            return false;
        }
    }

    /// The new item stays behind when the ones before it are written: alone it may leave its page.
    void WriteIfDue() noexcept
    {
        if (m_text.GetSizeByte() > m_dueSize && m_itemStart != 0) [[unlikely]]
            WriteItems(m_itemStart);
    }
    [[nodiscard]] bool MakeRoom(u64 size) noexcept;
    void MoveTo(u64 position);
    void WriteItems(u64 size) noexcept;
    [[nodiscard]] bool TryWrite(char const* data, u64 size) noexcept;
    [[nodiscard]] bool TryRepair() noexcept;
    [[nodiscard]] bool Open();
    [[nodiscard]] bool WriteAll(char const* data, u64 size);
    [[nodiscard]] u64 WriteSome(char const* data, u64 size);

    TResourcePtr<IFile> m_file;
    CJSONFile* m_referred;
    bool m_isNative; ///< the file is the library's own native file
    CJSONText m_text;
    u64 m_itemStart = 0;
    u64 m_dueSize = 0;        ///< the most of the text that one write may carry
    u64 m_position = 0;       ///< of the trailer in the file; of the opening before there is one
    bool m_isOpen = false;    ///< the opening is in the file
    bool m_isDamaged = false; ///< what lies at the position is not a trailer, or the file stands elsewhere
    bool m_hasItems = false;
};

} // namespace Velmor

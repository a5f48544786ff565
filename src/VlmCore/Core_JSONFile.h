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
/// Items are collected until they would leave the file's current page. Where a kill can cut a write, it cuts between
/// two pages: what lies in one page is written whole or not at all, and only the item on the border of two pages, alone,
/// takes the dearer way of Platform_WholeWrite.h. That works for files of the system; others end with the process.
///
/// Errors: nothing throws but what builds the text. A file that fails loses the items it was given; the trailer is put
/// back, now or before the next write, and the loss is reported with Debug::Print. No file: everything is discarded.
class CJSONFile {
public:
    /// Writes the opening and the trailer at the file's current position.
    explicit CJSONFile(TResourcePtr<IFile> const& file);
    CJSONFile(CJSONFile const&) = delete;
    CJSONFile& operator=(CJSONFile const&) = delete;

    /// Where to append the next item, which begins with "{". Then call EndItem or, when the item could not be built,
    /// DropItem. Throws CBadAllocation, as EndItem does: the item is then to be dropped.
    [[nodiscard]] CJSONText& BeginItem();
    void EndItem();
    void DropItem() noexcept { m_text.Truncate(m_itemStart); }

    /// Writes the collected items.
    void Flush() noexcept;

private:
    void WriteItems(u64 size) noexcept;
    [[nodiscard]] bool TryWrite(char const* data, u64 size) noexcept;
    [[nodiscard]] bool TryRepair() noexcept;
    [[nodiscard]] bool Open();
    [[nodiscard]] bool WriteAll(char const* data, u64 size);
    [[nodiscard]] u64 WriteSome(char const* data, u64 size);

    TResourcePtr<IFile> m_file;
    bool m_isNative; ///< the file is the library's own native file
    CJSONText m_text;
    u64 m_itemStart = 0;
    u64 m_position = 0;       ///< of the trailer in the file; of the opening before there is one
    bool m_isOpen = false;    ///< the opening is in the file
    bool m_isDamaged = false; ///< what lies at the position is not a trailer, or the file stands elsewhere
    bool m_hasItems = false;
};

} // namespace Velmor

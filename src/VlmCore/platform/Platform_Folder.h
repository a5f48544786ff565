/// \file
/// Seam: folders held open, their entries, and removal that cannot be led astray.
///
/// A folder that is open stays the same folder whatever is renamed or swapped for a link around it: the posix room
/// works through the descriptor; the Windows room works by path and, unless the folder is only looked at, keeps a
/// handle that forbids renaming and deleting.
#pragma once

#include "Platform_Path.h"

#include <vlmcore/types.h>

#include <utility>

namespace Velmor::Platform {

/// What an entry is.
struct SEntryKind {
    bool isFolder; ///< a folder, or a link that leads to one
    bool isLink;   ///< a link or a junction, wherever it leads
};

/// One entry of a folder.
struct SFolderEntry {
    /// Most units of a name, on either system.
    static constexpr u64 LongestName = 255;

    char16_t name[LongestName + 1]; ///< terminated
    SEntryKind kind;
};

/// What a folder is opened for.
enum class EFolderUse {
    Look, ///< others may rename or delete it meanwhile
    Hold, ///< it stays in its place, where the room works by path
};

/// A folder held open. One thread at a time.
class CFolder {
public:
    CFolder() = default;
    CFolder(CFolder const&) = delete;
    CFolder& operator=(CFolder const&) = delete;
    ~CFolder();

    /// Opens the folder of a full, terminated path; links on the way and at its end are followed. No folder:
    /// NotAFolder, or PathNotFound when it is a part before the last.
    [[nodiscard]] u32 Open(char16_t const* path, EFolderUse use);

    /// Opens the entry `name` of `parent`, which must be a folder and no link, to hold it: a link is refused.
    [[nodiscard]] u32 OpenEntry(CFolder const& parent, char16_t const* name);

    void Close();

    /// Lets go of what the system grants a process few of (the posix room: the descriptor), while folders below are at
    /// work. Only Resume, Close and a new opening may follow. Nothing for a closed folder.
    void Park();

    /// Opens a parked folder again by way of `child`, which was opened in it and still is; nothing when it is open.
    /// PathNotFound when `child` has been moved elsewhere meanwhile. No link can lead astray.
    [[nodiscard]] u32 Resume(CFolder const& child);

    /// Exchanges what the two hold.
    void Swap(CFolder& other) noexcept
    {
        std::swap(m_handle, other.m_handle);
        std::swap(m_listing, other.m_listing);
        std::swap(m_path, other.m_path);
        std::swap(m_identity, other.m_identity);
    }

    /// The next entry of the folder, in the system's order, never "." or "..". False at the end; the call after that
    /// begins anew. `error` tells why the very first entry could not be had; 0 otherwise: a listing that breaks off
    /// later just ends, as on Windows.
    [[nodiscard]] bool ReadEntry(SFolderEntry& entry, u32& error);

    /// What the entry `name` is.
    [[nodiscard]] u32 DescribeEntry(char16_t const* name, SEntryKind& kind) const;

    /// Deletes a file entry; of a link the link itself.
    [[nodiscard]] u32 DeleteFileEntry(char16_t const* name) const;

    /// Deletes an empty folder, or a link to a folder itself.
    [[nodiscard]] u32 DeleteFolderEntry(char16_t const* name) const;

private:
    void* m_handle = nullptr;  // null: closed
    void* m_listing = nullptr; // null before the first entry is read
    PathUnits m_path;          // where the room works by path; terminated

    // Which folder this is, volume and number, where the room parks it.
    struct SIdentity {
        u64 volume = 0;
        u64 number = 0;
        bool operator==(SIdentity const&) const = default;
    };
    SIdentity m_identity;
};

/// Deletes an empty folder by its full path. Of a link the link itself.
[[nodiscard]] u32 DeleteFolderPath(char16_t const* path);

} // namespace Velmor::Platform

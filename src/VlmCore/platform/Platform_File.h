/// \file
/// Seam: open files, and single entries by path.
///
/// Paths are full, terminated UTF-16 with backslashes, of any length up to the system's own limit; a longer one is
/// refused with NameTooLong, never cut. Results are system error numbers (Platform_SystemError.h). Handles are the
/// system's: a HANDLE on Windows, the descriptor's number on posix.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

using FileHandle = void*;

/// What no open file has for a handle.
[[nodiscard]] inline FileHandle InvalidFileHandle()
{
    return reinterpret_cast<FileHandle>(~u64{0});
}

/// Rights that an open asks for: a set of bits.
namespace EFileRights {
enum Type : u32 { Read = 0x80000000u, Write = 0x40000000u };
} // namespace EFileRights

enum class EFileCreation : u32 {
    CreateAlways = 2, ///< create, or empty an existing file, also without the right to write
    OpenExisting = 3,
    OpenAlways = 4, ///< create when missing
};

/// Start of a move; the values are the system's on both sides.
enum class EMoveFrom : u32 { Begin = 0, Current = 1, End = 2 };

/// Most bytes that one transfer call asks the system for.
inline constexpr u64 LargestTransfer = u64{1} << 30;

/// Opens a file for sharing with other readers and writers. A folder is refused (AccessDenied). `handle` is
/// InvalidFileHandle on failure.
[[nodiscard]] u32 OpenFileHandle(char16_t const* path, u32 rights, EFileCreation creation, FileHandle& handle);

void CloseFileHandle(FileHandle handle);

/// One call of the system: up to `size` (at most LargestTransfer) bytes. `done` may be less; 0 is the end of the file.
[[nodiscard]] u32 ReadFileHandle(FileHandle handle, void* buffer, u64 size, u64& done);

/// One call of the system. `done` may be less than `size` on success too: a full disk often shows so first.
[[nodiscard]] u32 WriteFileHandle(FileHandle handle, void const* buffer, u64 size, u64& done);

/// Moves the position and returns it in `position`. Before the start: NegativeSeek, nothing moved.
[[nodiscard]] u32 MoveFilePosition(FileHandle handle, i64 offset, EMoveFrom from, u64& position);

[[nodiscard]] u32 GetFileSize(FileHandle handle, u64& size);

/// True when an entry of this name exists: a file, a folder, or a link wherever it leads. As the system's search on
/// Windows takes them, `*` and `?` in the last part match any run of units and any unit.
[[nodiscard]] bool EntryExists(char16_t const* path);

/// True when the path leads to a folder, links followed.
[[nodiscard]] bool FolderExists(char16_t const* path);

/// Deletes a file; of a link the link itself.
[[nodiscard]] u32 DeleteFileEntry(char16_t const* path);

/// Creates one folder, parents not. An existing entry: AlreadyExists.
[[nodiscard]] u32 CreateFolderEntry(char16_t const* path);

} // namespace Velmor::Platform

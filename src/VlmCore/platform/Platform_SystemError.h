/// \file
/// Seam: the system's error numbers and their texts.
///
/// Every function of the seam that can fail returns a system error number: 0 for success, else the number that Windows
/// gives the same failure. The posix room translates errno in one place (posix/Posix_Errno.h); an errno without a
/// counterpart keeps its identity above the numbers that Windows uses.
#pragma once

#include <vlmcore/types.h>

namespace Velmor::Platform {

/// The numbers that code above the seam compares with.
namespace ESystemError {
enum : u32 {
    None = 0,
    FileNotFound = 2,
    PathNotFound = 3,
    AccessDenied = 5,
    InvalidHandle = 6,
    NotEnoughMemory = 8,
    InvalidParameter = 87,
    NegativeSeek = 131,
    AlreadyExists = 183,
    NameTooLong = 206,
    NotAFolder = 267,
};
} // namespace ESystemError

/// Most bytes, terminator included, that an error text is asked for.
inline constexpr u64 SystemErrorTextCapacity = 2048;

/// Writes the system's text for `error` as terminated UTF-8 into `buffer`, whose first byte is zero when the system has
/// none or it does not fit. Windows texts end in a line break; it is kept.
void GetSystemErrorText(u32 error, char (&buffer)[SystemErrorTextCapacity]);

} // namespace Velmor::Platform

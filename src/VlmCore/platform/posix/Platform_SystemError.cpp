#include "../Platform_SystemError.h"

#include "Posix_Errno.h"

#include <cerrno>
#include <cstring>
#include <string.h>

namespace Velmor::Platform {

namespace {

struct SErrorPair {
    int number;
    u32 systemError;
};

// For the way back (texts) the first pair with the number wins.
constexpr SErrorPair ErrorPairs[] = {
    {ENOENT, ESystemError::FileNotFound},
    {ENOTDIR, ESystemError::PathNotFound},
    {EACCES, ESystemError::AccessDenied},
    {EPERM, ESystemError::AccessDenied},
    {EISDIR, ESystemError::AccessDenied}, // a folder opened or deleted as a file
    {EBADF, ESystemError::InvalidHandle},
    {ENOMEM, ESystemError::NotEnoughMemory},
    {EMFILE, 4},
    {ENFILE, 4},
    {EXDEV, 17},
    {EROFS, 19},
    {ENXIO, 20},
    {ENODEV, 20},
    {EBUSY, 32},
    {ETXTBSY, 32},
    {EAGAIN, 33},
    {EOPNOTSUPP, 50},
    {EEXIST, 80},
    {EINVAL, ESystemError::InvalidParameter},
    {EPIPE, 109},
    {ENOSPC, 112},
    {EILSEQ, 123},
    {ESPIPE, 132},
    {ENOTEMPTY, 145},
    {ENAMETOOLONG, ESystemError::NameTooLong},
    {EFBIG, 223},
    {EOVERFLOW, 534},
    {EINTR, 995},
    {EIO, 1117},
    {EMLINK, 1142},
    {EDQUOT, 1295},
    {EUCLEAN, 1392},
    {ELOOP, 1921},
    {EINVAL, ESystemError::NegativeSeek},
    {EEXIST, ESystemError::AlreadyExists},
    {ENOTDIR, ESystemError::NotAFolder},
};

constexpr u32 UntranslatedBit = u32{1} << 29;

int ErrnoFromSystemError(u32 error)
{
    if ((error & UntranslatedBit) != 0)
        return static_cast<int>(error & ~UntranslatedBit);
    for (SErrorPair const& pair : ErrorPairs)
        if (pair.systemError == error)
            return pair.number;
    return 0;
}

} // namespace

u32 SystemErrorFromErrno(int number)
{
    if (number == 0)
        return ESystemError::None;
    for (SErrorPair const& pair : ErrorPairs)
        if (pair.number == number)
            return pair.systemError;
    return UntranslatedBit | static_cast<u32>(number);
}

u32 LastSystemError()
{
    return SystemErrorFromErrno(errno);
}

void GetSystemErrorText(u32 error, char (&buffer)[SystemErrorTextCapacity])
{
    buffer[0] = '\0';
    int const number = ErrnoFromSystemError(error);
    if (number == 0 || ::strerrordesc_np(number) == nullptr)
        return;
    char scratch[SystemErrorTextCapacity];
    char const* const text = ::strerror_r(number, scratch, sizeof scratch);
    u64 const length = std::strlen(text);
    if (length < sizeof buffer)
        std::memcpy(buffer, text, length + 1);
}

} // namespace Velmor::Platform

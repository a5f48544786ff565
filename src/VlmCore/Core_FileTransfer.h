// How a transfer of any size is carried out by system calls that take a limited one.
#pragma once

#include "Core_FileError.h"

#include "platform/Platform_File.h"

#include <vlmcore/types.h>

#include <algorithm>

namespace Velmor {

/// What a call that moved less than it was asked to means.
enum class EShortCount {
    Ends,  ///< all there is for now: asking again would wait at a pipe or a terminal
    GoesOn ///< ask for the rest, until nothing is moved
};

/// Calls `call(offset, size, done)`, which returns a system error number, for pieces of at most
/// Platform::LargestTransfer bytes, and returns how many bytes were moved. An error of the first call is thrown; after
/// a partial transfer the count goes first, the error comes with the next transfer.
template <EShortCount OnShortCount, class Call>
u64 TransferInPieces(u64 size, Call const& call)
{
    u64 total = 0;
    for (;;) {
        u64 const wanted = std::min(size - total, Platform::LargestTransfer);
        u64 done = 0;
        u32 const error = call(total, wanted, done);
        if (error != 0 && total == 0)
            RaiseFileError(error);
        total += done;
        bool const isEnd = OnShortCount == EShortCount::Ends ? done < wanted : done == 0;
        if (error != 0 || isEnd || total == size)
            return total;
    }
}

} // namespace Velmor

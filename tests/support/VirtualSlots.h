/// \file
/// The places of virtual operations: their order is part of the library's interfaces.
#pragma once

#include <vlmcore/types.h>

#include <cstring>

#include <gtest/gtest.h>

namespace TestSupport {

/// Place of a virtual operation in its class's table; two destructors come first in this compiler family's tables. A
/// pointer to an operation holds the table's offset, in bytes, plus one.
template <class Operation>
[[nodiscard]] Velmor::u64 SlotOf(Operation operation)
{
    Velmor::u64 words[2] = {};
    static_assert(sizeof operation == sizeof words);
    std::memcpy(words, &operation, sizeof words);
    EXPECT_EQ(words[0] % sizeof(void*), 1u) << "not virtual";
    return (words[0] - 1) / sizeof(void*);
}

} // namespace TestSupport

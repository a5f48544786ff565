// A heap for the whole test program: include this file once per program, nothing else is needed.
#pragma once

#include <vlmcore/memory.h>

#include <gtest/gtest.h>

namespace Velmor::Test {

/// Initialises the memory manager before the first test and takes it down after the last.
class CTestHeap : public ::testing::Environment {
public:
    void SetUp() override
    {
        Memory::Initialize(0, 0);
        ASSERT_TRUE(Memory::IsInitialized());
    }

    void TearDown() override { Memory::Deinitialize(); }
};

inline ::testing::Environment* const testHeap = ::testing::AddGlobalTestEnvironment(new CTestHeap);

} // namespace Velmor::Test

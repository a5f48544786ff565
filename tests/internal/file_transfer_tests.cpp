// Transfers of any size in calls of a limited one, on calls that move nothing but numbers: sizes beyond 4 GiB cost no
// memory.
#include "../TestHeap.h"

#include "Core_FileTransfer.h"

#include <vlmcore/exceptions.h>

#include <gtest/gtest.h>

#include <vector>

using namespace Velmor;

namespace {

constexpr u64 GiB = u64{1} << 30;

struct SCall {
    u64 offset;
    u64 size;
    friend bool operator==(SCall const&, SCall const&) = default;
};

// Answers each call by its number: how many bytes it moves, and which error it gives.
struct SAnswer {
    u64 done;
    u32 error = 0;
};

template <EShortCount OnShortCount>
u64 Transfer(u64 size, std::vector<SAnswer> const& answers, std::vector<SCall>& calls)
{
    return TransferInPieces<OnShortCount>(size, [&](u64 offset, u64 count, u64& done) {
        calls.push_back({offset, count});
        SAnswer const answer = calls.size() <= answers.size() ? answers[calls.size() - 1] : SAnswer{count};
        done = answer.done;
        return answer.error;
    });
}

template <class T>
class FileTransfer : public ::testing::Test {};

template <EShortCount Value>
struct SShortCount {
    static constexpr EShortCount OnShortCount = Value;
};

using CDirections = ::testing::Types<SShortCount<EShortCount::Ends>, SShortCount<EShortCount::GoesOn>>;
TYPED_TEST_SUITE(FileTransfer, CDirections);

} // namespace

TYPED_TEST(FileTransfer, SmallOnesAreOneCall)
{
    std::vector<SCall> calls;
    EXPECT_EQ(Transfer<TypeParam::OnShortCount>(5, {}, calls), 5u);
    EXPECT_EQ(calls, (std::vector<SCall>{{0, 5}}));
    calls.clear();
    EXPECT_EQ(Transfer<TypeParam::OnShortCount>(0, {}, calls), 0u);
    EXPECT_EQ(calls, (std::vector<SCall>{{0, 0}}));
}

TYPED_TEST(FileTransfer, BeyondFourGiBAllOfItInSeveralCalls)
{
    std::vector<SCall> calls;
    EXPECT_EQ(Transfer<TypeParam::OnShortCount>(4 * GiB + 3, {}, calls), 4 * GiB + 3);
    EXPECT_EQ(calls, (std::vector<SCall>{{0, GiB}, {GiB, GiB}, {2 * GiB, GiB}, {3 * GiB, GiB}, {4 * GiB, 3}}));
    calls.clear();
    EXPECT_EQ(Transfer<TypeParam::OnShortCount>(4 * GiB, {}, calls), 4 * GiB);
    EXPECT_EQ(calls.size(), 4u);
    calls.clear();
    EXPECT_EQ(Transfer<TypeParam::OnShortCount>(1024 * GiB + 1, {}, calls), 1024 * GiB + 1);
    EXPECT_EQ(calls.size(), 1025u);
}

TYPED_TEST(FileTransfer, AnErrorIsThrownAtOnceOrGivesWayToTheCount)
{
    std::vector<SCall> calls;
    EXPECT_THROW(Transfer<TypeParam::OnShortCount>(5 * GiB, {{0, 32}}, calls), CFileException);
    EXPECT_EQ(calls.size(), 1u);
    for (u64 failing = 2; failing <= 5; ++failing) {
        std::vector<SAnswer> answers(failing - 1, SAnswer{GiB});
        answers.push_back({7, 112});
        calls.clear();
        EXPECT_EQ(Transfer<TypeParam::OnShortCount>(5 * GiB, answers, calls), (failing - 1) * GiB + 7);
        EXPECT_EQ(calls.size(), failing);
    }
}

TEST(FileTransferReading, EndsAtAShortCount)
{
    for (u64 shortCall = 1; shortCall <= 5; ++shortCall) {
        std::vector<SAnswer> answers(shortCall - 1, SAnswer{GiB});
        answers.push_back({GiB - 1});
        std::vector<SCall> calls;
        EXPECT_EQ(Transfer<EShortCount::Ends>(5 * GiB, answers, calls), shortCall * GiB - 1);
        EXPECT_EQ(calls.size(), shortCall);
    }
}

TEST(FileTransferWriting, GoesOnUntilNothingIsTaken)
{
    std::vector<SCall> calls;
    EXPECT_EQ(Transfer<EShortCount::GoesOn>(2 * GiB, {{5}, {GiB}, {GiB - 5}}, calls), 2 * GiB);
    EXPECT_EQ(calls, (std::vector<SCall>{{0, GiB}, {5, GiB}, {GiB + 5, GiB - 5}}));
    calls.clear();
    EXPECT_EQ(Transfer<EShortCount::GoesOn>(2 * GiB, {{5}, {0}}, calls), 5u);
    EXPECT_EQ(calls.size(), 2u);
}

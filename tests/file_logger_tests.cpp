// Labels: threads
// The file logger: unbuffered, buffered, from several threads, and on files that fail.
#include "RecordingFile.h"
#include "TestHeap.h"
#include "support/DebuggedProcess.h"
#include "support/SystemTraits.h"
#include "support/ThreadHelpers.h"

#include <vlmcore/exceptions.h>
#include <vlmcore/logging.h>
#include <vlmcore/threads.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Velmor;
using testing::ElementsAre;
using TestSupport::Eventually;
using VlmTest::CRecordingFile;

using CFileHandle = TResourcePtr<CRecordingFile>;

[[nodiscard]] CFileHandle MakeFile(CRecordingFile::OnWrite onWrite = nullptr)
{
    return MakeResource<CRecordingFile>(std::move(onWrite));
}

[[nodiscard]] std::string ReadFile(char const* path)
{
    CNativeFile file(path, EFileOpen::Read);
    std::string content(file.GetSizeByte(), '\0');
    content.resize(file.Read(content.data(), content.size()));
    return content;
}

[[nodiscard]] std::string Repeat(char const* text, int count)
{
    std::string result;
    while (count-- > 0)
        result += text;
    return result;
}

[[nodiscard]] std::string WithoutZeros(std::string text)
{
    std::erase(text, '\0');
    return text;
}

void WriteInfo(CFileLogger& logger, u64 timestamp, CString const& text)
{
    logger.Write(Log::EMessage::Info, timestamp, text);
}

// ---- lines ----

TEST(FileLogger, UnbufferedWritesEachLineAtOnce)
{
    CFileHandle const file = MakeFile();
    CFileLogger logger(file, 0);
    logger.Write(Log::EMessage::Debug, 0, "a");
    EXPECT_EQ(file->GetContent(), "0: [Debug] a\n");
    logger.Write(Log::EMessage::Info, 1234, "x");
    logger.Write(Log::EMessage::Warning, 18446744073709551615u, "50% %1 %s");
    logger.Write(Log::EMessage::Error, 9, "");
    EXPECT_THAT(file->GetWrites(), ElementsAre("0: [Debug] a\n", "1234: [Info] x\n",
                                               "18446744073709551615: [Warning] 50% %1 %s\n", "9: [Error] \n"));
}

TEST(FileLogger, LinesAreUtf8WhateverTheMessage)
{
    CFileHandle const file = MakeFile();
    CFileLogger logger(file, 0);
    WriteInfo(logger, 1, u"\u00e4\u20ac");
    WriteInfo(logger, 2, U"\u00e4\u20ac");
    WriteInfo(logger, 3, u8"\u00e4\u20ac");
    WriteInfo(logger, 4, nullptr);
    EXPECT_EQ(
        file->GetContent(),
        "1: [Info] \xC3\xA4\xE2\x82\xAC\n2: [Info] \xC3\xA4\xE2\x82\xAC\n3: [Info] \xC3\xA4\xE2\x82\xAC\n4: [Info] \n");
}

TEST(FileLogger, LongLinesAreWhole)
{
    for (u64 const length : {900u, 959u, 960u, 961u, 1000u, 1024u, 5000u, 100000u}) {
        CFileHandle const file = MakeFile();
        CFileLogger logger(file, 0);
        std::string const text(length, 'z');
        WriteInfo(logger, 5, text.c_str());
        EXPECT_EQ(file->GetContent(), "5: [Info] " + text + "\n") << length;
    }
}

TEST(FileLogger, BufferedLinesArriveOnTheirOwn)
{
    CFileHandle const file = MakeFile();
    CFileLogger logger(file, 4096);
    WriteInfo(logger, 1, "first");
    EXPECT_TRUE(Eventually([&] { return file->GetContent() == "1: [Info] first\n"; })) << file->GetContent();
    WriteInfo(logger, 2, "second");
    EXPECT_TRUE(Eventually([&] { return file->GetContent() == "1: [Info] first\n2: [Info] second\n"; }))
        << file->GetContent();
}

TEST(FileLogger, DestructionWritesWhatWasAccepted)
{
    for (int round = 0; round < 50; ++round) {
        CFileHandle const file = MakeFile();
        std::string expected;
        {
            CFileLogger logger(file, 100000);
            for (int line = 0; line <= round; ++line) {
                WriteInfo(logger, static_cast<u64>(line), "text");
                expected += std::to_string(line) + ": [Info] text\n";
            }
        }
        ASSERT_EQ(file->GetContent(), expected);
    }
}

TEST(FileLogger, DestructionDropsTheFile)
{
    CFileHandle const file = MakeFile();
    EXPECT_EQ(file->GetRefCount(), 1);
    {
        CFileLogger const unbuffered(file, 0);
        CFileLogger const buffered(file, 64);
        EXPECT_EQ(file->GetRefCount(), 3);
    }
    EXPECT_EQ(file->GetRefCount(), 1);
}

TEST(FileLogger, GivesItsMemoryBack)
{
    Memory::SStatistics before;
    Memory::SStatistics after;
    CFileHandle const file = MakeFile();
    ASSERT_TRUE(Memory::GetStatistics(before));
    {
        CFileLogger logger(file, 1 << 20);
        WriteInfo(logger, 1, std::string(3000, 'x').c_str());
    }
    ASSERT_TRUE(Memory::GetStatistics(after));
    EXPECT_EQ(after.bytesInUse, before.bytesInUse);
    EXPECT_EQ(after.liveCount, before.liveCount);
}

// ---- paths ----

TEST(FileLogger, CreatesAndEmptiesItsFile)
{
    char const* const path = "file_logger_test.log";
    {
        CFileLogger logger(path, 0);
        WriteInfo(logger, 1, "a long line of an earlier run");
    }
    EXPECT_EQ(ReadFile(path), "1: [Info] a long line of an earlier run\n");
    {
        CFileLogger logger(path, 256);
        WriteInfo(logger, 2, "short");
    }
    EXPECT_EQ(ReadFile(path), "2: [Info] short\n");
}

TEST(FileLogger, AFileThatCannotBeOpenedIsDoneWithout)
{
    for (u64 const bufferSize : {0u, 16u, 4096u}) {
        CFileLogger logger("no_such_folder/no_such_folder/file.log", bufferSize);
        for (int line = 0; line < 100; ++line)
            WriteInfo(logger, 1, "a line that nobody will read");
    }
}

TEST(FileLogger, AnEmptyHandleIsDoneWithout)
{
    TResourcePtr<IFile> const none;
    for (u64 const bufferSize : {0u, 1u, 16u, 4096u}) {
        CFileLogger logger(none, bufferSize);
        for (int line = 0; line < 100; ++line)
            WriteInfo(logger, 1, "a line that nobody will read");
    }
}

// ---- lines across buffers ----

TEST(FileLogger, ALineAcrossTwoBuffersIsFollowedByPadding)
{
    // 17 bytes into buffers of 10: the first takes 10, the second takes min(10, 17) = 10, of which 7 are left.
    CFileHandle const file = MakeFile();
    {
        CFileLogger logger(file, 10);
        WriteInfo(logger, 1, "abcdef");
        WriteInfo(logger, 2, "ghijkl");
    }
    std::string const zeros(3, '\0');
    EXPECT_EQ(file->GetContent(), "1: [Info] abcdef\n" + zeros + "2: [Info] ghijkl\n" + zeros);
    EXPECT_THAT(file->GetWrites(), ElementsAre("1: [Info] ", "abcdef\n" + zeros, "2: [Info] ", "ghijkl\n" + zeros));
}

TEST(FileLogger, ALineOneByteTooLongFillsTheNextBufferWithPadding)
{
    CFileHandle const file = MakeFile();
    {
        CFileLogger logger(file, 16);
        WriteInfo(logger, 1, "abcdef");
    }
    EXPECT_THAT(file->GetWrites(), ElementsAre("1: [Info] abcdef", "\n" + std::string(15, '\0')));
}

TEST(FileLogger, ALineMayCrossManyBuffers)
{
    // 26 bytes into buffers of 7: 7 + 7 + 7 and then 5 with 2 of padding.
    CFileHandle const file = MakeFile();
    {
        CFileLogger logger(file, 7);
        WriteInfo(logger, 1, "abcdefghijklmno");
    }
    EXPECT_THAT(file->GetWrites(), ElementsAre("1: [Inf", "o] abcd", "efghijk", "lmno\n" + std::string(2, '\0')));
}

TEST(FileLogger, BuffersOfOneByteNeedNoPadding)
{
    CFileHandle const file = MakeFile();
    {
        CFileLogger logger(file, 1);
        WriteInfo(logger, 1, "abc");
        WriteInfo(logger, 2, "def");
    }
    EXPECT_EQ(file->GetContent(), "1: [Info] abc\n2: [Info] def\n");
}

TEST(FileLogger, ALineThatJustFitsIsNotPadded)
{
    CFileHandle const file = MakeFile();
    {
        CFileLogger logger(file, 17);
        WriteInfo(logger, 1, "abcdef");
        WriteInfo(logger, 2, "ghijkl");
    }
    EXPECT_THAT(file->GetWrites(), ElementsAre("1: [Info] abcdef\n", "2: [Info] ghijkl\n"));
}

TEST(FileLogger, ApartFromPaddingNothingIsLostOrAddedAtAnyBufferSize)
{
    for (u64 bufferSize = 1; bufferSize <= 64; ++bufferSize) {
        CFileHandle const file = MakeFile();
        std::string expected;
        {
            CFileLogger logger(file, bufferSize);
            for (int line = 0; line < 40; ++line) {
                std::string const text = Repeat("ab", line);
                WriteInfo(logger, static_cast<u64>(line), text.c_str());
                expected += std::to_string(line) + ": [Info] " + text + "\n";
            }
        }
        ASSERT_EQ(WithoutZeros(file->GetContent()), expected) << bufferSize;
    }
}

// ---- threads ----

/// Every producer writes its number as the time stamp and counts its lines in the text.
void RunProducers(CFileLogger& logger, int producerCount, int lineCount)
{
    std::vector<std::thread> producers;
    for (int producer = 0; producer < producerCount; ++producer) {
        producers.emplace_back([&logger, producer, lineCount] {
            for (int line = 0; line < lineCount; ++line)
                WriteInfo(logger, static_cast<u64>(producer), std::to_string(line).c_str());
        });
    }
    for (std::thread& producer : producers)
        producer.join();
}

/// Checks that each producer's lines are all there, whole and in order.
void ExpectAllLines(std::string const& content, int producerCount, int lineCount)
{
    std::vector<int> next(static_cast<std::size_t>(producerCount), 0);
    std::size_t position = 0;
    while (position < content.size()) {
        std::size_t const end = content.find('\n', position);
        ASSERT_NE(end, std::string::npos);
        std::string const line = content.substr(position, end - position);
        std::size_t const producer = static_cast<std::size_t>(std::atoi(line.c_str()));
        ASSERT_LT(producer, next.size()) << line;
        ASSERT_EQ(line, std::to_string(producer) + ": [Info] " + std::to_string(next[producer]));
        ++next[producer];
        position = end + 1;
    }
    for (int const count : next)
        EXPECT_EQ(count, lineCount);
}

TEST(FileLoggerThreads, EightProducersLoseNothingAndKeepTheirOrder)
{
    int const lineCount = 1000 * static_cast<int>(TestSupport::GetStressFactor());
    CFileHandle const file = MakeFile();
    {
        // Room for everything, so that no line crosses a buffer.
        CFileLogger logger(file, static_cast<u64>(lineCount) * 8 * 32);
        RunProducers(logger, 8, lineCount);
    }
    ExpectAllLines(file->GetContent(), 8, lineCount);
}

TEST(FileLoggerThreads, UnbufferedProducersLoseNothingAndKeepTheirOrder)
{
    int const lineCount = 500 * static_cast<int>(TestSupport::GetStressFactor());
    CFileHandle const file = MakeFile();
    {
        CFileLogger logger(file, 0);
        RunProducers(logger, 4, lineCount);
    }
    ExpectAllLines(file->GetContent(), 4, lineCount);
}

TEST(FileLoggerThreads, ProducersThatOutrunTheWriterLoseNoByte)
{
    // Lines of different threads mix where they cross buffers; each thread has a letter of its own to count.
    int const lineCount = 200 * static_cast<int>(TestSupport::GetStressFactor());
    CFileHandle const file = MakeFile();
    {
        CFileLogger logger(file, 64);
        std::vector<std::thread> producers;
        for (char letter = 'A'; letter < 'E'; ++letter) {
            producers.emplace_back([&logger, letter, lineCount] {
                std::string const text(30, letter);
                for (int line = 0; line < lineCount; ++line)
                    logger.Write(Log::EMessage::Debug, 1, text.c_str());
            });
        }
        for (std::thread& producer : producers)
            producer.join();
    }
    std::string const content = file->GetContent();
    // "D" also begins the level name of every line.
    EXPECT_EQ(std::count(content.begin(), content.end(), 'A'), 30 * lineCount);
    EXPECT_EQ(std::count(content.begin(), content.end(), 'B'), 30 * lineCount);
    EXPECT_EQ(std::count(content.begin(), content.end(), 'C'), 30 * lineCount);
    EXPECT_EQ(std::count(content.begin(), content.end(), 'D'), 30 * lineCount + 4 * lineCount);
    EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 4 * lineCount);
}

TEST(FileLoggerThreads, ASlowFileLosesNothing)
{
    CFileHandle const file = MakeFile([](u64, u64 size) {
        Thread::Sleep(1);
        return size;
    });
    {
        CFileLogger logger(file, 64 * 1024);
        RunProducers(logger, 2, 500);
    }
    ExpectAllLines(file->GetContent(), 2, 500);
}

// ---- files that fail ----

TEST(FileLoggerFailure, AnUnbufferedFileThatThrowsLosesThatLineOnly)
{
    CFileHandle const file = MakeFile([](u64 call, u64 size) -> u64 {
        if (call == 1)
            throw CFileException("full", EFileError::Unknown);
        return size;
    });
    CFileLogger logger(file, 0);
    WriteInfo(logger, 1, "one");
    WriteInfo(logger, 2, "two");
    WriteInfo(logger, 3, "three");
    EXPECT_EQ(file->GetContent(), "1: [Info] one\n3: [Info] three\n");
}

TEST(FileLoggerFailure, AnythingAFileThrowsIsSurvived)
{
    CFileHandle const file = MakeFile([](u64 call, u64 size) -> u64 {
        switch (call) {
        case 0:
            throw std::runtime_error("standard");
        case 1:
            throw CBadAllocation();
        case 2:
            throw 5;
        default:
            return size;
        }
    });
    CFileLogger logger(file, 0);
    for (u64 line = 0; line < 4; ++line)
        WriteInfo(logger, line, "x");
    EXPECT_EQ(file->GetContent(), "3: [Info] x\n");
}

TEST(FileLoggerFailure, AShortWriteGoesOnWhereItStopped)
{
    CFileHandle const file = MakeFile([](u64, u64 size) { return std::min<u64>(size, 3); });
    {
        CFileLogger unbuffered(file, 0);
        WriteInfo(unbuffered, 1, "abcdef");
        CFileLogger buffered(file, 64);
        WriteInfo(buffered, 2, "ghijkl");
    }
    EXPECT_EQ(file->GetContent(), "1: [Info] abcdef\n2: [Info] ghijkl\n");
}

TEST(FileLoggerFailure, WhatAShortWriteTookIsNotRepeated)
{
    // Takes 5 bytes of the first line and nothing more of it, then works again.
    CFileHandle const file = MakeFile([](u64 call, u64 size) -> u64 { return call == 0 ? 5 : call == 1 ? 0 : size; });
    CFileLogger logger(file, 0);
    WriteInfo(logger, 1, "abcdef");
    EXPECT_EQ(file->GetContent(), "1: [I");
    WriteInfo(logger, 2, "ghijkl");
    EXPECT_EQ(file->GetContent(), "1: [I2: [Info] ghijkl\n");
}

TEST(FileLoggerFailure, AFileThatClaimsMoreThanItWasGivenIsNotBelieved)
{
    class CBoastingFile : public CRecordingFile {
    public:
        u64 Write(void const* buffer, u64 size) override { return CRecordingFile::Write(buffer, size) + 100; }
    };
    TResourcePtr<CBoastingFile> const file = MakeResource<CBoastingFile>();
    CFileLogger logger(file, 0);
    WriteInfo(logger, 1, "a");
    WriteInfo(logger, 2, "b");
    EXPECT_EQ(file->GetContent(), "1: [Info] a\n2: [Info] b\n");
}

TEST(FileLoggerFailure, ABufferedFileThatThrowsLosesWhatItWasGivenAndGoesOn)
{
    CFileHandle const file = MakeFile([](u64 call, u64 size) -> u64 {
        if (call == 0)
            throw CFileException("full", EFileError::Unknown);
        return size;
    });
    {
        CFileLogger logger(file, 4096);
        WriteInfo(logger, 1, "lost");
        ASSERT_TRUE(Eventually([&] { return file->GetCallCount() == 1; }));
        WriteInfo(logger, 2, "kept");
        WriteInfo(logger, 3, "kept too");
    }
    EXPECT_EQ(file->GetContent(), "2: [Info] kept\n3: [Info] kept too\n");
}

TEST(FileLoggerFailure, AFileThatAlwaysFailsStopsNobody)
{
    CFileHandle const throwing = MakeFile([](u64, u64) -> u64 { throw CFileException("full", EFileError::Unknown); });
    CFileHandle const refusing = MakeFile([](u64, u64) -> u64 { return 0; });
    for (CFileHandle const& file : {throwing, refusing}) {
        CFileLogger logger(file, 64);
        RunProducers(logger, 2, 200);
    }
    EXPECT_EQ(throwing->GetContent(), "");
    EXPECT_EQ(refusing->GetContent(), "");
}

// "1: [Info] x" and a new line are 12 bytes.
VLMCORE_CHILD(LosesALineAtOnce)
{
    Memory::Initialize(0, 0);
    CFileHandle const file = MakeFile([](u64, u64) -> u64 { throw CFileException("full", EFileError::Unknown); });
    CFileLogger logger(file, 0);
    WriteInfo(logger, 1, "x");
    return 0;
}

VLMCORE_CHILD(LosesTheRestOfABuffer)
{
    Memory::Initialize(0, 0);
    CFileHandle const file = MakeFile([](u64 call, u64) -> u64 { return call == 0 ? 5 : 0; });
    CFileLogger logger(file, 4096);
    WriteInfo(logger, 1, "x");
    return 0;
}

TEST(FileLoggerFailure, WhatIsLostIsReportedToTheDebugger)
{
    if (TestSupport::SystemTraits.debuggedProcessMayThrow)
        EXPECT_EQ(TestSupport::RunDebugged("LosesALineAtOnce").debuggerOutput,
                  "File logger: the file did not take 12 bytes.\n");
    EXPECT_EQ(TestSupport::RunDebugged("LosesTheRestOfABuffer").debuggerOutput,
              "File logger: the file did not take 7 bytes.\n");
}

/// Makes a logger of the buffer size on a file that logs to it in every write, directly and by way of another logger
/// and its file, and prints what the file has in the end. It is a child, as waiting for oneself has no end.
VLMCORE_CHILD(HasAFileThatLogs)
{
    Memory::Initialize(0, 0);
    u64 const bufferSize = std::stoul(TestSupport::GetChildArguments().at(0));
    CFileLogger* logger = nullptr;
    CFileHandle const otherFile = MakeFile([&](u64, u64 size) {
        WriteInfo(*logger, 8, "by way of another one");
        return size;
    });
    CFileLogger other(otherFile, 0);
    CFileHandle const file = MakeFile([&](u64, u64 size) {
        WriteInfo(*logger, 7, "from within");
        WriteInfo(other, 6, "to another one");
        if (size > 100)
            throw std::runtime_error("too long");
        WriteInfo(*logger, 9, "a line from within that is longer than the buffer");
        return size;
    });
    {
        CFileLogger written(file, bufferSize);
        logger = &written;
        WriteInfo(written, 1, "one");
        Eventually([&] { return !file->GetContent().empty(); });
        WriteInfo(written, 2, Repeat("long ", 40).c_str());
        if (bufferSize == 0)
            WriteInfo(written, 3, "three");
        TestSupport::RunConcurrently(1, [&](unsigned) { WriteInfo(written, 4, "elsewhere"); });
    }
    std::string const others = otherFile->GetContent();
    std::printf("%s%s", file->GetContent().c_str(), others.substr(0, others.find('\n') + 1).c_str());
    return 0;
}

TEST(FileLoggerFailure, AFileThatLogsToItsOwnLoggerStopsNobody)
{
    TestSupport::SChildOptions options;
    options.timeoutSeconds = 20;
    options.arguments = {"0"};
    auto const atOnce = TestSupport::RunChild("HasAFileThatLogs", options);
    EXPECT_FALSE(atOnce.timedOut);
    EXPECT_EQ(atOnce.standardOutput, "1: [Info] one\n3: [Info] three\n4: [Info] elsewhere\n6: [Info] to another one\n");
    options.arguments = {"4096"};
    auto const buffered = TestSupport::RunChild("HasAFileThatLogs", options);
    EXPECT_FALSE(buffered.timedOut);
    // The second line is lost with whatever was written together with it.
    EXPECT_THAT(buffered.standardOutput,
                testing::AnyOf("1: [Info] one\n4: [Info] elsewhere\n6: [Info] to another one\n",
                               "1: [Info] one\n6: [Info] to another one\n"));
    options.arguments = {"32"};
    auto const small = TestSupport::RunChild("HasAFileThatLogs", options);
    EXPECT_FALSE(small.timedOut);
    EXPECT_EQ(small.exitCode, 0u);
    EXPECT_THAT(small.standardOutput, testing::StartsWith("1: [Info] one\n"));
    EXPECT_THAT(small.standardOutput, testing::Not(testing::HasSubstr("within")));
}

VLMCORE_CHILD(HasAFileThatLogsOnce)
{
    Memory::Initialize(0, 0);
    CFileLogger* logger = nullptr;
    CFileHandle const file = MakeFile([&](u64, u64 size) {
        WriteInfo(*logger, 2, "from within");
        return size;
    });
    CFileLogger written(file, 0);
    logger = &written;
    WriteInfo(written, 1, "one");
    return 0;
}

TEST(FileLoggerFailure, WhatAFileLogsToItsOwnLoggerIsReportedToTheDebugger)
{
    EXPECT_EQ(TestSupport::RunDebugged("HasAFileThatLogsOnce").debuggerOutput,
              "File logger: a line that the file itself logged is dropped.\n");
}

TEST(FileLoggerFailure, AFullDiskStopsNobody)
{
    // Where there is no such device the path cannot be opened, and the logger does without a file.
    for (u64 const bufferSize : {0u, 64u, 4096u}) {
        CFileLogger logger("/dev/full", bufferSize);
        for (int line = 0; line < 200; ++line)
            WriteInfo(logger, 1, "a line that finds no room");
    }
}

} // namespace

// Standard streams and pipes as a hostile host leaves them: closed, without a reader, without room, interrupted; and
// sleeps that are.
#include "../TestHeap.h"

#include <vlmcore/exceptions.h>
#include <vlmcore/files.h>
#include <vlmcore/logging.h>
#include <vlmcore/threads.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

using namespace Velmor;

namespace {

/// Standard output leads into a pipe for the length of a scope.
class COutputPipe {
public:
    explicit COutputPipe(int flags)
    {
        std::fflush(stdout);
        m_before = ::dup(STDOUT_FILENO);
        int ends[2] = {-1, -1};
        EXPECT_EQ(::pipe2(ends, flags), 0);
        m_reader = ends[0];
        ::dup2(ends[1], STDOUT_FILENO);
        ::close(ends[1]);
    }
    COutputPipe(COutputPipe const&) = delete;
    COutputPipe& operator=(COutputPipe const&) = delete;
    ~COutputPipe()
    {
        Restore();
        CloseReader();
    }

    void Restore()
    {
        if (m_before != -1) {
            ::dup2(m_before, STDOUT_FILENO);
            ::close(std::exchange(m_before, -1));
        }
    }
    void CloseReader()
    {
        if (m_reader != -1)
            ::close(std::exchange(m_reader, -1));
    }
    /// What comes until the last writer has gone, or nothing is there for now.
    [[nodiscard]] std::string Read() const
    {
        std::string text;
        char bytes[4096];
        for (;;) {
            ssize_t const count = ::read(m_reader, bytes, sizeof bytes);
            if (count > 0)
                text.append(bytes, static_cast<std::size_t>(count));
            else if (count == 0 || errno != EINTR)
                return text;
        }
    }

private:
    int m_before = -1;
    int m_reader = -1;
};

template <class Body>
[[nodiscard]] int RunInChild(Body const& body)
{
    pid_t const child = ::fork();
    if (child == 0)
        ::_exit(body());
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

void DoNothing(int) {}

} // namespace

TEST(PosixStreams, AConsoleLoggerOutlivesItsReader)
{
    EXPECT_EQ(RunInChild([] {
                  std::signal(SIGPIPE, SIG_DFL);
                  COutputPipe output(0);
                  output.CloseReader();
                  CConsoleLogger logger;
                  logger.Write(Log::EMessage::Info, 1, "to nobody");
                  logger.Write(Log::EMessage::Info, 2, "to nobody");
                  sigset_t pending;
                  ::sigpending(&pending);
                  return ::sigismember(&pending, SIGPIPE) == 1 ? 1 : 7;
              }),
              7);
}

TEST(PosixStreams, AConsoleLoggerDropsWhatAFullPipeDoesNotTakeAndGoesOnLater)
{
    COutputPipe output(O_NONBLOCK);
    CConsoleLogger logger;
    std::string const text(1000, 'x');
    for (u64 line = 0; line < 200; ++line) // 64 KB fit
        logger.Write(Log::EMessage::Info, line, CString(text.c_str()));
    std::string const first = output.Read();
    EXPECT_GT(first.size(), 60'000u);
    EXPECT_LT(first.size(), 100'000u);
    logger.Write(Log::EMessage::Info, 7, "later");
    EXPECT_EQ(output.Read(), "7: [Info] later\n");
}

TEST(PosixStreams, SignalsCostAConsoleLoggerNoLine)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = &DoNothing; // without SA_RESTART
    ::sigaction(SIGALRM, &action, &before);
    constexpr int LineCount = 3000;
    std::string read;
    {
        COutputPipe output(0);
        sigset_t alarms;
        ::sigemptyset(&alarms);
        ::sigaddset(&alarms, SIGALRM);
        ::pthread_sigmask(SIG_BLOCK, &alarms, nullptr); // the signals go to the thread that logs
        std::thread reader([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100)); // until the pipe is full
            read = output.Read();
        });
        ::pthread_sigmask(SIG_UNBLOCK, &alarms, nullptr);
        itimerval timer = {{0, 200}, {0, 200}};
        ::setitimer(ITIMER_REAL, &timer, nullptr);
        CConsoleLogger logger;
        std::string const text(100, 'x');
        for (int line = 0; line < LineCount; ++line)
            logger.Write(Log::EMessage::Info, 5, CString(text.c_str()));
        timer = {};
        ::setitimer(ITIMER_REAL, &timer, nullptr);
        output.Restore();
        reader.join();
    }
    ::sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(read.size(), LineCount * (std::string("5: [Info] ").size() + 100 + 1));
}

TEST(PosixStreams, AFullPipeIsNotWaitedForLongerBecauseOfSignals)
{
    EXPECT_EQ(RunInChild([] {
                  static std::atomic<int> ticks{0};
                  struct sigaction action = {};
                  action.sa_handler = [](int) {
                      if (++ticks == 500) // ten seconds
                          ::_exit(8);
                  };
                  ::sigaction(SIGALRM, &action, nullptr);
                  COutputPipe output(O_NONBLOCK);
                  CConsoleLogger logger;
                  itimerval timer = {{0, 20000}, {0, 20000}};
                  ::setitimer(ITIMER_REAL, &timer, nullptr);
                  std::string const text(1000, 'x');
                  for (u64 line = 0; line < 100; ++line)
                      logger.Write(Log::EMessage::Info, line, CString(text.c_str()));
                  return 7;
              }),
              7);
}

TEST(PosixStreams, SignalsMakeNoSleepLonger)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = &DoNothing;
    ::sigaction(SIGALRM, &action, &before);
    itimerval timer = {{0, 100}, {0, 100}};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
    auto const start = std::chrono::steady_clock::now();
    Thread::Sleep(1000); // two and a half times as long, were it begun anew after each signal
    auto const slept = std::chrono::steady_clock::now() - start;
    timer = {};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
    ::sigaction(SIGALRM, &before, nullptr);
    EXPECT_GE(slept, std::chrono::milliseconds(1000));
    EXPECT_LT(slept, std::chrono::milliseconds(2000));
}

TEST(PosixStreams, AFileDoesNotTakeThePlaceOfAClosedStream)
{
    EXPECT_EQ(RunInChild([] {
                  ::close(STDIN_FILENO);
                  ::close(STDOUT_FILENO);
                  ::close(STDERR_FILENO);
                  CNativeFile file("posix_streams_tests.txt",
                                   EFileOpen::Read | EFileOpen::Write | EFileOpen::CreateAlways);
                  file.Write("kept", 4);
                  static_cast<void>(::write(STDERR_FILENO, "lost", 4));
                  for (int const stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
                      if (::fcntl(stream, F_GETFD) != -1)
                          return 1;
                  int const descriptor = static_cast<int>(reinterpret_cast<i64>(file.GetNativeHandle()));
                  if ((::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) == 0)
                      return 2;
                  return file.GetSizeByte() == 4 ? 7 : 3;
              }),
              7);
    ::unlink("posix_streams_tests.txt");
}

TEST(PosixStreams, APipeWithoutAReaderIsAnErrorAndNotTheEnd)
{
    char const* const name = "posix_streams_tests.pipe";
    ::unlink(name);
    ASSERT_EQ(::mkfifo(name, 0600), 0);
    EXPECT_EQ(RunInChild([&] {
                  std::signal(SIGPIPE, SIG_DFL);
                  int const reader = ::open(name, O_RDONLY | O_NONBLOCK);
                  CNativeFile file(name, EFileOpen::Write);
                  if (file.Write("read", 4) != 4)
                      return 1;
                  i64 const descriptor = reinterpret_cast<i64>(file.GetNativeHandle());
                  if (descriptor > 0xFFFF || ::fcntl(static_cast<int>(descriptor), F_GETFD) == -1)
                      return 3;
                  ::close(reader);
                  try {
                      return file.Write("lost", 4) == 0 ? 7 : 2;
                  }
                  catch (CFileException const&) {
                      return 7;
                  }
              }),
              7);
    ::unlink(name);
}

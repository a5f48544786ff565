// A server of a hundred sessions with three faults on purpose, recorded by the memory event log: a buffer that is
// forgotten when a session times out, objects that hold each other, and a text that is built anew for every message.
//
//   leak_hunt FOLDER [unbuffered]    writes events.json and stacks.json there; unbuffered: each event at once
#include <vlmcore/vlmcore.h>

#include <cstdio>
#include <cstring>

using namespace Velmor;

namespace {

constexpr u32 SessionCount = 100;
constexpr u64 BufferSize = 512;

// One end of a connection.
class CPeer : public CResource {
public:
    virtual ~CPeer() = default;
    // Fault: both ends retain each other, and nobody lets go.
    void Connect(TResourcePtr<CPeer> const& other) { m_other = other; }

    u8 key[232]{};

private:
    TResourcePtr<CPeer> m_other;
};

[[gnu::noinline]] TResourcePtr<CPeer> MakePeer()
{
    return MakeResource<CPeer>();
}

[[gnu::noinline]] void ConnectPeers()
{
    TResourcePtr<CPeer> const client = MakePeer();
    TResourcePtr<CPeer> const server = MakePeer();
    client->Connect(server);
    server->Connect(client);
}

class CSession {
public:
    [[gnu::noinline]] CSession() : m_buffer(Memory::Malloc(BufferSize, EHeap::Pool)) {}
    CSession(CSession const&) = delete;
    CSession& operator=(CSession const&) = delete;

    [[gnu::noinline]] u64 Answer(u32 message)
    {
        // Fault: one text for all messages would do.
        CMutableString text;
        Format(text, "Message %1 of a client that has something to say.", message);
        return text.GetLength();
    }

    [[gnu::noinline]] void Close() { Memory::Free(m_buffer); }

    // Fault: the way out that nobody tests.
    [[gnu::noinline]] void TimeOut() { m_buffer = nullptr; }

private:
    void* m_buffer;
};

[[gnu::noinline]] u64 RunSession(u32 number)
{
    CSession session;
    u64 length = 0;
    u32 const messageCount = 10 + number % 21; // 1,960 in all sessions
    for (u32 message = 0; message < messageCount; ++message)
        length += session.Answer(message);
    if (number % 10 == 0)
        ConnectPeers();
    if (number % 4 == 3)
        session.TimeOut();
    else
        session.Close();
    Thread::Sleep(2);
    return length;
}

[[gnu::noinline]] u64 RunServer()
{
    u64 length = 0;
    for (u32 number = 0; number < SessionCount; ++number)
        length += RunSession(number);
    return length;
}

} // namespace

int main(int argumentCount, char** arguments)
{
    bool const isUnbuffered = argumentCount == 3 && std::strcmp(arguments[2], "unbuffered") == 0;
    if (argumentCount != 2 && !isUnbuffered) {
        std::fputs("leak_hunt FOLDER [unbuffered]\n", stderr);
        return 2;
    }
    Memory::Initialize(0, 0);
    try {
        CMutableString events;
        CMutableString stacks;
        Format(events, "%1/events.json", arguments[1]);
        Format(stacks, "%1/stacks.json", arguments[1]);
        CFileMemoryLogger log(events, stacks, isUnbuffered ? 0 : 8192);
        Memory::InitializeLog(&log);
        u64 const length = RunServer();
        Memory::ReleaseLog();
        std::printf("%llu characters sent\n", static_cast<unsigned long long>(length));
    }
    catch (CException const& exception) {
        std::fprintf(stderr, "%s\n", static_cast<char const*>(exception.GetText().GetData()));
        return 1;
    }
}

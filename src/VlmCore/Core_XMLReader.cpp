#include <Core_XMLTokenizer.h>

#include <vlmcore/files.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

namespace Velmor {

namespace {

using EOutcome = CXMLTokenizer::EOutcome;

constexpr u64 LargestBuffer = std::numeric_limits<u32>::max(); // what ProcessData takes

// The bytes between what the stream has consumed and what the file has given.
class CWindow {
public:
    explicit CWindow(u64 capacity)
        : m_capacity(std::clamp<u64>(capacity, 1, LargestBuffer)), m_data(Allocate(m_capacity))
    {
    }
    CWindow(CWindow const&) = delete;
    CWindow& operator=(CWindow const&) = delete;
    ~CWindow() { Memory::FreeQuietly(m_data); }

    [[nodiscard]] u8* GetData() const { return m_data; }
    [[nodiscard]] u32 GetSize() const { return static_cast<u32>(m_size); }
    [[nodiscard]] u64 GetCapacity() const { return m_capacity; }

    /// Reads until the buffer is full, so that the next pass has as much new text as can be; false at the end.
    bool Fill(IFile& file)
    {
        while (m_size < m_capacity) {
            u64 const count = file.Read(m_data + m_size, m_capacity - m_size);
            if (count == 0)
                return false;
            m_size += count;
        }
        return true;
    }

    void Drop(u64 count)
    {
        m_size -= count;
        std::memmove(m_data, m_data + count, m_size);
    }

    /// Doubles the buffer; false when it cannot grow. Doubling keeps the passes over an endless token linear.
    bool Grow()
    {
        if (m_capacity == LargestBuffer)
            return false;
        u64 const capacity = std::min(m_capacity * 2, LargestBuffer);
        u8* const data = Allocate(capacity);
        std::memcpy(data, m_data, m_size);
        Memory::Free(m_data);
        m_data = data;
        m_capacity = capacity;
        return true;
    }

private:
    static u8* Allocate(u64 size)
    {
        void* const memory = Memory::Malloc(size, EHeap::General);
        if (memory == nullptr)
            throw CBadAllocation();
        return static_cast<u8*>(memory);
    }

    u64 m_capacity;
    u64 m_size = 0;
    u8* m_data;
};

[[noreturn]] void ThrowBufferTooSmall(CXMLStream const& stream, u64 byteOffset)
{
    char sentence[256];
    std::snprintf(sentence, sizeof sentence, XMLMessage::BufferTooSmall, stream.GetState());
    throw CXMLException(sentence, byteOffset);
}

// True for the states whose token may be reported in pieces, and so may end with the file.
bool IsSplittable(u32 state)
{
    return state == EXMLState::Text || (state >= EXMLState::Instruction && state <= EXMLState::CData);
}

} // namespace

CXMLException::CXMLException(char const* sentence, u64 byteOffset)
    : CException("%s At byte %llu.", sentence, static_cast<unsigned long long>(byteOffset)), m_byteOffset(byteOffset)
{
}

CXMLException::CXMLException(CXMLException const& other) = default;
CXMLException& CXMLException::operator=(CXMLException const& other) = default;
CXMLException::~CXMLException() = default;

CXMLException* CXMLException::Clone() const
{
    return Memory::New<CXMLException>(EHeap::Pool, *this);
}

SXMLReadStatistics ReadXML(IFile& file, CXMLStream& stream, u64 bufferSize)
{
    CWindow window(bufferSize);
    u64 consumed = 0;
    u64 callCount = 0;
    u64 passedByteCount = 0;
    bool more = true;
    stream.Reset();
    for (;;) {
        if (more)
            more = window.Fill(file);
        if (window.GetSize() == 0)
            break;
        CXMLTokenizer tokenizer(stream, window.GetData(), window.GetSize());
        EOutcome const outcome = tokenizer.Run();
        ++callCount;
        passedByteCount += window.GetSize();
        if (outcome == EOutcome::Malformed)
            throw CXMLException(XMLMessage::Malformed, consumed + tokenizer.GetMark() - 1);
        u32 const count = tokenizer.GetConsumed();
        window.Drop(count);
        consumed += count;
        if (count != 0)
            continue;
        if (!more)
            break;
        if (!window.Grow())
            ThrowBufferTooSmall(stream, consumed);
    }
    u64 const leftover = window.GetSize();
    if (stream.GetState() == EXMLState::BehindSelfClosing) {
        u8 end = '\n';
        stream.ProcessData(&end, 1);
    }
    if (!IsSplittable(stream.GetState()))
        ThrowBufferTooSmall(stream, consumed);
    bool const isComplete = stream.GetState() == EXMLState::Text && leftover == 0;
    return {consumed + leftover, callCount, passedByteCount, window.GetCapacity(), leftover, isComplete};
}

} // namespace Velmor

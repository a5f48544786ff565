#include <vlmcore/format.h>

#include <vlmcore/impl/Core_Encoding.h>
#include <vlmcore/memory.h>

#include "Core_NumberText.h"

#include <cstring>
#include <utility>

namespace Velmor::Impl {
namespace {

constexpr u64 SlotCount = 8;
constexpr SFormatArgument EmptySlot{SFormatArgument::Signed, EStringEncoding::UTF8, {0}, 0};

/// memcpy for the few bytes that most pieces of a message have, without a call for them.
inline u8* Append(u8* out, u8 const* from, u64 size)
{
    if (size > 32) {
        std::memcpy(out, from, size);
    }
    else if (size >= 16) {
        std::memcpy(out, from, 16);
        std::memcpy(out + size - 16, from + size - 16, 16);
    }
    else if (size >= 8) {
        std::memcpy(out, from, 8);
        std::memcpy(out + size - 8, from + size - 8, 8);
    }
    else if (size >= 4) {
        std::memcpy(out, from, 4);
        std::memcpy(out + size - 4, from + size - 4, 4);
    }
    else if (size != 0) {
        out[0] = from[0];
        out[size / 2] = from[size / 2];
        out[size - 1] = from[size - 1];
    }
    return out + size;
}

/// Memory that a conversion needs while a message is built.
class CScratch {
public:
    explicit CScratch(u64 size) : m_block(Memory::Malloc(size, EHeap::Pool))
    {
        if (m_block == nullptr)
            throw CBadAllocation();
    }
    CScratch(CScratch const&) = delete;
    CScratch& operator=(CScratch const&) = delete;
    ~CScratch() { Memory::FreeQuietly(m_block); }

    [[nodiscard]] u8* Get() const { return static_cast<u8*>(m_block); }
    [[nodiscard]] void* Detach() { return std::exchange(m_block, nullptr); }

private:
    void* m_block;
};

/// Units that a template's literal text may take over as they stand: neither a terminator nor a "%", and written by the
/// encoder as they were read.
[[nodiscard]] inline bool IsPlain(u8 unit)
{
    return unit < 0x80 && unit != '%' && unit != 0;
}
[[nodiscard]] inline bool IsPlain(u16 unit)
{
    return unit != '%' && unit != 0 && unit != 0xFFFF && !Encodings::SUTF16::OpensPair(unit);
}
[[nodiscard]] inline bool IsPlain(u32 unit)
{
    return unit != '%' && unit != 0;
}

/// One call of Format or FormatTo, for the template's encoding: TryWrite, or first Measure, then Write.
template <class Rules>
class TMessage {
public:
    using Unit = typename Rules::Unit;

    TMessage(CString const& text, SFormatArgument const* arguments, u64 count)
        : m_text(static_cast<u8 const*>(text.GetData())), m_arguments(arguments), m_count(count)
    {
        static constexpr Unit nothing = 0;
        if (m_text == nullptr)
            m_text = reinterpret_cast<u8 const*>(&nothing);
    }

    /// Writes the message with its terminator and returns its bytes in front of that, if they fit into `room`; all
    /// ones, and the start of the message written, when they do not.
    u64 TryWrite(u8* const start, u64 room)
    {
        u8* out = start;
        SPiece piece;
        for (u8 const* position = m_text; Next(position, piece);) {
            if (piece.size > room - static_cast<u64>(out - start)) [[unlikely]]
                return DoesNotFit;
            out = WritePiece(piece, out);
        }
        Encodings::Store(out, Unit{0});
        return static_cast<u64>(out - start);
    }
    static constexpr u64 DoesNotFit = ~u64{0};

    /// Bytes of the message without a terminator. Renders every argument that the template names.
    [[nodiscard]] u64 Measure()
    {
        u64 size = 0;
        for (u8 const* position = m_text;;) {
            u8 const* const start = position;
            // Made where it stays: copying what was just written in parts is what costs here.
            SPiece& piece = m_pieces[m_pieceCount];
            if (!Next(position, piece))
                return size;
            // Keeps room for the terminator; no real message comes near.
            if (piece.size > ~u64{0} - Rules::UnitSize - size) [[unlikely]]
                throw CBadAllocation();
            size += piece.size;
            if (m_pieceCount < PieceCapacity) [[likely]]
                ++m_pieceCount;
            else if (m_rest == nullptr)
                m_rest = start;
        }
    }

    /// Writes the measured message, which must fit with its terminator.
    void Write(u8* out)
    {
        for (u64 i = 0; i < m_pieceCount; ++i)
            out = WritePiece(m_pieces[i], out);
        if (m_rest != nullptr) [[unlikely]] {
            SPiece piece;
            for (u8 const* position = m_rest; Next(position, piece);)
                out = WritePiece(piece, out);
        }
        Encodings::Store(out, Unit{0});
    }

    /// Writes what fits into `room` bytes, never a part of a character, and the terminator behind it. Returns the bytes
    /// in front of the terminator.
    u64 WriteCut(u8* const start, u64 room)
    {
        u8* out = start;
        SPiece piece;
        for (u8 const* position = m_text; Next(position, piece);) {
            u64 const left = room - static_cast<u64>(out - start);
            if (piece.size > left) {
                out = WriteStartOf(piece, left, out);
                break;
            }
            out = WritePiece(piece, out);
        }
        Encodings::Store(out, Unit{0});
        return static_cast<u64>(out - start);
    }

private:
    /// A slot in one of its two forms. `text` is null for a string of another encoding that was not converted yet.
    struct SRendering {
        u8 const* text;
        u64 size;
    };

    /// What the message is put together from.
    struct SPiece {
        u8 const* text; ///< units to copy; null for the two others
        u64 size;       ///< bytes that it takes up in the message
        u32 codePoint;  ///< a character that the encoder writes; 0 when it is none
        u32 slot;       ///< a string of another encoding, in its plain form
    };

    /// The next piece of the template at `position`, which steps behind it. False at the end.
    bool Next(u8 const*& position, SPiece& piece)
    {
        u8 const* const start = position;
        u8 const* end = start;
        Unit unit;
        while (IsPlain(unit = Encodings::Load<Unit>(end)))
            end += Rules::UnitSize;
        if (end != start) {
            SetText(piece, start, static_cast<u64>(end - start));
            position = end;
            return true;
        }
        if (unit == '%') [[likely]] {
            u32 const slot = u32{Encodings::Load<Unit>(start + Rules::UnitSize)} - '1';
            if (slot < SlotCount) [[likely]] {
                position = start + 2 * Rules::UnitSize;
                SetSlot(piece, slot, false);
                return true;
            }
        }
        return unit != 0 && NextByCharacter(position, piece);
    }

    /// Next where it takes more than a glance at the units: by decoded characters.
    [[gnu::noinline]] bool NextByCharacter(u8 const*& position, SPiece& piece)
    {
        while (!Encodings::IsEnd<Rules>(position)) {
            u8 const* const start = position;
            Encodings::SCharacter read = Rules::Read(position);
            position += read.size;
            if (read.codePoint != '%') {
                // What decodes to 0 without being the terminator has no written form of its own: it stays as it is.
                if (read.codePoint == 0)
                    SetText(piece, start, read.size);
                else
                    piece = CharacterPiece(read.codePoint);
                return true;
            }
            read = Rules::Read(position);
            bool const hex = read.codePoint == 'x';
            if (hex) {
                position += read.size;
                read = Rules::Read(position);
            }
            if (Encodings::IsEnd<Rules>(position))
                return false;
            position += read.size;
            u32 const slot = read.codePoint - '1';
            if (read.codePoint == '%') {
                piece = CharacterPiece('%');
                return true;
            }
            if (slot < SlotCount) {
                SetSlot(piece, slot, hex);
                return true;
            }
            // An unknown selector is dropped; the walk goes on behind it.
        }
        return false;
    }

    static void SetText(SPiece& piece, u8 const* text, u64 size)
    {
        piece.text = text;
        piece.size = size;
        piece.codePoint = 0;
    }

    void SetSlot(SPiece& piece, u32 slot, bool hex)
    {
        SRendering const& rendering = Resolve(slot, hex);
        SetText(piece, rendering.text, rendering.size);
        piece.slot = slot;
    }

    static SPiece CharacterPiece(u32 codePoint) { return {nullptr, Rules::GetWrittenSize(codePoint), codePoint, 0}; }

    /// Writes a piece where it fits. A text of another encoding is converted in place, together with a terminator that
    /// the next piece overwrites, and copied from there when it is named again.
    u8* WritePiece(SPiece const& piece, u8* out)
    {
        if (piece.text != nullptr)
            return Append(out, piece.text, piece.size);
        if (piece.codePoint != 0)
            return Rules::Write(piece.codePoint, out);
        SRendering& rendering = m_renderings[piece.slot][0];
        if (rendering.text != nullptr)
            return Append(out, rendering.text, piece.size);
        ConvertSlot(piece.slot, out);
        rendering.text = out;
        return out + piece.size;
    }

    /// Writes the whole characters of a piece that fit into `room` bytes, which is less than the piece has.
    u8* WriteStartOf(SPiece const& piece, u64 room, u8* out) const
    {
        if (piece.codePoint != 0)
            return out;
        u8 const* const text = piece.text != nullptr ? piece.text : m_renderings[piece.slot][0].text;
        if (text != nullptr)
            return Append(out, text, CutCharacters(text, room));
        CScratch const scratch(piece.size + Rules::UnitSize);
        ConvertSlot(piece.slot, scratch.Get());
        return Append(out, scratch.Get(), CutCharacters(scratch.Get(), room));
    }

    /// The slot's rendering, made when it is first asked for.
    SRendering const& Resolve(u64 slot, bool hex)
    {
        u32 const bit = 1u << (slot * 2 + hex);
        SRendering& rendering = m_renderings[slot][hex];
        if ((m_known & bit) == 0) {
            rendering = Render(slot, hex);
            m_known |= bit;
        }
        return rendering;
    }

    SRendering Render(u64 slot, bool hex)
    {
        SFormatArgument const& argument = slot < m_count ? m_arguments[slot] : EmptySlot;
        switch (argument.kind) {
        case SFormatArgument::Signed:
            if (!hex) {
                i64 const value = static_cast<i64>(argument.number);
                return RenderNumber(slot, hex, value, NumberText::CountInteger(value), NumberText::WriteInteger);
            }
            return RenderHex(slot, argument.number);
        case SFormatArgument::Unsigned:
            if (!hex)
                return RenderNumber(slot, hex, argument.number, NumberText::CountDigits(argument.number),
                                    NumberText::WriteDigits);
            return RenderHex(slot, argument.number);
        default:
            if (argument.kind == SFormatArgument::View && argument.encoding == Rules::Encoding &&
                argument.size != SFormatArgument::UnknownSize && !hex)
                return {static_cast<u8 const*>(argument.text), argument.size};
            return WithText(argument, [&](IString const& text) {
                return hex ? RenderHex(slot, text.GetHash()) : RenderText(text);
            });
        }
    }

    SRendering RenderHex(u64 slot, u64 value)
    {
        return RenderNumber(slot, true, value, NumberText::CountHex(value), NumberText::WriteHex);
    }

    template <class Value>
    SRendering RenderNumber(u64 slot, bool hex, Value value, u32 count, void (&write)(Value, char*))
    {
        u8* const out = m_numbers[slot][hex];
        if constexpr (Rules::UnitSize == 1) {
            write(value, reinterpret_cast<char*>(out) + count);
        }
        else {
            char ascii[NumberText::IntegerCapacity];
            write(value, ascii + count);
            NumberText::Widen<Unit>(ascii, count, out);
        }
        return {out, count * Rules::UnitSize};
    }

    static SRendering RenderText(IString const& text)
    {
        // Asked first: a null string may report the size of what it held before.
        u8 const* const data = static_cast<u8 const*>(text.GetData());
        if (data == nullptr)
            return {Nothing, 0};
        if (Encodings::Normalize(text.GetEncoding()) == Rules::Encoding) {
            u64 const size = Encodings::IsEnd<Rules>(data) ? 0 : text.GetAllocatedSize() - Rules::UnitSize;
            return {data, size};
        }
        return text.IsEmpty() ? SRendering{Nothing, 0}
                              : SRendering{nullptr, text.GetAllocatedSizeAs(Rules::Encoding) - Rules::UnitSize};
    }

    template <class Action>
    static auto WithText(SFormatArgument const& argument, Action&& action)
    {
        if (argument.kind == SFormatArgument::String)
            return action(*static_cast<IString const*>(argument.text));
        return action(CString(argument.text, argument.encoding));
    }

    void ConvertSlot(u64 slot, u8* out) const
    {
        WithText(m_arguments[slot], [out](IString const& text) { text.CopyAs(Rules::Encoding, out, false); });
    }

    /// Bytes of the whole characters at the start of a piece that end within `room`, which is less than the piece has.
    static u64 CutCharacters(u8 const* piece, u64 room)
    {
        u64 size = 0;
        for (u64 next; (next = size + Rules::GetSize(piece + size)) <= room;)
            size = next;
        return size;
    }

    static constexpr u8 Nothing[1] = {0};
    /// Pieces that Measure remembers; templates with more are taken apart twice.
    static constexpr u64 PieceCapacity = 24;

    u8 const* m_text;
    SFormatArgument const* m_arguments;
    u64 m_count;
    u8 const* m_rest = nullptr; ///< where the pieces ended, if the template goes on
    u64 m_pieceCount = 0;
    SPiece m_pieces[PieceCapacity + 1];    ///< not initialised beyond m_pieceCount
    u32 m_known = 0;                       ///< bit 2 * slot + form: the entry of m_renderings is set
    SRendering m_renderings[SlotCount][2]; ///< plain, hexadecimal; not initialised, see m_known
    u8 m_numbers[SlotCount][2][NumberText::IntegerCapacity * Rules::UnitSize];
};

/// True when every byte is ASCII.
bool IsASCII(u8 const* text, u64 size)
{
    u64 seen = 0;
    if (size >= 8) {
        for (u64 position = 0; position + 8 < size; position += 8)
            seen |= Encodings::Load<u64>(text + position);
        seen |= Encodings::Load<u64>(text + size - 8);
    }
    else {
        for (u64 position = 0; position < size; ++position)
            seen |= text[position];
    }
    return (seen & 0x8080'8080'8080'8080) == 0;
}

/// Copies 16 bytes or more, in one go with the question of IsASCII.
bool CopyAndAskASCII(u8 const* from, u64 size, u8* to)
{
    u64 seen = 0;
    auto const copy = [&](u64 position) {
        u64 const low = Encodings::Load<u64>(from + position);
        u64 const high = Encodings::Load<u64>(from + position + 8);
        seen |= low | high;
        Encodings::Store(to + position, low);
        Encodings::Store(to + position + 8, high);
    };
    for (u64 position = 0; position + 16 < size; position += 16)
        copy(position);
    copy(size - 16);
    return (seen & 0x8080'8080'8080'8080) == 0;
}

} // namespace

/// Puts a finished message into its string.
class CFormatter {
public:
    static constexpr u64 ShortMessageSize = 256;

    template <class Rules>
    static void Format(CMutableString& result, CString const& text, SFormatArgument const* arguments, u64 count)
    {
        TMessage<Rules> message(text, arguments, count);
        // Most messages are short: put together here, and copied, they are taken apart once.
        u8 shortMessage[ShortMessageSize];
        u64 size = message.TryWrite(shortMessage, ShortMessageSize - Rules::UnitSize);
        bool const isShort = size != message.DoesNotFit;
        if (!isShort)
            size = message.Measure();
        EStringEncoding::Type const encoding = text.GetEncoding();
        CScratch buffer(size + Rules::UnitSize);
        bool isASCII = false;
        if (Rules::UnitSize == 1 && isShort && size >= 16) {
            // The terminator, which is copied with the text, is ASCII, too.
            isASCII = CopyAndAskASCII(shortMessage, size + 1, buffer.Get());
        }
        else {
            if (isShort)
                std::memcpy(buffer.Get(), shortMessage, size + Rules::UnitSize);
            else
                message.Write(buffer.Get());
            isASCII = Rules::UnitSize == 1 && IsASCII(buffer.Get(), size);
        }
        u64 const length = isASCII ? size : CString(buffer.Get(), encoding).GetLength();
        // The old text goes last: the template or an argument may be part of it.
        if (void const* const old = std::exchange(result.m_data, buffer.Detach()))
            Memory::Free(const_cast<void*>(old));
        result.m_encoding = encoding;
        result.m_length = length;
        result.m_allocatedSize = size + Rules::UnitSize;
    }
};

void FormatArguments(CMutableString& result, CString const& text, SFormatArgument const* arguments, u64 count)
{
    Encodings::Dispatch(text.GetEncoding(),
                        [&](auto rules) { CFormatter::Format<decltype(rules)>(result, text, arguments, count); });
}

SFormatResult FormatArgumentsTo(void* buffer, u64 bufferSize, CString const& text, SFormatArgument const* arguments,
                                u64 count)
{
    return Encodings::Dispatch(text.GetEncoding(), [&](auto rules) -> SFormatResult {
        using Rules = decltype(rules);
        TMessage<Rules> message(text, arguments, count);
        if (buffer == nullptr || bufferSize < Rules::UnitSize)
            return {0, message.Measure()};
        u64 const room = bufferSize - Rules::UnitSize;
        if (u64 const size = message.TryWrite(static_cast<u8*>(buffer), room); size != message.DoesNotFit) [[likely]]
            return {size, size};
        u64 const needed = message.Measure();
        return {message.WriteCut(static_cast<u8*>(buffer), room), needed};
    });
}

} // namespace Velmor::Impl

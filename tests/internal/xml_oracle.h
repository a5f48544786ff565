// A plain, slow XML tokenizer over std::string, written from the documented rules of CXMLStream and sharing no code
// with it. Tests and the fuzz target hold the stream's callbacks, results and exceptions against it.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Velmor::Test {

/// One callback: which, and the strings as a host sees them (up to their first NUL).
struct SXMLEvent {
    enum EKind { ElementBegin, ElementEnd, Attribute, Text, Declaration, Instruction, Comment };
    EKind kind;
    bool none = false; // a null pointer was passed
    std::string text{};
    std::string value{}; // of an attribute
    friend bool operator==(SXMLEvent const&, SXMLEvent const&) = default;
};

/// Which callbacks are set, as bits 1 << kind.
inline constexpr unsigned AllXMLCallbacks = 0x7F;

class CXMLOracle {
public:
    explicit CXMLOracle(unsigned callbacks = AllXMLCallbacks) : m_callbacks(callbacks) {}

    std::vector<SXMLEvent> events;

    [[nodiscard]] int GetState() const { return m_state; }

    /// What CXMLStream::ProcessData does with this input: callbacks go to `events`, the result is the consumed count,
    /// an exception is a std::runtime_error of the same text.
    std::size_t ProcessData(std::string_view input)
    {
        m_input = input;
        m_mark = m_committed = 0;
        std::size_t offset = 0;
        std::vector<std::size_t> counters(5), since(5);
        while (offset < input.size() && m_state != 13) {
            std::size_t const stride = Stride(input[offset]);
            if (offset + stride > input.size())
                break;
            char32_t const c = Decode(input.substr(offset, stride));
            bool won = false;
            std::vector<SRule> const& rules = Rules()[static_cast<std::size_t>(m_state)];
            for (std::size_t i = 0; i < rules.size() && !won; ++i) {
                std::string_view const pattern = rules[i].pattern;
                if (pattern.empty()) { // swallows a whole character
                    Transition(offset + stride, offset + stride, rules[i].next);
                    offset += stride;
                    won = true;
                    break;
                }
                if (!Matches(pattern[counters[i]], c)) {
                    counters[i] = 0;
                    continue;
                }
                if (counters[i] == 0)
                    since[i] = offset;
                if (++counters[i] < pattern.size())
                    continue;
                won = true;
                bool const nameFollows = pattern.back() == '*';
                std::size_t const end = offset + 1 - (nameFollows ? 1 : 0);
                Transition(offset + 1 - pattern.size(), end, rules[i].next);
                if (!nameFollows)
                    offset += stride;
            }
            if (won)
                counters.assign(5, 0);
            else
                offset += stride;
        }
        // What a later call must see whole: the characters of a running match, or a character that is cut off.
        std::size_t held = offset;
        for (std::size_t i = 0; i < 5; ++i)
            if (counters[i] != 0 && since[i] < held)
                held = since[i];
        return Finish(held);
    }

private:
    struct SRule {
        std::string_view pattern;
        int next;
    };

    static std::vector<std::vector<SRule>> const& Rules()
    {
        static std::vector<std::vector<SRule>> const rules = {
            {{"<?", 2}, {"<!", 1}, {"<*", 5}, {"</", 6}}, // 0
            {{"--", 3}, {"[CDATA[", 4}, {">", 0}},        // 1
            {{"?>", 0}},                                  // 2
            {{"-->", 0}},                                 // 3
            {{"]]>", 0}},                                 // 4
            {{" ", 8}, {"/>", 12}, {">", 0}},             // 5
            {{" ", 7}, {">", 0}},                         // 6
            {{">", 0}},                                   // 7
            {{"*", 9}, {"/>", 12}, {">", 0}},             // 8
            {{" ", 10}, {"=", 10}, {">", 13}},            // 9
            {{"\"", 11}, {"'", 11}, {">", 13}},           // 10
            {{"\"", 8}, {"'", 8}, {">", 13}},             // 11
            {{"", 0}},                                    // 12
            {},                                           // 13
        };
        return rules;
    }

    static std::size_t Stride(char lead)
    {
        switch (static_cast<unsigned char>(lead) >> 4) {
        case 12:
        case 13:
            return 2;
        case 14:
            return 3;
        case 15:
            return 4;
        default:
            return 1;
        }
    }

    static char32_t Decode(std::string_view character)
    {
        unsigned char const lead = static_cast<unsigned char>(character[0]);
        if (character.size() == 1)
            return lead < 0x80 ? lead : 0;
        char32_t c = lead & (character.size() == 2 ? 0x1Fu : 0x0Fu);
        for (char next : character.substr(1))
            c = c * 64 + (static_cast<unsigned char>(next) & 0x3Fu);
        return c;
    }

    static bool IsSpace(char32_t c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

    static bool IsName(char32_t c)
    {
        auto const in = [c](char32_t low, char32_t high) { return low <= c && c <= high; };
        return c == ':' || in('A', 'Z') || c == '_' || in('a', 'z') || in(0xC0, 0xD6) || in(0xD8, 0xF6) ||
               in(0xF8, 0x2FF) || in(0x370, 0x37D) || in(0x37F, 0x1FFF) || in(0x200C, 0x200D) || in(0x2070, 0x218F) ||
               in(0x2C00, 0x2FEF) || in(0x3001, 0xD7FF) || in(0xF900, 0xFDCF) || in(0xFDF0, 0xFFFD) ||
               in(0x10000, 0xEFFFF);
    }

    static bool Matches(char pattern, char32_t c)
    {
        return pattern == ' ' ? IsSpace(c) : pattern == '*' ? IsName(c) : c == static_cast<unsigned char>(pattern);
    }

    [[nodiscard]] bool Has(SXMLEvent::EKind kind) const { return (m_callbacks >> kind & 1) != 0; }

    void Emit(SXMLEvent::EKind kind, std::string_view text, std::string_view value = {})
    {
        if (Has(kind))
            events.push_back({kind, false, std::string(text.substr(0, text.find('\0'))),
                              std::string(value.substr(0, value.find('\0')))});
    }

    void EmitNone(SXMLEvent::EKind kind)
    {
        if (Has(kind))
            events.push_back({kind, true});
    }

    static std::string Trim(std::string_view text)
    {
        while (!text.empty() && IsSpace(static_cast<unsigned char>(text.front())))
            text.remove_prefix(1);
        while (!text.empty() && IsSpace(static_cast<unsigned char>(text.back())))
            text.remove_suffix(1);
        return std::string(text);
    }

    static std::string Encode(std::uint32_t c)
    {
        auto const byte = [](std::uint32_t value) { return static_cast<char>(static_cast<unsigned char>(value)); };
        std::string tail{byte(0x80 + c % 64)};
        if (c < 0x80)
            return {byte(c)};
        if (c < 0x800)
            return byte(0xC0 + c / 64) + tail;
        tail = byte(0x80 + c / 64 % 64) + tail;
        if (c < 0x40000)
            return byte(0xE0 + c / 4096 % 16) + tail;
        return byte(0xE0) + (byte(0xE0 | (c / 4096 % 256)) + tail);
    }

    /// What a reference of that name gives.
    static std::string Entity(std::string_view name)
    {
        if (name == "amp")
            return "&";
        if (name == "lt")
            return "<";
        if (name == "gt")
            return ">";
        if (name == "apos")
            return "'";
        if (name == "quot")
            return "\"";
        if (name.empty() || name[0] != '#')
            return "";
        // Numbers as the strings read them: "-" and leading zeros are skipped, "x" before any value turns to
        // hexadecimal, anything else ends the number; overflow wraps.
        std::uint64_t number = 0;
        bool hexadecimal = false;
        for (std::size_t i = 1; i < name.size() && i + Stride(name[i]) <= name.size(); i += Stride(name[i])) {
            char32_t const c = Decode(name.substr(i, Stride(name[i])));
            bool const digit = c >= '0' && c <= '9';
            bool const letter = (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
            if (hexadecimal && (digit || letter))
                number = number * 16 + (digit ? c - '0' : (c | 0x20) - 'a' + 10);
            else if (!hexadecimal && digit)
                number = number * 10 + (c - '0');
            else if (!hexadecimal && number == 0 && c == 'x')
                hexadecimal = true;
            else if (hexadecimal || number != 0 || c != '-')
                break;
        }
        std::uint32_t const codePoint = static_cast<std::uint32_t>(number);
        return codePoint == 0 ? "" : Encode(codePoint);
    }

    static std::size_t CountCharacters(std::string_view text)
    {
        std::size_t count = 0;
        for (std::size_t i = 0; i < text.size(); i += Stride(text[i]))
            ++count;
        return count;
    }

    /// Text with its references replaced. `open` says that the text begins, and is set when it ends, inside a reference
    /// that is too long; `held` is how many bytes at the end of a partial text may still become a reference.
    static std::string Replace(std::string_view text, bool partial, bool& open, std::size_t& held)
    {
        std::string result;
        std::size_t i = 0;
        held = 0;
        if (open) {
            i = text.find(';');
            if (i == std::string_view::npos)
                return result;
            open = false;
            ++i;
        }
        for (; i < text.size(); ++i) {
            if (text[i] != '&') {
                result += text[i];
                continue;
            }
            std::size_t const semicolon = text.find(';', i);
            std::string_view const name =
                text.substr(i + 1, semicolon == std::string_view::npos ? semicolon : semicolon - i - 1);
            bool const tooLong = CountCharacters(name) >= 16;
            if (semicolon == std::string_view::npos) {
                open = partial && tooLong;
                held = partial && !tooLong ? text.size() - i : 0;
                return result;
            }
            if (!tooLong)
                result += Entity(name);
            i = semicolon;
        }
        return result;
    }

    void Transition(std::size_t begin, std::size_t end, int next)
    {
        std::string_view const raw = begin > m_mark ? m_input.substr(m_mark, begin - m_mark) : std::string_view();
        std::string const token = Trim(raw);
        std::size_t held = 0;
        bool noOpen = false;
        switch (m_state) {
        case 0: {
            std::string const text = Has(SXMLEvent::Text) ? Replace(token, false, m_open, held) : "";
            m_open = false;
            if (text.empty())
                EmitNone(SXMLEvent::Text);
            else
                Emit(SXMLEvent::Text, text);
            break;
        }
        case 1:
            if (next == 0)
                Emit(SXMLEvent::Declaration, token);
            break;
        case 2:
            Emit(SXMLEvent::Instruction, token);
            break;
        case 3:
            Emit(SXMLEvent::Comment, token);
            break;
        case 4:
            Emit(SXMLEvent::Text, token);
            break;
        case 5:
            Emit(SXMLEvent::ElementBegin, token);
            break;
        case 6:
            Emit(SXMLEvent::ElementEnd, token);
            break;
        case 9:
            m_name = token;
            break;
        case 11:
            Emit(SXMLEvent::Attribute, m_name, Replace(token, false, noOpen, held));
            break;
        case 12:
            EmitNone(SXMLEvent::ElementEnd);
            break;
        default:
            break;
        }
        if (next == 12)
            EmitNone(SXMLEvent::Text);
        m_mark = end;
        if (m_state != 9 && m_state != 10)
            m_committed = end;
        m_state = next;
        if (next == 13)
            throw std::runtime_error("src/VlmCore/Core_XMLStream.cpp(631): XML parser error (malformed XML).");
    }

    /// A partial text: one piece when a consumed byte is free for the terminator, else with its end from the scratch of
    /// 64 bytes, not cut inside a character.
    void EmitPartial(SXMLEvent::EKind kind, std::string_view text, std::size_t consumed)
    {
        m_committed = consumed;
        if (consumed == 0)
            return;
        if (text.empty()) {
            EmitNone(kind);
            return;
        }
        std::size_t cut = 0;
        if (text.size() == consumed && text.size() > 63) {
            cut = text.size() - 63;
            for (int i = 0; i < 3 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80; ++i)
                ++cut;
            Emit(kind, text.substr(0, cut));
        }
        Emit(kind, text.substr(cut));
    }

    std::size_t Finish(std::size_t held)
    {
        if (m_committed != m_mark) {
            m_state = 9;
            return m_committed;
        }
        if (m_committed != 0)
            return m_committed;
        std::string_view const rest = m_input.substr(0, held);
        SXMLEvent::EKind const kind = m_state == 2   ? SXMLEvent::Instruction
                                      : m_state == 3 ? SXMLEvent::Comment
                                                     : SXMLEvent::Text;
        if (m_state == 0 && Has(kind)) {
            std::size_t heldReference = 0;
            std::string const text = Replace(rest, true, m_open, heldReference);
            EmitPartial(kind, text, rest.size() - heldReference);
        }
        else if (m_state == 0 || m_state == 2 || m_state == 3 || m_state == 4) {
            if (Has(kind))
                EmitPartial(kind, rest, rest.size());
            m_committed = rest.size();
        }
        else {
            char const digit = "0123456789abcd"[m_state];
            throw std::runtime_error(
                std::string("src/VlmCore/Core_XMLStream.cpp(496): XML Read buffer is too small. Data of "
                            "state 0x") +
                digit + " is not splittable.");
        }
        return m_committed;
    }

    unsigned m_callbacks;
    int m_state = 0;
    bool m_open = false;
    std::string m_name;
    std::string_view m_input;
    std::size_t m_mark = 0;
    std::size_t m_committed = 0;
};

} // namespace Velmor::Test

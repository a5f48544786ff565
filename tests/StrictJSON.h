/// \file
/// A small strict JSON reader for tests: refuses whatever the grammar of RFC 8259 refuses, strings that are not valid
/// UTF-8 included.
#pragma once

#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace VlmTest {

/// One JSON value. Numbers keep their text, so that 64-bit integers lose nothing.
struct SJSONValue {
    enum class EKind { Null, Boolean, Number, String, Array, Object };

    EKind kind = EKind::Null;
    std::string text; ///< of a string, decoded, or a number; "true" or "false"
    std::vector<SJSONValue> items;
    std::map<std::string, SJSONValue> members;

    [[nodiscard]] SJSONValue const& operator[](std::string const& name) const { return members.at(name); }
    [[nodiscard]] unsigned long long GetNumber() const
    {
        if (kind != EKind::Number)
            throw std::runtime_error("not a number");
        return std::strtoull(text.c_str(), nullptr, 10);
    }
};

class CStrictJSON {
public:
    /// The document, or std::runtime_error with the offset of the first error.
    [[nodiscard]] static SJSONValue Parse(std::string_view text)
    {
        CStrictJSON parser(text);
        SJSONValue value = parser.ReadValue();
        parser.SkipBlanks();
        if (parser.m_position != text.size())
            parser.Fail("something follows the document");
        return value;
    }

private:
    explicit CStrictJSON(std::string_view text) : m_text(text) {}

    [[noreturn]] void Fail(std::string const& what) const
    {
        throw std::runtime_error(what + " at offset " + std::to_string(m_position));
    }

    [[nodiscard]] char Peek() const { return m_position < m_text.size() ? m_text[m_position] : '\0'; }

    void SkipBlanks()
    {
        while (m_position < m_text.size() && std::string_view(" \t\r\n").find(Peek()) != std::string_view::npos)
            ++m_position;
    }

    void Expect(char character)
    {
        if (m_position >= m_text.size() || m_text[m_position] != character)
            Fail(std::string("expected ") + character);
        ++m_position;
    }

    [[nodiscard]] bool Accept(char character)
    {
        if (Peek() != character || m_position >= m_text.size())
            return false;
        ++m_position;
        return true;
    }

    [[nodiscard]] SJSONValue ReadValue()
    {
        SkipBlanks();
        SJSONValue value;
        switch (Peek()) {
        case '{':
            ReadObject(value);
            break;
        case '[':
            ReadArray(value);
            break;
        case '"':
            value.kind = SJSONValue::EKind::String;
            value.text = ReadString();
            break;
        case 't':
            ReadWord(value, SJSONValue::EKind::Boolean, "true");
            break;
        case 'f':
            ReadWord(value, SJSONValue::EKind::Boolean, "false");
            break;
        case 'n':
            ReadWord(value, SJSONValue::EKind::Null, "null");
            break;
        default:
            ReadNumber(value);
        }
        return value;
    }

    void ReadWord(SJSONValue& value, SJSONValue::EKind kind, std::string_view word)
    {
        if (m_text.substr(m_position, word.size()) != word)
            Fail("unknown word");
        m_position += word.size();
        value.kind = kind;
        value.text = word;
    }

    void ReadDigits()
    {
        if (Peek() < '0' || Peek() > '9')
            Fail("expected a digit");
        while (Peek() >= '0' && Peek() <= '9')
            ++m_position;
    }

    void ReadNumber(SJSONValue& value)
    {
        std::size_t const start = m_position;
        static_cast<void>(Accept('-'));
        if (!Accept('0'))
            ReadDigits();
        if (Accept('.'))
            ReadDigits();
        if (Accept('e') || Accept('E')) {
            if (!Accept('+'))
                static_cast<void>(Accept('-'));
            ReadDigits();
        }
        value.kind = SJSONValue::EKind::Number;
        value.text = m_text.substr(start, m_position - start);
    }

    void ReadArray(SJSONValue& value)
    {
        value.kind = SJSONValue::EKind::Array;
        Expect('[');
        SkipBlanks();
        if (Accept(']'))
            return;
        do {
            value.items.push_back(ReadValue());
            SkipBlanks();
        } while (Accept(','));
        Expect(']');
    }

    void ReadObject(SJSONValue& value)
    {
        value.kind = SJSONValue::EKind::Object;
        Expect('{');
        SkipBlanks();
        if (Accept('}'))
            return;
        do {
            SkipBlanks();
            std::string const name = ReadString();
            SkipBlanks();
            Expect(':');
            if (!value.members.emplace(name, ReadValue()).second)
                Fail("a name comes twice");
            SkipBlanks();
        } while (Accept(','));
        Expect('}');
    }

    [[nodiscard]] std::string ReadString()
    {
        Expect('"');
        std::string text;
        while (!Accept('"')) {
            unsigned char const first = static_cast<unsigned char>(Peek());
            if (m_position >= m_text.size())
                Fail("unfinished string");
            if (first < 0x20)
                Fail("bare control character");
            if (first == '\\')
                text += ReadEscape();
            else
                text += ReadCharacter(first);
        }
        return text;
    }

    [[nodiscard]] std::string ReadCharacter(unsigned char first)
    {
        std::size_t const size = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
        if (size == 0 || first > 0xF4 || m_position + size > m_text.size())
            Fail("stray byte");
        std::string const character(m_text.substr(m_position, size));
        for (std::size_t index = 1; index < size; ++index) {
            if ((static_cast<unsigned char>(character[index]) & 0xC0) != 0x80)
                Fail("stray byte");
        }
        m_position += size;
        return character;
    }

    /// Code points up to U+07FF are all that the library escapes.
    [[nodiscard]] std::string ReadEscape()
    {
        Expect('\\');
        char const kind = Peek();
        ++m_position;
        std::string_view const names = "\"\\/bfnrt";
        std::size_t const index = names.find(kind);
        if (kind != '\0' && index != std::string_view::npos)
            return std::string(1, "\"\\/\b\f\n\r\t"[index]);
        if (kind != 'u')
            Fail("unknown escape");
        unsigned code = 0;
        for (int digit = 0; digit < 4; ++digit, ++m_position) {
            std::size_t const value = std::string_view("0123456789ABCDEFabcdef").find(Peek());
            if (m_position >= m_text.size() || value == std::string_view::npos)
                Fail("expected a hexadecimal digit");
            code = code * 16 + static_cast<unsigned>(value < 16 ? value : value - 6);
        }
        if (code > 0x7FF)
            Fail("escape beyond what this reader knows");
        if (code < 0x80)
            return std::string(1, static_cast<char>(code));
        return {static_cast<char>(0xC0 | (code >> 6)), static_cast<char>(0x80 | (code & 0x3F))};
    }

    std::string_view m_text;
    std::size_t m_position = 0;
};

} // namespace VlmTest

#include "Evaluator.h"

#include <cstring>

using namespace Velmor;

namespace {

bool IsDigit(char unit)
{
    return unit >= '0' && unit <= '9';
}

// Every byte of a character beyond ASCII counts as a letter.
bool IsLetter(char unit)
{
    return (unit >= 'a' && unit <= 'z') || (unit >= 'A' && unit <= 'Z') || unit == '_' || static_cast<u8>(unit) >= 0x80;
}

bool IsBlank(char unit)
{
    return unit == ' ' || unit == '\t' || unit == '\r' || unit == '\n';
}

// Ids are made of all of a name: a storage's own, from the name's GetHash, see only the beginning of one beyond ASCII.
u32 GetVariableId(CMutableString const& name)
{
    constexpr u32 Basis = 0x811C9DC5;
    return GetFNV32(name.GetData(), name.GetAllocatedSize() - 1, 0, Basis);
}

// A binary operator and how tightly it binds. Where one text begins with another, the longer comes first.
struct SOperator {
    char const* text;
    int precedence;
    CWeakType (*apply)(CWeakType const&, CWeakType const&);
};

constexpr SOperator Operators[] = {
    {"==", 4, [](CWeakType const& a, CWeakType const& b) { return CWeakType(a == b); }},
    {"!=", 4, [](CWeakType const& a, CWeakType const& b) { return CWeakType(a != b); }},
    {"<<", 6, [](CWeakType const& a, CWeakType const& b) { return a << b; }},
    {">>", 6, [](CWeakType const& a, CWeakType const& b) { return a >> b; }},
    {"<=", 5, [](CWeakType const& a, CWeakType const& b) { return CWeakType(a <= b); }},
    {">=", 5, [](CWeakType const& a, CWeakType const& b) { return CWeakType(a >= b); }},
    {"<", 5, [](CWeakType const& a, CWeakType const& b) { return CWeakType(a < b); }},
    {">", 5, [](CWeakType const& a, CWeakType const& b) { return CWeakType(a > b); }},
    {"|", 1, [](CWeakType const& a, CWeakType const& b) { return a | b; }},
    {"^", 2, [](CWeakType const& a, CWeakType const& b) { return a ^ b; }},
    {"&", 3, [](CWeakType const& a, CWeakType const& b) { return a & b; }},
    {"+", 7, [](CWeakType const& a, CWeakType const& b) { return a + b; }},
    {"-", 7, [](CWeakType const& a, CWeakType const& b) { return a - b; }},
    {"*", 8, [](CWeakType const& a, CWeakType const& b) { return a * b; }},
    {"/", 8, [](CWeakType const& a, CWeakType const& b) { return a / b; }},
    {"%", 8, [](CWeakType const& a, CWeakType const& b) { return a % b; }},
};
constexpr int LowestPrecedence = 1;

} // namespace

// A recursive descent over one line.
class CEvaluator::CReader {
public:
    CReader(char const* line, CWeakTypeMap& variables) : m_line(line), m_at(line), m_variables(variables) {}

    CWeakType ReadAll()
    {
        CWeakType value = ReadStatement();
        SkipBlanks();
        if (*m_at != 0)
            Fail("an operator or the end is missing");
        return value;
    }

private:
    // Deeper nesting than a person writes is refused before the stack ends.
    class CNesting {
    public:
        explicit CNesting(CReader& reader) : m_reader(reader)
        {
            constexpr int DeepestNesting = 200;
            if (++m_reader.m_depth > DeepestNesting) {
                --m_reader.m_depth;
                m_reader.Fail("this is nested too deeply");
            }
        }
        CNesting(CNesting const&) = delete;
        CNesting& operator=(CNesting const&) = delete;
        ~CNesting() { --m_reader.m_depth; }

    private:
        CReader& m_reader;
    };

    [[noreturn]] void Fail(char const* what) const
    {
        throw CException("Column %u: %s.", static_cast<unsigned>(m_at - m_line) + 1, what);
    }

    void SkipBlanks()
    {
        while (IsBlank(*m_at))
            ++m_at;
    }

    bool Accept(char const* text)
    {
        SkipBlanks();
        u64 const size = std::strlen(text);
        if (std::strncmp(m_at, text, size) != 0)
            return false;
        m_at += size;
        return true;
    }

    // A name as a text of its own; empty when there is none here.
    CMutableString ReadName()
    {
        SkipBlanks();
        char const* const start = m_at;
        if (IsLetter(*m_at)) {
            while (IsLetter(*m_at) || IsDigit(*m_at))
                ++m_at;
        }
        return CopyText(start, m_at);
    }

    static CMutableString CopyText(char const* start, char const* end)
    {
        TVector<char> text;
        text.Resize(static_cast<u64>(end - start) + 1);
        if (start != end)
            std::memcpy(text.GetData(), start, static_cast<u64>(end - start));
        return CString(text.GetData());
    }

    CWeakType ReadStatement()
    {
        CNesting const nesting(*this);
        char const* const start = m_at;
        CMutableString const name = ReadName();
        if (!name.IsEmpty() && Accept("=") && *m_at != '=') {
            CWeakType value = ReadStatement();
            m_variables[GetVariableId(name)] = value;
            return value;
        }
        m_at = start;
        return ReadBinary(LowestPrecedence);
    }

    SOperator const* PeekOperator()
    {
        SkipBlanks();
        for (SOperator const& candidate : Operators) {
            if (std::strncmp(m_at, candidate.text, std::strlen(candidate.text)) == 0)
                return &candidate;
        }
        return nullptr;
    }

    CWeakType ReadBinary(int precedence)
    {
        CWeakType left = ReadUnary();
        for (SOperator const* found = PeekOperator(); found != nullptr && found->precedence >= precedence;
             found = PeekOperator()) {
            m_at += std::strlen(found->text);
            CWeakType const right = ReadBinary(found->precedence + 1);
            left = found->apply(left, right);
        }
        return left;
    }

    CWeakType ReadUnary()
    {
        CNesting const nesting(*this);
        if (Accept("++"))
            return ++ReadVariable();
        if (Accept("--"))
            return --ReadVariable();
        if (Accept("!"))
            return !ReadUnary();
        if (Accept("~"))
            return ~ReadUnary();
        if (Accept("-"))
            return -ReadUnary();
        return ReadValue();
    }

    CWeakType& ReadVariable()
    {
        CMutableString const name = ReadName();
        if (name.IsEmpty())
            Fail("a name is missing");
        return m_variables[GetVariableId(name)];
    }

    CWeakType ReadValue()
    {
        SkipBlanks();
        if (IsDigit(*m_at))
            return ReadNumber();
        if (*m_at == '"')
            return ReadText();
        if (Accept("(")) {
            CWeakType value = ReadStatement();
            if (!Accept(")"))
                Fail("a closing parenthesis is missing");
            return value;
        }
        CMutableString const name = ReadName();
        if (name.IsEmpty())
            Fail("a value is missing");
        if (name == "true" || name == "false")
            return CWeakType(name == "true");
        if (name == "nothing")
            return CWeakType();
        if (name == "ref")
            return CWeakType::MakeReference(ReadVariable());
        return m_variables[GetVariableId(name)];
    }

    CWeakType ReadNumber()
    {
        char const* const start = m_at;
        bool isFloat = false;
        while (IsLetter(*m_at) || IsDigit(*m_at) || *m_at == '.')
            isFloat |= *m_at++ == '.';
        CWeakType const text(CString(CopyText(start, m_at)));
        return isFloat ? CWeakType(text.AsFloat()) : CWeakType(text.AsInteger());
    }

    CWeakType ReadText()
    {
        char const* const start = ++m_at;
        while (*m_at != '"') {
            if (*m_at == 0)
                Fail("a closing quote is missing");
            ++m_at;
        }
        return CWeakType(CString(CopyText(start, m_at++)));
    }

    char const* m_line;
    char const* m_at;
    CWeakTypeMap& m_variables;
    int m_depth = 0;
};

CWeakType CEvaluator::Evaluate(char const* line)
{
    return CReader(line, m_variables).ReadAll();
}

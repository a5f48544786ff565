// Expressions over weak types.
#pragma once

#include <vlmcore/vlmcore.h>

// Reads one expression after the other and keeps their variables.
//
//   statement:  NAME = statement | expression
//   expression: the operators of the language C, with its precedences, over
//   value:      12  0x1F  2.5  "text"  true  false  nothing  NAME  ref NAME  (expression)  ++NAME  --NAME
//
// A variable that was never set is Invalid: it takes part as the zero of the other operand's type.
class CEvaluator {
public:
    // Gives the value of a line of UTF-8. Throws CException: for what cannot be read, with the column; for operands
    // that strict mode refuses, in the library's words.
    Velmor::CWeakType Evaluate(char const* line);

    [[nodiscard]] Velmor::u64 CountVariables() const { return m_variables.GetCount(); }

private:
    class CReader;

    Velmor::CWeakTypeMap m_variables; // by the hashes of their names
};

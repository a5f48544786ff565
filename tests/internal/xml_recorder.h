// Records what a CXMLStream reports, in the form of the oracle's events.
#pragma once

#include "xml_oracle.h"

#include <vlmcore/xml_stream.h>

#include <cstring>
#include <ostream>
#include <string>
#include <vector>

namespace Velmor::Test {

/// A stream with recording callbacks.
class CXMLRecorder {
public:
    explicit CXMLRecorder(unsigned callbacks = AllXMLCallbacks)
    {
        auto const set = [&](SXMLEvent::EKind kind, auto& delegate) {
            if ((callbacks >> kind & 1) != 0)
                delegate = [this, kind](auto const& text) { this->Record(kind, text); };
        };
        set(SXMLEvent::ElementBegin, stream.OnElementBegin);
        set(SXMLEvent::ElementEnd, stream.OnElementEnd);
        set(SXMLEvent::Attribute, stream.OnAttribute);
        set(SXMLEvent::Text, stream.OnText);
        set(SXMLEvent::Declaration, stream.OnDeclaration);
        set(SXMLEvent::Instruction, stream.OnProcessingInstruction);
        set(SXMLEvent::Comment, stream.OnComment);
    }
    CXMLRecorder(CXMLRecorder const&) = delete;
    CXMLRecorder& operator=(CXMLRecorder const&) = delete;

    CXMLStream stream;
    std::vector<SXMLEvent> events;

private:
    static std::string ToString(CString const& text) { return static_cast<char const*>(text.GetData()); }

    void Record(SXMLEvent::EKind kind, CString const& text) { events.push_back({kind, false, ToString(text)}); }
    void Record(SXMLEvent::EKind kind, CString const* text)
    {
        events.push_back({kind, text == nullptr, text != nullptr ? ToString(*text) : ""});
    }
    void Record(SXMLEvent::EKind kind, TPair<CString, CString> const& attribute)
    {
        events.push_back({kind, false, ToString(attribute.first), ToString(attribute.second)});
    }
};

/// An event as a line: "begin a", "attribute x=1", "text none", "end a", ...
inline std::string ToLine(SXMLEvent const& event)
{
    static char const* const names[] = {"begin", "end", "attribute", "text", "declaration", "instruction", "comment"};
    std::string line = names[event.kind];
    if (event.none)
        return line + " none";
    line += ' ' + event.text;
    return event.kind == SXMLEvent::Attribute ? line + '=' + event.value : line;
}

inline std::vector<std::string> ToLines(std::vector<SXMLEvent> const& events)
{
    std::vector<std::string> lines;
    for (SXMLEvent const& event : events)
        lines.push_back(ToLine(event));
    return lines;
}

inline void PrintTo(SXMLEvent const& event, std::ostream* out)
{
    *out << ToLine(event);
}

} // namespace Velmor::Test

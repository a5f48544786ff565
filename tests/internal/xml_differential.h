// Runs a CXMLStream and the oracle side by side over the same buffers and says where they differ.
#pragma once

#include "xml_oracle.h"
#include "xml_recorder.h"

#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

namespace Velmor::Test {

class CXMLDifferential {
public:
    explicit CXMLDifferential(unsigned callbacks = AllXMLCallbacks) : m_recorder(callbacks), m_oracle(callbacks) {}

    /// Feeds the input in chunks: each call sees what the call before left over and the next chunk. `nextChunk` gives
    /// the size of a chunk, at least 1. Returns the first difference, or nothing. Stops at "malformed".
    template <class NextChunk>
    std::optional<std::string> Feed(std::string_view input, NextChunk nextChunk)
    {
        std::size_t begin = 0;
        std::size_t end = 0;
        while (end < input.size()) {
            end += std::min<std::size_t>(nextChunk(), input.size() - end);
            if (auto difference = Call(input.substr(begin, end - begin)))
                return difference;
            begin += m_consumed;
            if (m_recorder.stream.GetState() == 13)
                return Call(input.substr(begin));
        }
        // What a host does with the tail of a file.
        while (m_consumed != 0 && begin < input.size()) {
            if (auto difference = Call(input.substr(begin)))
                return difference;
            begin += m_consumed;
        }
        return {};
    }

    /// One call of both on the same bytes.
    std::optional<std::string> Call(std::string_view input)
    {
        auto const buffer = std::make_unique<char[]>(input.size()); // exact: a sanitizer sees every byte beyond it
        std::memcpy(buffer.get(), input.data(), input.size());
        m_recorder.events.clear();
        m_oracle.events.clear();
        m_consumed = 0;
        std::string error;
        std::string expectedError;
        std::size_t expected = 0;
        try {
            m_consumed = m_recorder.stream.ProcessData(buffer.get(), static_cast<unsigned>(input.size()));
        }
        catch (CException const& exception) {
            error = static_cast<char const*>(exception.GetText().GetData());
        }
        try {
            expected = m_oracle.ProcessData(input);
        }
        catch (std::runtime_error const& exception) {
            expectedError = exception.what();
        }
        std::ostringstream difference;
        if (error != expectedError)
            difference << "exception \"" << error << "\", expected \"" << expectedError << "\"\n";
        if (m_consumed != expected)
            difference << "consumed " << m_consumed << ", expected " << expected << '\n';
        if (static_cast<int>(m_recorder.stream.GetState()) != m_oracle.GetState())
            difference << "state " << m_recorder.stream.GetState() << ", expected " << m_oracle.GetState() << '\n';
        if (error.empty() &&
            std::string_view(buffer.get(), input.size()).substr(m_consumed) != input.substr(m_consumed))
            difference << "unread input changed\n";
        std::size_t const count = std::max(m_recorder.events.size(), m_oracle.events.size());
        for (std::size_t i = 0; i < count; ++i) {
            std::string const seen = i < m_recorder.events.size() ? ToLine(m_recorder.events[i]) : "nothing";
            std::string const wanted = i < m_oracle.events.size() ? ToLine(m_oracle.events[i]) : "nothing";
            if (seen != wanted) {
                difference << "callback " << i << ": " << seen << ", expected " << wanted << '\n';
                break;
            }
        }
        if (difference.str().empty())
            return {};
        difference << "input: " << Escape(input.substr(0, 4000)) << '\n';
        return difference.str();
    }

private:
    static std::string Escape(std::string_view text)
    {
        std::string result;
        for (char c : text) {
            if (c >= ' ' && c < 127 && c != '\\') {
                result += c;
                continue;
            }
            char const* const digits = "0123456789ABCDEF";
            unsigned char const byte = static_cast<unsigned char>(c);
            result += {'\\', 'x', digits[byte / 16], digits[byte % 16]};
        }
        return result;
    }

    CXMLRecorder m_recorder;
    CXMLOracle m_oracle;
    std::size_t m_consumed = 0;
};

} // namespace Velmor::Test

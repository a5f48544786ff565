/// \file
/// What exceptions say.
#pragma once

#include <vlmcore/exceptions.h>

#include <string>

#include <gtest/gtest.h>

namespace TestSupport {

/// The message of the plain CException that the action throws; "nothing thrown" when it throws none. On any thread.
template <class Action>
[[nodiscard]] std::string MessageOf(Action&& action)
{
    try {
        action();
    }
    catch (Velmor::CException const& exception) {
        EXPECT_EQ(exception.GetKind(), 0);
        return static_cast<char const*>(exception.GetText().GetData());
    }
    return "nothing thrown";
}

} // namespace TestSupport

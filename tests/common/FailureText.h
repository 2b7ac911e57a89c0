#pragma once

#include <gtest/gtest.h>
#include <sdbus-c++/Error.h>

#include <functional>
#include <string>

namespace Kestrel::Test {

// What the call threw, as text, so tests compare messages byte for byte;
// an exception of another kind than the one named escapes and fails the test.
template <typename Exception = std::exception>
std::string failureOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const Exception& error) {
        return error.what();
    }
    return "<no exception>";
}

// The message of the bus error the call got back, checking the error's name.
inline std::string busErrorOf(const std::string& errorName, const std::function<void()>& call)
{
    try {
        call();
    } catch (const sdbus::Error& error) {
        EXPECT_EQ(error.getName(), errorName);
        return error.getMessage();
    }
    return "<no error>";
}

} // namespace Kestrel::Test

// Tests that run on the emulated controller: registration, checks, one PASS or FAIL line each.
//
//   TARGET_TEST(mapping_shows_the_same_bytes_to_two_processes) { CHECK_EQUAL(read(view), 0x5A); }
#pragma once

#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace target {

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct TestCase {
    const char* name;
    void (*run)();
};

std::vector<TestCase>& allTests();

struct Registration {
    Registration(const char* name, void (*run)()) { allTests().push_back({name, run}); }
};

template <class T> std::string shown(const T& value)
{
    std::ostringstream text;
    if constexpr (std::is_unsigned_v<T> && !std::is_same_v<T, bool>)
        text << "0x" << std::hex << static_cast<std::uint64_t>(value);
    else if constexpr (std::is_enum_v<T>)
        text << static_cast<long long>(value);
    else
        text << value;
    return text.str();
}

inline std::string shown(const std::vector<std::string>& lines)
{
    std::string text = "[";
    for (const std::string& line : lines)
        text += "\n        \"" + line + "\"";
    return text + "]";
}

[[noreturn]] inline void fail(const char* file, int line, const std::string& what)
{
    throw Failure(std::string(file) + ":" + std::to_string(line) + ": " + what);
}

template <class A, class B>
void checkEqual(const char* file, int line, const char* text, const A& actual, const B& expected)
{
    bool equal;
    if constexpr (std::is_integral_v<A> && std::is_integral_v<B>)
        equal = static_cast<long long>(actual) == static_cast<long long>(expected);
    else
        equal = actual == expected;
    if (!equal)
        fail(file, line, std::string(text) + " is " + shown(actual) + ", not " + shown(expected));
}

} // namespace target

#define TARGET_TEST(name)                                               \
    static void name();                                                 \
    static const target::Registration registration_##name(#name, name); \
    static void name()

#define CHECK(condition)                                                   \
    do {                                                                   \
        if (!(condition))                                                  \
            target::fail(__FILE__, __LINE__, #condition " does not hold"); \
    } while (0)
#define CHECK_EQUAL(actual, expected) target::checkEqual(__FILE__, __LINE__, #actual, actual, expected)

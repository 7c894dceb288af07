#pragma once

#include <cstdio>
#include <cstdlib>
#include <vector>

// The smallest test framework: TEST defines a test, CHECK and CHECK_THROWS end the program if they
// fail.

struct Test
{
    const char *name;
    void (*run)();
};

inline std::vector<Test> &tests()
{
    static std::vector<Test> all;
    return all;
}

struct Registration
{
    Registration(const char *name, void (*run)()) { tests().push_back({name, run}); }
};

#define TEST(name)                                                                                 \
    static void name();                                                                            \
    static const Registration name##Registration(#name, name);                                     \
    static void name()

inline void check(bool holds, const char *text, const char *file, int line)
{
    if (holds)
        return;
    std::fprintf(stderr, "%s:%d: not true: %s\n", file, line, text);
    std::exit(1);
}

#define CHECK(condition) check(static_cast<bool>(condition), #condition, __FILE__, __LINE__)

template <typename Exception, typename Act>
bool throws(Act &&act)
{
    try {
        act();
    } catch (const Exception &) {
        return true;
    }
    return false;
}

#define CHECK_THROWS(Exception, ...)                                                               \
    check(throws<Exception>([&] { __VA_ARGS__; }), #__VA_ARGS__ " throws " #Exception, __FILE__,   \
          __LINE__)

inline int runTests()
{
    for (const Test &test : tests()) {
        std::printf("%s\n", test.name);
        std::fflush(stdout);
        test.run();
    }
    return tests().empty() ? 1 : 0;
}

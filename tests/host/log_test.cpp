// libdlog.

#include "dlog.h"

#include <regex>

#include <gtest/gtest.h>

namespace
{

TEST(Log, OneMessageIsOneLine)
{
    const struct {
        int priority;
        char letter;
        const char *text;
        const char *written;
    } cases[] = {
        {4, 'I', "\033[0;35m* Info * ready\033[0;m", "* Info * ready"},
        {6, 'E', "\033[0;31mcode = [-1]\n\033[0;m", "code = [-1]"},
        {6, 'E', "value: [a\nb\t\033[2Jc\x7f]\n", R"(value: [a\x0ab\x09\x1b[2Jc\x7f])"},
        {99, '?', "\xc3\xa9 \xea\xb0\x80", "\xc3\xa9 \xea\xb0\x80"},
        {-1, '?', "", ""},
    };
    for (const auto &test : cases) {
        testing::internal::CaptureStderr();
        const int written = __dlog_print(2, test.priority, "TAG", "%s", test.text);
        const std::string line = testing::internal::GetCapturedStderr();
        EXPECT_EQ(written, line.size());
        const std::regex head(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (.) TAG \d+: )");
        std::smatch match;
        ASSERT_TRUE(std::regex_search(line, match, head)) << line;
        EXPECT_EQ(match[1], std::string(1, test.letter));
        EXPECT_EQ(match.suffix(), std::string(test.written) + "\n");
    }
}

} // namespace

// The calls that are to fail.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>
#include <string_view>

#include <unistd.h>

#include "frame.h"
#include "trace_options.h"

namespace
{

struct Failure {
    std::string function;
    int call;
    int code;
};

/// A mistake must not pass for a platform that works.
[[noreturn]] void refuse(const std::string &word)
{
    fprintf(stderr, "libime-backup-trace: no call that can fail: %s\n", quote(word).c_str());
    _exit(EXIT_FAILURE);
}

Failure parse_failure(const std::string &word)
{
    static const std::regex form("([a-zA-Z_:]+)(#([1-9][0-9]{0,5}))?(=(-?[0-9]{1,9}))?");
    std::smatch part;
    if (!std::regex_match(word, part, form) ||
        std::none_of(std::begin(TRACED_FUNCTIONS), std::end(TRACED_FUNCTIONS),
                     [&](std::string_view function) { return function == part[1].str(); }))
        refuse(word);
    return {part[1], part[3].matched ? std::stoi(part[3]) : 1, part[5].matched ? std::stoi(part[5]) : -1};
}

std::vector<Failure> parse_failures()
{
    const char *asked = getenv(TRACE_FAIL_VARIABLE);
    std::istringstream words(asked == nullptr ? "" : asked);
    std::vector<Failure> failures;
    for (std::string word; words >> word;)
        failures.push_back(parse_failure(word));
    return failures;
}

} // namespace

std::optional<int> take_failure(const std::string &function)
{
    static const std::vector<Failure> failures = parse_failures();
    static std::map<std::string, int> calls;
    const int call = ++calls[function];
    for (const Failure &failure : failures)
        if (failure.function == function && failure.call == call)
            return failure.code;
    return std::nullopt;
}

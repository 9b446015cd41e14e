#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "value.h"

/// A call over the boundary, or a callback that the platform makes: one line of the trace when it is over, or
/// two, around those of what came in between.
class Frame
{
public:
    enum class Kind { call, callback };

    /// @param names  of the arguments, as "(one, other)"
    Frame(Kind which, std::string function, const char *argument_names, std::vector<Shown> arguments_before);
    Frame(const Frame &) = delete;
    Frame &operator=(const Frame &) = delete;
    ~Frame();

    /// What is known when it is over: the arguments, with those that it was to set, and the result.
    void end(std::vector<Shown> arguments_after, std::optional<Shown> yielded);

    /// Its code, if this call is to fail instead of being made.
    std::optional<int> failure() const { return code; }

    /// Whether the platform runs, so that a call does not come from the service.
    static bool is_in_platform();

    /// Puts a message of the log where it was written.
    static void log(int priority, const char *tag, const std::string &message, bool is_made_to_fail);

private:
    void begin();
    std::string describe_call() const;
    std::string describe_end() const;
    std::string describe_for_script(const char *event) const;

    const Kind kind;
    const std::string name;
    const char *const names;
    std::vector<Shown> arguments;
    std::optional<Shown> result;
    std::optional<int> code;
    long long microseconds = 0;
    bool is_begun = false;
    Frame *const outer;
    const size_t depth;
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

/// The code with which the call of a function that comes now is to fail, if it is.
std::optional<int> take_failure(const std::string &function);

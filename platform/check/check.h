/** @file
 * The parts of a platform check. Each check is a table row: a promise that the service relies on, what the
 * service would do wrong without the promise, and a short function that tests the promise. Each check runs in
 * a separate process, since a library may crash or hang.
 */
#pragma once

#include <functional>
#include <new>
#include <span>
#include <string>
#include <type_traits>

#include <sys/mman.h>

struct Check {
    const char *promise;
    const char *means; ///< what the service would do wrong if the promise is broken
    void (*run)();     ///< returns if the promise is kept
    enum Access { reads, changes } access = reads;
};

struct Library {
    const char *name;
    std::span<const Check> checks;
    /// Saves the part of the device that the checks change. Called before the first check.
    void (*save)() = nullptr;
    /// Puts back what `save` saved. Called after each check that changes something. May fail like a check.
    void (*put_back)() = nullptr;
};

/// In the order in which a platform is brought up.
extern const Library DLOG, APP_CONTROL, APPCORE_AGENT, VCONF, SCIM, ISF_CONTROL, ORVANTA_CLOUD;

// How a check ends.

/// Ends the check as failed: the last noted call broke the promise.
[[noreturn]] void fail(const std::string &expected, const std::string &got);

/// Ends the check as skipped: this platform can't run it.
[[noreturn]] void skip(const std::string &reason);

/// Notes the next call for the report, in case it fails or never returns.
void note_call(const char *call);
#define CALL(...) (note_call(#__VA_ARGS__), __VA_ARGS__)

/// Returns the text in quotation marks. A long text is cut, with its size added.
std::string show_text(const std::string &text);

template <class Value>
std::string show(Value value)
{
    if constexpr (std::is_same_v<Value, bool>)
        return value ? "true" : "false";
    else if constexpr (std::is_same_v<Value, std::nullptr_t>)
        return "null";
    else if constexpr (std::is_arithmetic_v<Value>)
        return std::to_string(value);
    else if constexpr (std::is_convertible_v<Value, const char *>)
        return static_cast<const char *>(value) == nullptr ? "null" : show_text(value);
    else if constexpr (std::is_pointer_v<Value>)
        return value == nullptr ? "null" : "a pointer";
    else
        return show_text(value);
}

/// Fails the check unless a value is as expected. `label` names the value in the report, unless it is the
/// result of the noted call.
template <class Value, class Expected>
void expect(Value got, Expected expected, const std::string &label = "")
{
    bool same;
    if constexpr (std::is_convertible_v<Value, const char *> && !std::is_same_v<Expected, std::nullptr_t>)
        same = got != nullptr && std::string(got) == expected;
    else
        same = got == expected;
    if (!same)
        fail(label + show(expected), label + show(got));
}

/// Fails the check unless a call's result is negative, which means that the call failed.
inline void expect_negative(int result)
{
    if (result >= 0)
        fail("a negative value", show(result));
}

/// The same for a call whose error codes may also be positive.
inline void expect_error(int result)
{
    if (result == 0)
        fail("an error code", "0");
}

/// The settings that could not be put back.
struct Differences {
    void compare(const std::string &name, const std::string &saved, const std::string &found);
    /// Fails the check if any setting differs.
    void fail_if_any() const;

private:
    std::string names;
    std::string expected;
    std::string got;
};

// Processes.

/// Runs a function in a child process, which exits without running the libraries' exit handlers. If the check
/// ends in the child, it also ends in the caller.
void run_in_process(const std::function<void()> &work);

/// Makes a zeroed object in memory that all processes share. The memory is never released.
template <class Object>
Object *make_shared_memory()
{
    void *memory = mmap(nullptr, sizeof(Object), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    return new (memory) Object();
}

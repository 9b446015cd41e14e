/** @file
 * What a check of the platform is made of. Each is a row: a promise that the service relies on, what the
 * service would do wrong without it, and a function of a few lines that looks. It runs in a process of its
 * own, which a library may crash or hang.
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
    const char *means; ///< what the service would do wrong
    void (*run)();     ///< returns when the promise is kept
    enum Access { reads, changes } access = reads;
};

struct Library {
    const char *name;
    std::span<const Check> checks;
    /// Saves the part of the device that the checks change, before the first check.
    void (*save)() = nullptr;
    /// Restores that part after each check that changes something. It fails as a check does.
    void (*put_back)() = nullptr;
};

/// In the order in which a platform is brought up.
extern const Library DLOG, APP_CONTROL, APPCORE_AGENT, VCONF, SCIM, ISF_CONTROL, ORVANTA_CLOUD;

// How a check ends.

/// Ends the check: the last call that was noted does not keep the promise.
[[noreturn]] void fail(const std::string &expected, const std::string &got);

/// Ends the check: it can't be made on this platform.
[[noreturn]] void skip(const std::string &reason);

/// Notes the next call, in case it fails or never returns.
void note(const char *call);
#define CALL(...) (note(#__VA_ARGS__), __VA_ARGS__)

/// The text in quotation marks; of a long one, the beginning and the size.
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

/// Ends the check unless a result, or another value that `of` names, is as expected.
template <class Value, class Expected>
void expect(Value got, Expected expected, const std::string &of = "")
{
    bool same;
    if constexpr (std::is_convertible_v<Value, const char *> && !std::is_same_v<Expected, std::nullptr_t>)
        same = got != nullptr && std::string(got) == expected;
    else
        same = got == expected;
    if (!same)
        fail(of + show(expected), of + show(got));
}

/// Ends the check unless a result says that the call failed.
inline void expect_negative(int result)
{
    if (result >= 0)
        fail("a negative value", show(result));
}

/// The same, where an error code may also be positive.
inline void expect_error(int result)
{
    if (result == 0)
        fail("an error code", "0");
}

/// What could not be put back.
struct Differences {
    void compare(const std::string &name, const std::string &saved, const std::string &found);
    /// Ends the check if there are any.
    void end() const;

private:
    std::string names;
    std::string expected;
    std::string got;
};

// Processes.

/// Runs a function in a process of its own, which ends without the libraries' exit handlers. What ends the
/// check there ends it here.
void run_apart(const std::function<void()> &work);

/// Memory that all processes share, zeroed. It is never released.
template <class Object>
Object *make_shared_memory()
{
    void *memory = mmap(nullptr, sizeof(Object), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    return new (memory) Object();
}

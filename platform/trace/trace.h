// Traces a call between the service and its platform, and makes it or makes it fail. Each thread has its own
// current frame; all other state is shared.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include <dlfcn.h>

#include "app_control.h"
#include "orvanta_cloud.h"
#include "vconf.h"

/// True if the trace is written as JSON, else as text.
bool writes_json();

/// Returns the text as a JSON string. Invalid UTF-8 becomes replacement characters.
std::string quote(const std::string &text);

/// Returns a handle's name: its kind, and a number in the order in which handles of this kind appear. The
/// handle belongs to `owner`, unless that is null.
std::string show_handle(const char *kind, const void *handle, const void *owner);

/// Forgets the names of a handle and of the handles that belong to it. They get new names when they reappear.
void forget_handle(const void *handle);

/// The kind in the name of a handle of this type; null for a type that is not a handle.
template <class Value>
inline constexpr const char *HANDLE_KIND = nullptr;
template <>
inline constexpr const char *HANDLE_KIND<app_control_handle> = "app_control";
template <>
inline constexpr const char *HANDLE_KIND<orvanta_cloud_list_handle> = "list";
template <>
inline constexpr const char *HANDLE_KIND<orvanta_cloud_record_handle> = "record";
template <>
inline constexpr const char *HANDLE_KIND<orvanta_cloud_source_handle> = "source";
template <>
inline constexpr const char *HANDLE_KIND<vconf_keylist_handle> = "keylist";
template <>
inline constexpr const char *HANDLE_KIND<vconf_keynode_handle> = "keynode";
template <>
inline constexpr const char *HANDLE_KIND<void *> = "data";

/// True if a call sets the value that an argument of this type points to.
template <class Value>
inline constexpr bool IS_OUTPUT = std::is_pointer_v<Value> && (HANDLE_KIND<Value> == nullptr) &&
                                  !std::is_convertible_v<Value, std::string> &&
                                  !std::is_function_v<std::remove_pointer_t<Value>>;

/// Returns an output's value, to detect that a call has changed it. A trivial type is returned as bytes,
/// since it may be invalid before the call.
template <class Value>
auto output_value([[maybe_unused]] const Value &value)
{
    if constexpr (!IS_OUTPUT<Value>) {
        return nullptr;
    } else if constexpr (!std::is_trivial_v<std::remove_pointer_t<Value>>) {
        return value == nullptr ? std::nullopt : std::optional(*value);
    } else {
        const auto bytes = std::as_bytes(std::span(value, value == nullptr ? 0 : 1));
        return std::vector(bytes.begin(), bytes.end());
    }
}

/// Returns a value in the trace's format. An output's value is included only if it is set.
template <class Value>
std::string show(const Value &value, bool is_set = true, const void *owner = nullptr)
{
    if constexpr (std::is_pointer_v<Value>)
        if (value == nullptr)
            return "null";
    if constexpr (HANDLE_KIND<Value> != nullptr) {
        return show_handle(HANDLE_KIND<Value>, value, owner);
    } else if constexpr (std::is_same_v<Value, bool>) {
        return value ? "true" : "false";
    } else if constexpr (std::is_arithmetic_v<Value>) {
        return std::to_string(value);
    } else if constexpr (std::is_convertible_v<Value, std::string>) {
        return quote(value);
    } else if constexpr (IS_OUTPUT<Value>) {
        const std::string held = is_set ? show(*value, true, owner) : "";
        return !writes_json() ? "&" + held : is_set ? held : "null";
    } else if constexpr (std::is_pointer_v<Value>) {
        return writes_json() ? "\"callback\"" : "callback";
    } else { // a list
        std::string all;
        for (const auto &element : value)
            all += (all.empty() ? "" : ", ") + show(element);
        return "[" + all + "]";
    }
}

/// Returns the first argument if it is a handle to which the other arguments' handles belong, else null.
template <class First = int, class... Rest>
const void *find_owner(const First &first = {}, const Rest &...)
{
    if constexpr (HANDLE_KIND<First> != nullptr && !(std::is_same_v<First, Rest> || ...))
        return first;
    else
        return nullptr;
}

struct ShownArgument {
    std::string text;
    bool is_written = false; ///< true for an output that a failed call has written
};

/// Which results of a call mean success. A successful call has set its outputs. `zero_releases` is for a call
/// that also releases its handle.
enum class Success { always, zero, zero_releases, not_negative, positive };

inline bool has_succeeded(Success success, int result)
{
    return success == Success::always         ? true
           : success == Success::not_negative ? result >= 0
           : success == Success::positive     ? result > 0
                                              : result == 0;
}

struct CallInfo {
    const char *function;
    const char *argument_names; ///< such as "(one, other)"
    Success success = Success::always;
    bool is_callback = false;
};

/// A call to the platform, or a callback that the platform makes. A call without inner lines has one line in
/// the trace, written at its end. Otherwise, a line at its beginning and one at its end enclose the inner
/// lines.
class Frame
{
public:
    /// The call's result if it is made to fail; such a call does not reach the platform.
    const std::optional<int> failure;

    Frame(const CallInfo &call, std::vector<ShownArgument> arguments_before);

    /// Ends the call, with the arguments after the call, which include its outputs, and with its result, if
    /// any.
    void end(std::vector<ShownArgument> arguments_after, const std::string &result = "");

    /// Writes the opening lines of this thread's frames, unless they are written, before a line inside them.
    ///
    /// @return the depth of the line inside
    static size_t write_open_frames();

    /// True if the platform is running on this thread, so that the platform makes the next call, not the
    /// service.
    static bool is_in_platform() { return innermost != nullptr && !innermost->info.is_callback; }

private:
    static size_t write_open_frames(Frame *frame);
    std::string describe(const char *event) const;

    /// This thread's current frame.
    static inline thread_local Frame *innermost = nullptr;
    /// The first frame that has not ended. The lines of other threads are written inside it.
    static inline Frame *outermost = nullptr;

    const CallInfo info;
    std::vector<ShownArgument> arguments;
    Frame *const outer;
    size_t depth = 0;
    bool is_begin_written = false;
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

/// Writes one line without buffering, and adds the thread unless it is the main thread. Ignores write errors,
/// so that the service goes on.
///
/// @param line  a JSON line comes without its closing brace
void write_line(std::string line);

/// Counts a call of a function. Returns the call's result if it is made to fail.
std::optional<int> take_failure(const std::string &function);

/// Returns the function that would be called without this library.
template <class Function>
Function *next_function(const char *symbol)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, symbol));
}

/// Makes a call, unless it is made to fail. Traces the call if it comes from the service.
template <class Result, class Real, class... Args>
Result trace_call(const CallInfo &info, Real real, Args... args)
{
    if (!info.is_callback && Frame::is_in_platform())
        return real(args...);
    const auto show_all = [&args..., ... before = output_value(args)](bool are_set) {
        [[maybe_unused]] const void *owner = find_owner(args...);
        [[maybe_unused]] const auto show_one = [&](const auto &argument, bool is_changed) {
            return ShownArgument{show(argument, are_set || is_changed, owner), !are_set && is_changed};
        };
        return std::vector<ShownArgument>{show_one(args, output_value(args) != before)...};
    };
    std::vector<ShownArgument> shown = show_all(info.is_callback);
    Frame frame(info, shown);
    // Before the call: after it, another thread may get a new handle with the same address.
    const bool releases = info.success == Success::zero_releases && !frame.failure;
    if (releases)
        forget_handle(find_owner(args...));
    if constexpr (std::is_void_v<Result>) {
        if (!frame.failure)
            real(args...);
        frame.end(show_all(true));
    } else {
        Result result{};
        if (!frame.failure)
            result = real(args...);
        else if constexpr (std::is_same_v<Result, int>)
            result = *frame.failure;
        bool succeeded = !frame.failure;
        if constexpr (std::is_arithmetic_v<Result>)
            succeeded = succeeded && has_succeeded(info.success, result);
        if (!releases)
            shown = show_all(succeeded);
        frame.end(shown, show(result));
        return result;
    }
}

/// Returns a callback for the platform, which traces and calls the service's callback. `REGISTRAR` is the
/// function or member by which the service registers the callback.
template <auto REGISTRAR, class Result, class... Args>
auto wrap_callback(Result (*callback)(Args...), const char *name, const char *names)
{
    static std::atomic<Result (*)(Args...)> registered;
    static const CallInfo info = {name, names, Success::always, true};
    registered = callback;
    return callback == nullptr ? nullptr : +[](Args... args) {
        return trace_call<Result>(info, registered.load(), args...);
    };
}

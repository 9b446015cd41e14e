// A call that crosses the boundary: shown, and made or not. Threads share all but the frame that each is in.
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

/// Whether a script reads the trace.
bool writes_json();

/// The text between quotation marks, as JSON has it. What is no UTF-8 becomes replacement characters.
std::string quote(const std::string &text);

/// Handles are called by their kind and a number, in the order in which they appear. One that is shown behind
/// another, its owner, belongs to it.
std::string show_handle(const char *kind, const void *handle, const void *owner);

/// The name is given anew, and so are those of what belongs to the handle.
void forget_handle(const void *handle);

/// What a handle of this type is called.
template <class Value>
inline constexpr const char *KIND = nullptr;
template <>
inline constexpr const char *KIND<app_control_handle> = "app_control";
template <>
inline constexpr const char *KIND<orvanta_cloud_list_handle> = "list";
template <>
inline constexpr const char *KIND<orvanta_cloud_record_handle> = "record";
template <>
inline constexpr const char *KIND<orvanta_cloud_source_handle> = "source";
template <>
inline constexpr const char *KIND<vconf_keylist_handle> = "keylist";
template <>
inline constexpr const char *KIND<vconf_keynode_handle> = "keynode";
template <>
inline constexpr const char *KIND<void *> = "data";

/// Whether a call sets what this argument points to.
template <class Value>
inline constexpr bool IS_OUTPUT = std::is_pointer_v<Value> && (KIND<Value> == nullptr) &&
                                  !std::is_convertible_v<Value, std::string> &&
                                  !std::is_function_v<std::remove_pointer_t<Value>>;

/// What an output holds, to tell whether a call has changed it. It may hold no value of its type before.
template <class Value>
auto held_by([[maybe_unused]] const Value &value)
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

/// A value in the trace's format. One that a call sets is shown when it is set.
template <class Value>
std::string show(const Value &value, bool is_set = true, const void *owner = nullptr)
{
    if constexpr (std::is_pointer_v<Value>)
        if (value == nullptr)
            return "null";
    if constexpr (KIND<Value> != nullptr) {
        return show_handle(KIND<Value>, value, owner);
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
    } else { // several
        std::string all;
        for (const auto &element : value)
            all += (all.empty() ? "" : ", ") + show(element);
        return "[" + all + "]";
    }
}

/// The handle among the arguments that the others belong to.
template <class First = int, class... Rest>
const void *owner_in(const First &first = {}, const Rest &...)
{
    if constexpr (KIND<First> != nullptr && !(std::is_same_v<First, Rest> || ...))
        return first;
    else
        return nullptr;
}

struct ShownArgument {
    std::string text;
    bool is_written = false; ///< by a call that failed all the same
};

/// What says that a call succeeded, so that it has set what it is to set.
enum class Success { always, zero, zero_releases, not_negative, positive };

inline bool has_succeeded(Success success, int result)
{
    return success == Success::always         ? true
           : success == Success::not_negative ? result >= 0
           : success == Success::positive     ? result > 0
                                              : result == 0;
}

struct Shape {
    const char *function;
    const char *names; ///< of the arguments, as "(one, other)"
    Success success = Success::always;
    bool is_callback = false;
};

/// A call over the boundary, or a callback that the platform makes: one line of the trace when it is over, or
/// two, around those of what came in between.
class Frame
{
public:
    /// The code, if this call is to fail instead of being made.
    const std::optional<int> failure;

    Frame(const Shape &call, std::vector<ShownArgument> arguments_before);

    /// Ends it with the arguments, with those that it was to set, and the result, if it has one.
    void end(std::vector<ShownArgument> arguments_after, const std::string &result = "");

    /// Shows the frames that this thread is in: what comes is to stand below them.
    ///
    /// @return how deep that is
    static size_t begin();

    /// Whether the platform runs on this thread, so that a call does not come from the service.
    static bool is_in_platform() { return innermost != nullptr && !innermost->shape.is_callback; }

private:
    static size_t begin(Frame *frame);
    std::string describe(const char *event) const;

    /// The one that this thread is in now.
    static inline thread_local Frame *innermost = nullptr;
    /// The first one that is not over: what other threads do stands below it.
    static inline Frame *outermost = nullptr;

    const Shape shape;
    std::vector<ShownArgument> arguments;
    Frame *const outer;
    size_t depth = 0;
    bool is_begun = false;
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

/// Writes one line, at once, with the thread, if it is not the main one. What can't be written is lost: the
/// service goes on.
///
/// @param line of JSON without the brace that ends it
void write_line(std::string line);

/// The code with which the call of a function that comes now is to fail, if it is.
std::optional<int> take_failure(const std::string &function);

/// The function of this name that would be called without this library.
template <class Function>
Function *next_function(const char *symbol)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, symbol));
}

/// Makes a call, unless it is to fail, and shows it, if it comes from the service.
template <class Result, class Real, class... Args>
Result cross(const Shape &shape, Real real, Args... args)
{
    if (!shape.is_callback && Frame::is_in_platform())
        return real(args...);
    const auto show_all = [&args..., ... before = held_by(args)](bool are_set) {
        [[maybe_unused]] const void *owner = owner_in(args...);
        [[maybe_unused]] const auto show_one = [&](const auto &argument, bool is_changed) {
            return ShownArgument{show(argument, are_set || is_changed, owner), !are_set && is_changed};
        };
        return std::vector<ShownArgument>{show_one(args, held_by(args) != before)...};
    };
    std::vector<ShownArgument> shown = show_all(shape.is_callback);
    Frame frame(shape, shown);
    // Before the call: once it is made, another thread may get a handle in the same place.
    const bool releases = shape.success == Success::zero_releases && !frame.failure;
    if (releases)
        forget_handle(owner_in(args...));
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
            succeeded = succeeded && has_succeeded(shape.success, result);
        if (!releases)
            shown = show_all(succeeded);
        frame.end(shown, show(result));
        return result;
    }
}

/// Hands the platform a callback that shows the service's. `PLACE` is where it is registered.
template <auto PLACE, class Result, class... Args>
auto wrap(Result (*callback)(Args...), const char *name, const char *names)
{
    static std::atomic<Result (*)(Args...)> registered;
    static const Shape shape = {name, names, Success::always, true};
    registered = callback;
    return callback == nullptr ? nullptr : +[](Args... args) {
        return cross<Result>(shape, registered.load(), args...);
    };
}

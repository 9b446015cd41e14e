// A call that crosses the boundary: shown, and made or not.
#pragma once

#include <type_traits>

#include <dlfcn.h>

#include "frame.h"

/// What says that a call succeeded, so that it has set what it is to set.
enum class Success { always, zero, zero_releases, not_negative, positive, truth };

struct Shape {
    const char *function;
    const char *names; ///< of the arguments
    Success success;
};

/// The function of this name that would be called without this library.
template <class Function>
Function *next_function(const char *symbol)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, symbol));
}

// Arguments, before a call and after it.

template <class Value>
concept Handle = requires(Value value)
{
    kind_of(value);
};

/// The handle among the arguments that the others belong to.
inline const void *owner_in()
{
    return nullptr;
}

template <class First, class... Rest>
const void *owner_in(const First &first, const Rest &...rest)
{
    if constexpr (Handle<First> && sizeof...(rest) > 0)
        return (std::is_same_v<First, Rest> || ...) ? nullptr : first;
    else
        return nullptr;
}

template <class Value>
Shown show_value(const Value &value, const void *owner)
{
    if constexpr (Handle<Value>)
        return show(kind_of(value), value, owner);
    else
        return show(value);
}

template <class Value>
struct Argument {
    static Shown show(const Value &value, bool, const void *owner) { return show_value(value, owner); }
};

/// One that the call is to set.
template <class Value>
requires(!Handle<Value *> && !std::is_same_v<Value, const char> && !std::is_same_v<Value, char> &&
         !std::is_function_v<Value>) struct Argument<Value *> {
    static Shown show(Value *value, bool is_set, const void *owner)
    {
        if (value == nullptr || !is_set)
            return {value == nullptr ? "null" : "&", "null"};
        const Shown shown = show_value(*value, owner);
        return {"&" + shown.text, shown.json};
    }
};

template <class Result, class... Args>
struct Argument<Result (*)(Args...)> {
    static Shown show(Result (*callback)(Args...), bool, const void *)
    {
        return callback == nullptr ? Shown{"null", "null"} : Shown{"callback", "\"callback\""};
    }
};

template <class... Args>
std::vector<Shown> show_arguments([[maybe_unused]] bool are_set, const Args &...args)
{
    [[maybe_unused]] const void *owner = owner_in(args...);
    return {Argument<Args>::show(args, are_set, owner)...};
}

// The result.

struct Nothing {
};

template <class Result, class Real, class... Args>
auto make(Real real, Args... args)
{
    if constexpr (std::is_void_v<Result>) {
        real(args...);
        return Nothing();
    } else {
        return real(args...);
    }
}

template <class Result>
auto fail(int code)
{
    if constexpr (std::is_void_v<Result>)
        return Nothing();
    else if constexpr (std::is_same_v<Result, int>)
        return code;
    else
        return Result();
}

template <class Result>
std::optional<Shown> show_result(const Result &result)
{
    if constexpr (std::is_same_v<Result, Nothing>)
        return std::nullopt;
    else
        return show_value(result, nullptr);
}

template <class Result>
bool has_succeeded(Success success, const Result &result)
{
    if constexpr (std::is_same_v<Result, int>)
        return success == Success::not_negative ? result >= 0
               : success == Success::positive   ? result > 0
                                                : result == 0;
    else if constexpr (std::is_same_v<Result, bool>)
        return success != Success::truth || result;
    else
        return true;
}

template <Handle Released>
void release(const Released &handle)
{
    forget_handle(handle);
}

template <class... Args>
void release(const Args &...)
{
}

/// Makes a call, unless it is to fail, and shows it, if it comes from the service.
template <class Result, class Real, class... Args>
Result cross(const Shape &shape, Real real, Args... args)
{
    if (Frame::is_in_platform())
        return real(args...);
    Frame frame(Frame::Kind::call, shape.function, shape.names, show_arguments(false, args...));
    const auto result = frame.failure() ? fail<Result>(*frame.failure()) : make<Result>(real, args...);
    const bool succeeded = !frame.failure() && has_succeeded(shape.success, result);
    frame.end(show_arguments(succeeded, args...), show_result(result));
    if (succeeded && shape.success == Success::zero_releases)
        release(args...);
    return static_cast<Result>(result);
}

/// A callback of the service: the platform is handed one that shows it. `PLACE` is where it is registered.
template <auto PLACE, class Type>
class Callback;

template <auto PLACE, class Result, class... Args>
class Callback<PLACE, Result (*)(Args...)>
{
public:
    static auto wrap(Result (*callback)(Args...), const char *shown_as, const char *argument_names)
    {
        registered = callback;
        name = shown_as;
        names = argument_names;
        return callback == nullptr ? nullptr : call;
    }

private:
    static Result call(Args... args)
    {
        Frame frame(Frame::Kind::callback, name, names, show_arguments(true, args...));
        const auto result = make<Result>(registered, args...);
        frame.end(show_arguments(true, args...), show_result(result));
        return static_cast<Result>(result);
    }

    static inline Result (*registered)(Args...) = nullptr;
    static inline const char *name = nullptr;
    static inline const char *names = nullptr;
};

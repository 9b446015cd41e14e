// Stands in for the platform's C functions: each shows what is asked of the platform, and asks it.

#include <cstdarg>
#include <cstdio>
#include <string_view>

#pragma GCC visibility push(default)
#include "appcore_agent.h"
#include "dlog.h"
#include "isf_control.h"
#include "orvanta_cloud.h"
#include "vconf.h"
#pragma GCC visibility pop

#include "crossing.h"

/// Such as "preparation" of the function that registers it.
static std::string name_of_callback(std::string_view registration)
{
    registration.remove_prefix(registration.find("_set_") + 5);
    registration.remove_suffix(std::string_view("_cb").size());
    return std::string(registration);
}

#define CALL(result, function, parameters, arguments, success)                                               \
    result function parameters                                                                               \
    {                                                                                                        \
        const auto call = [](auto... args) {                                                                 \
            static auto *const next = next_function<decltype(function)>(#function);                          \
            return cross<result>({#function, #arguments, Success::success}, next, args...);                  \
        };                                                                                                   \
        return call arguments;                                                                               \
    }

#define REGISTRATION(function, type, callback_arguments)                                                     \
    int function(type callback, void *context)                                                               \
    {                                                                                                        \
        static auto *const next = next_function<decltype(function)>(#function);                              \
        static const std::string name = name_of_callback(#function);                                         \
        const type wrapped = Callback<function, type>::wrap(callback, name.c_str(), #callback_arguments);    \
        return cross<int>({#function, "(callback, context)", Success::zero}, next, wrapped, context);        \
    }

#include "boundary.def"

int service_app_main(int argc, char **argv, service_app_callbacks *callbacks, void *user_data)
{
    static auto *const next = next_function<decltype(service_app_main)>("service_app_main");
    static service_app_callbacks wrapped;
    using App = service_app_callbacks;
    wrapped.create =
        Callback<&App::create, decltype(App::create)>::wrap(callbacks->create, "create", "(user_data)");
    wrapped.terminate = Callback<&App::terminate, decltype(App::terminate)>::wrap(callbacks->terminate,
                                                                                  "terminate", "(user_data)");
    wrapped.app_control = Callback<&App::app_control, decltype(App::app_control)>::wrap(
        callbacks->app_control, "app_control", "(request, user_data)");
    const std::vector<std::string> arguments(argv, argv + argc);
    return cross<int>(
        {"service_app_main", "(argv, user_data)", Success::zero},
        [&](const auto &, void *data) { return next(argc, argv, &wrapped, data); }, arguments, user_data);
}

/// A format that yields the message: the log may look for colours in the format.
static std::string format_of(const std::string &message)
{
    std::string format;
    for (const char c : message)
        format.append(c == '%' ? 2 : 1, c);
    return format;
}

int __dlog_print(int buffer, int priority, const char *tag, const char *format, ...)
{
    static auto *const next = next_function<decltype(__dlog_print)>("__dlog_print");
    char *text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments); // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(arguments);
    const std::string message(text, static_cast<size_t>(length < 0 ? 0 : length));
    free(text);

    std::optional<int> failure;
    if (!Frame::is_in_platform()) {
        failure = take_failure("__dlog_print");
        Frame::log(priority, tag, message, failure.has_value());
    }
    return failure ? *failure : next(buffer, priority, tag, format_of(message).c_str(), "");
}

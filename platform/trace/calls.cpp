// Wrappers of the platform's C functions. Each traces the call, and then makes it.

#include <cstdarg>

#include <glib.h>

#pragma GCC visibility push(default)
#include "appcore_agent.h"
#include "dlog.h"
#include "isf_control.h"
#include "orvanta_cloud.h"
#include "vconf.h"
#pragma GCC visibility pop

#include "trace.h"

#define CALL(result, function, parameters, arguments, success)                                               \
    result function parameters                                                                               \
    {                                                                                                        \
        const auto call = [](auto... args) {                                                                 \
            static auto *const next = next_function<decltype(function)>(#function);                          \
            return trace_call<result>({#function, #arguments, Success::success}, next, args...);             \
        };                                                                                                   \
        return call arguments;                                                                               \
    }

#define REGISTRATION(function, name, type, callback_arguments)                                               \
    int function(type callback, void *context)                                                               \
    {                                                                                                        \
        static auto *const next = next_function<decltype(function)>(#function);                              \
        return trace_call<int>({#function, "(callback, context)", Success::zero}, next,                      \
                               wrap_callback<function>(callback, #name, #callback_arguments), context);      \
    }

#include "boundary.def"

int service_app_main(int argc, char **argv, service_app_callbacks *callbacks, void *user_data)
{
    static auto *const next = next_function<decltype(service_app_main)>("service_app_main");
    using App = service_app_callbacks;
    static App wrapped;
    wrapped.create = wrap_callback<&App::create>(callbacks->create, "create", "(user_data)");
    wrapped.terminate = wrap_callback<&App::terminate>(callbacks->terminate, "terminate", "(user_data)");
    wrapped.app_control =
        wrap_callback<&App::app_control>(callbacks->app_control, "app_control", "(request, user_data)");
    const std::vector<std::string> arguments(argv, argv + argc);
    return trace_call<int>(
        {"service_app_main", "(argv, user_data)", Success::zero},
        [&](const auto &, void *data) { return next(argc, argv, &wrapped, data); }, arguments, user_data);
}

int __dlog_print(int buffer, int priority, const char *tag, const char *format, ...)
{
    static auto *const next = next_function<decltype(__dlog_print)>("__dlog_print");
    va_list arguments;
    va_start(arguments, format);
    g_autofree gchar *text =
        g_strdup_vprintf(format, arguments); // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(arguments);

    if (!Frame::is_in_platform()) {
        const std::optional<int> failure = take_failure("__dlog_print");
        const size_t depth = Frame::write_open_frames();
        if (writes_json())
            write_line(R"({"event":"log","depth":)" + show(depth) + ",\"priority\":" + show(priority) +
                       ",\"tag\":" + show(tag) + ",\"message\":" + show(text) +
                       ",\"made_to_fail\":" + show(failure.has_value()));
        else
            write_line(std::string(2 * depth, ' ') + "log " + show(priority) + " " + show(tag) + " " +
                       show(text) + (failure ? "  made to fail" : ""));
        if (failure)
            return *failure;
    }
    // Passed as the format, since the log may look for colours there.
    std::string message;
    for (const char *c = text; *c != '\0'; c++)
        message.append(*c == '%' ? 2 : 1, *c);
    return next(buffer, priority, tag, message.c_str(), "");
}

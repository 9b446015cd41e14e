#include "scripted_platform.h"

#include <cstdarg>
#include <cstring>
#include <libintl.h>
#include <memory>
#include <sys/time.h>

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include <glib.h>
#include <gtest/gtest.h>

#include "appcore_agent.h"
#include "dlog.h"
#include "isf_control.h"
#include "orvanta_cloud.h"
#include "vconf.h"

ScriptedPlatform *platform;

// Handles carry the name that they have in the trace.

struct Named {
    std::string name;
};
struct app_control : Named {
};
struct orvanta_cloud_source : Named {
};
struct orvanta_cloud_record : Named {
    std::optional<std::string> value;
};
struct orvanta_cloud_list : Named {
    std::vector<std::unique_ptr<orvanta_cloud_record>> records;
    size_t cursor = 0;
};
struct vconf_keynode {
    const char *text;
};
struct vconf_keylist {
    std::map<std::string, std::string> added;
    std::map<std::string, std::string> read;
    std::vector<std::unique_ptr<vconf_keynode>> nodes;
};

static std::string show(const char *text)
{
    return text == nullptr ? "null" : "\"" + std::string(text) + "\"";
}

static std::string show(int number)
{
    return std::to_string(number);
}

static std::string show(const Named *handle)
{
    return handle == nullptr ? "null" : handle->name;
}

static void note(const std::string &line)
{
    platform->trace.push_back(line);
}

/// Notes a call; true when it is the one that fails.
template <class... Args>
static bool fails(const char *function, Args... args)
{
    std::string line = std::string(function) + "(";
    [[maybe_unused]] const char *separator = "";
    ((line += separator + show(args), separator = ", "), ...);
    note(line + ")");
    const bool occurred = platform->failing_function == function && --platform->failing_occurrence == 0;
    if (++platform->calls != platform->failing_call && !occurred)
        return false;
    platform->failed_call = function;
    return true;
}

#define FAIL_IF_TOLD(...)                                                                                    \
    const bool failing = fails(__func__ __VA_OPT__(, ) __VA_ARGS__);                                         \
    if (failing && !platform->fails_with_effect)                                                             \
        return platform->failure_code;                                                                       \
    [[maybe_unused]] const int code = failing ? platform->failure_code : 0

#define SIMPLE_CALL(...)                                                                                     \
    FAIL_IF_TOLD(__VA_ARGS__);                                                                               \
    return code

// The application framework. The service's main() is this program's, and what it hands its callbacks to is
// the test runner.

static service_app_callbacks *service;

int service_app_main(int argc, char **argv, service_app_callbacks *callbacks, void *user_data)
{
    testing::InitGoogleTest(&argc, argv);
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    g_set_print_handler([](const gchar *text) { note("print " + std::string(text)); });
    EXPECT_EQ(user_data, nullptr);
    service = callbacks;
    return RUN_ALL_TESTS();
}

void service_app_exit()
{
    note("service_app_exit()");
    platform->exited = true;
}

int app_control_get_operation(app_control_handle request, char **operation)
{
    FAIL_IF_TOLD(request);
    *operation = platform->operation ? strdup(platform->operation->c_str()) : nullptr;
    return code;
}

int app_control_create(app_control_handle *handle)
{
    FAIL_IF_TOLD();
    *handle = new app_control{{"<reply>"}};
    platform->live_handles++;
    return code;
}

int app_control_reply_to_launch_request(app_control_handle reply, app_control_handle request, int result)
{
    SIMPLE_CALL(reply, request, result);
}

int app_control_destroy(app_control_handle handle)
{
    const bool failing = fails(__func__, handle);
    platform->live_handles--;
    delete handle;
    return failing ? platform->failure_code : 0;
}

// The cloud library.

static struct {
    orvanta_cloud_request_cb preparation, keys_and_dates, path;
    orvanta_cloud_backup_cb backup;
    orvanta_cloud_restoration_cb restoration;
    orvanta_cloud_completed_cb completed;
} callbacks;

static orvanta_cloud_list *make_list(const std::vector<std::optional<std::string>> &values)
{
    auto *list = new orvanta_cloud_list{{"<list>"}, {}, 0};
    for (const auto &value : values)
        list->records.push_back(std::make_unique<orvanta_cloud_record>(
            orvanta_cloud_record{{"<record" + std::to_string(list->records.size()) + ">"}, value}));
    platform->live_handles++;
    return list;
}

#define DEFINE_REGISTRATION(function, type, member)                                                          \
    int function(type callback, void *context)                                                               \
    {                                                                                                        \
        EXPECT_EQ(context, nullptr);                                                                         \
        FAIL_IF_TOLD();                                                                                      \
        callbacks.member = callback;                                                                         \
        return code;                                                                                         \
    }

DEFINE_REGISTRATION(orvanta_cloud_backup_record_set_preparation_cb, orvanta_cloud_request_cb, preparation)
DEFINE_REGISTRATION(orvanta_cloud_backup_record_set_sending_keys_and_dates_cb, orvanta_cloud_request_cb,
                    keys_and_dates)
DEFINE_REGISTRATION(orvanta_cloud_backup_record_set_backup_cb, orvanta_cloud_backup_cb, backup)
DEFINE_REGISTRATION(orvanta_cloud_backup_record_set_completed_cb, orvanta_cloud_completed_cb, completed)
DEFINE_REGISTRATION(orvanta_cloud_restore_record_set_preparation_cb, orvanta_cloud_request_cb, preparation)
DEFINE_REGISTRATION(orvanta_cloud_restore_record_set_sending_restoration_path_cb, orvanta_cloud_request_cb,
                    path)
DEFINE_REGISTRATION(orvanta_cloud_restore_record_set_restoration_cb, orvanta_cloud_restoration_cb,
                    restoration)
DEFINE_REGISTRATION(orvanta_cloud_restore_record_set_completed_cb, orvanta_cloud_completed_cb, completed)

#define DEFINE_SIMPLE_CALL(function, type1, type2)                                                           \
    int function(type1 first, type2 second)                                                                  \
    {                                                                                                        \
        SIMPLE_CALL(first, second);                                                                          \
    }

DEFINE_SIMPLE_CALL(orvanta_cloud_backup_record_send_keys_and_dates, orvanta_cloud_list_handle, int)
DEFINE_SIMPLE_CALL(orvanta_cloud_backup_record_send_backup_path, const char *, int)
DEFINE_SIMPLE_CALL(orvanta_cloud_restore_record_send_restoration_path, const char *, int)
DEFINE_SIMPLE_CALL(orvanta_cloud_restore_record_send_record_list, orvanta_cloud_list_handle, int)
DEFINE_SIMPLE_CALL(orvanta_cloud_record_set_key, orvanta_cloud_record_handle, const char *)
DEFINE_SIMPLE_CALL(orvanta_cloud_record_set_date, orvanta_cloud_record_handle, const char *)
DEFINE_SIMPLE_CALL(orvanta_cloud_record_set_value, orvanta_cloud_record_handle, const char *)
DEFINE_SIMPLE_CALL(orvanta_cloud_file_create_file, orvanta_cloud_list_handle, const char *)

int orvanta_cloud_initialize()
{
    SIMPLE_CALL();
}

int orvanta_cloud_deinitialize()
{
    SIMPLE_CALL();
}

int orvanta_cloud_backup_record_send_preparation_completed_response(int ready)
{
    SIMPLE_CALL(ready);
}

int orvanta_cloud_restore_record_send_preparation_completed_response(int ready)
{
    SIMPLE_CALL(ready);
}

int orvanta_cloud_list_create(orvanta_cloud_list_handle *list)
{
    FAIL_IF_TOLD();
    *list = make_list({});
    return code;
}

int orvanta_cloud_list_destroy(orvanta_cloud_list_handle list)
{
    const bool failing = fails(__func__, list);
    if (list != nullptr)
        platform->live_handles--;
    delete list;
    return failing ? platform->failure_code : 0;
}

// A record that is not added to a list leaks here, as it would in the library: keep it reachable.
static std::unique_ptr<orvanta_cloud_record> loose_record;

int orvanta_cloud_record_create(orvanta_cloud_record_handle *record)
{
    FAIL_IF_TOLD();
    loose_record = std::make_unique<orvanta_cloud_record>(orvanta_cloud_record{{"<new record>"}, {}});
    *record = loose_record.get();
    return code;
}

int orvanta_cloud_list_add(orvanta_cloud_list_handle list, orvanta_cloud_record_handle record)
{
    SIMPLE_CALL(list, record);
}

int orvanta_cloud_list_get_record_count(orvanta_cloud_list_handle list, int *count)
{
    FAIL_IF_TOLD(list);
    *count = platform->record_count;
    return code;
}

int orvanta_cloud_list_move_to_first(orvanta_cloud_list_handle list)
{
    SIMPLE_CALL(list);
}

int orvanta_cloud_list_move_to_next(orvanta_cloud_list_handle list)
{
    FAIL_IF_TOLD(list);
    list->cursor++;
    return code;
}

int orvanta_cloud_list_get_current_record(orvanta_cloud_list_handle list, orvanta_cloud_record_handle *record)
{
    FAIL_IF_TOLD(list);
    *record = list->records.at(list->cursor).get();
    return code;
}

int orvanta_cloud_record_get_value(orvanta_cloud_record_handle record, char **value)
{
    FAIL_IF_TOLD(record);
    *value = record->value ? g_strdup(record->value->c_str()) : nullptr;
    return code;
}

int orvanta_cloud_record_set_fail(orvanta_cloud_record_handle record)
{
    SIMPLE_CALL(record);
}

int orvanta_cloud_file_create_record_list(orvanta_cloud_source_handle source, orvanta_cloud_list_handle *list)
{
    FAIL_IF_TOLD(source);
    *list = make_list(platform->restored);
    return code;
}

// The settings store.

int vconf_get_bool(const char *key, int *value)
{
    FAIL_IF_TOLD(key);
    *value = platform->bools.at(key);
    return code;
}

int vconf_set_bool(const char *key, int value)
{
    SIMPLE_CALL(key, value);
}

char *vconf_get_str(const char *key)
{
    return fails(__func__, key) ? nullptr : strdup(platform->strings.at(key).c_str());
}

vconf_keylist_handle vconf_keylist_new()
{
    note("vconf_keylist_new()");
    platform->live_handles++;
    return new vconf_keylist;
}

int vconf_get(vconf_keylist_handle list, const char *directory, int option)
{
    FAIL_IF_TOLD(directory, option);
    list->read[directory] = platform->strings.at(directory);
    return code;
}

int vconf_keylist_lookup(vconf_keylist_handle list, const char *key, vconf_keynode_handle *node)
{
    FAIL_IF_TOLD(key);
    list->nodes.push_back(std::make_unique<vconf_keynode>(
        vconf_keynode{platform->node_without_text ? nullptr : list->read.at(key).c_str()}));
    *node = list->nodes.back().get();
    return 5; // any number from 0 on is a success
}

char *vconf_keynode_get_str(vconf_keynode_handle node)
{
    return fails(__func__) ? nullptr : const_cast<char *>(node->text);
}

int vconf_keylist_add_str(vconf_keylist_handle, const char *key, const char *value)
{
    FAIL_IF_TOLD(key, value);
    return 5;
}

int vconf_set(vconf_keylist_handle)
{
    SIMPLE_CALL();
}

int vconf_keylist_free(vconf_keylist_handle list)
{
    note("vconf_keylist_free()");
    platform->live_handles--;
    delete list;
    return 0;
}

// The input-method framework.

int isf_control_get_active_ime(char **identifier)
{
    FAIL_IF_TOLD();
    *identifier = g_strdup(platform->active_ime.c_str());
    return code != 0 ? code : platform->active_ime_result;
}

int isf_control_set_active_ime(const char *identifier)
{
    SIMPLE_CALL(identifier);
}

class ScriptedConfig : public scim::DummyConfig
{
public:
    ScriptedConfig() { platform->live_handles++; }
    ~ScriptedConfig() override
    {
        note("config released");
        platform->live_handles--;
    }

    bool read(const scim::String &key, int *value) const override { return answer("int", key, value); }
    bool read(const scim::String &key, bool *value) const override { return answer("bool", key, value); }
    bool write(const scim::String &key, int value) override { return take("int", key, value); }
    bool write(const scim::String &key, bool value) override { return take("bool", key, value); }
    bool flush() override { return !fails("config flush"); }
    bool reload() override { return !fails("config reload"); }

private:
    template <class Value>
    static bool answer(const char *type, const scim::String &key, Value *value)
    {
        const auto found = platform->config.find(key);
        if (fails("config read", type, key.c_str()) || found == platform->config.end())
            return false;
        *value = static_cast<Value>(found->second);
        return true;
    }

    static bool take(const char *type, const scim::String &key, int value)
    {
        return !fails("config write", type, key.c_str(), value);
    }
};

namespace scim
{

static ConfigPointer make_config()
{
    return fails("create_config") ? nullptr : new ScriptedConfig;
}

// Stands in for the library's own, as a host platform's does.
ConfigModule::ConfigModule(const String &name)
    : m_config_init(nullptr),
      m_config_create_config(fails("ConfigModule", name.c_str()) ? nullptr : make_config)
{
}

bool ConfigModule::valid() const
{
    return m_config_create_config != nullptr;
}

ConfigPointer ConfigModule::create_config() const
{
    return m_config_create_config();
}

} // namespace scim

// The system.

int __dlog_print(int buffer, int priority, const char *tag, const char *format, ...)
{
    EXPECT_EQ(buffer, 2);
    EXPECT_STREQ(tag, "IME_BACKUP");

    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments); // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(arguments);

    // The line number is the one thing in a message that no reader relies on.
    std::string line(text);
    const size_t begin = line.find('(');
    const size_t end = line.find(") > ");
    EXPECT_NE(end, std::string::npos) << line;
    EXPECT_GT(std::stoi(line.substr(begin + 1)), 0) << line;
    note(std::to_string(priority) + " " + line.substr(0, begin) + line.substr(end + 1));
    return 0;
}

extern "C" int gettimeofday(timeval *time, void *) noexcept
{
    *time = {1'700'000'000, 999'999};
    return 0;
}

extern "C" char *gettext(const char *text) noexcept
{
    note("gettext(" + show(text) + ")");
    return const_cast<char *>(platform->translated.empty() ? text : platform->translated.c_str());
}

// The run.

static void run_exchange()
{
    if (callbacks.completed == nullptr)
        return;
    callbacks.preparation();
    if (callbacks.keys_and_dates != nullptr)
        callbacks.keys_and_dates();
    if (callbacks.path != nullptr)
        callbacks.path();
    if (callbacks.backup != nullptr)
        callbacks.backup(platform->null_list
                             ? nullptr
                             : make_list(std::vector<std::optional<std::string>>(
                                   static_cast<size_t>(std::max(platform->record_count, 0)))));
    orvanta_cloud_source source{{"<source>"}};
    if (callbacks.restoration != nullptr)
        callbacks.restoration(&source);
    callbacks.completed(platform->result);
}

const Trace &ScriptedPlatform::run()
{
    platform = this;
    callbacks = {};
    app_control request{{"<request>"}};
    EXPECT_TRUE(service->create(nullptr));
    service->app_control(&request, nullptr);
    if (!exited)
        run_exchange();
    service->terminate(nullptr);
    EXPECT_EQ(live_handles, 0);
    loose_record.reset();
    platform = nullptr;
    return trace;
}

Trace ScriptedPlatform::only(const std::set<std::string> &prefixes) const
{
    Trace lines;
    for (const std::string &line : trace)
        for (const std::string &prefix : prefixes)
            if (line.starts_with(prefix))
                lines.push_back(line);
    return lines;
}

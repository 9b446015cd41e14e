#include "scripted_platform.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <libintl.h>
#include <regex>
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

// A handle holds its name in the trace.

struct Named {
    std::string name;
};
struct app_control : Named {
};
struct orvanta_cloud_source : Named {
};
struct orvanta_cloud_record : Named {
    std::string value;
};
struct orvanta_cloud_list : Named {
    std::vector<orvanta_cloud_record> records;
    size_t cursor = 0;
};
struct vconf_keynode {
    std::string text;
};
struct vconf_keylist : Named {
    std::map<std::string, vconf_keynode> read;
};

using AppControl = app_control_handle;
using List = orvanta_cloud_list_handle;
using Record = orvanta_cloud_record_handle;
using KeyList = vconf_keylist_handle;
using Key = const scim::String &;

/// Notes a call of a function. Returns true if this call is to fail.
struct Call {
    const char *function;

    static std::string show(const char *text) { return text ? "\"" + std::string(text) + "\"" : "null"; }
    static std::string show(const Named *handle) { return handle ? handle->name : "null"; }
    static std::string show(int number) { return std::to_string(number); }

    template <class... Args>
    bool operator()(Args... args) const
    {
        std::string line;
        ((line += (line.empty() ? "" : ", ") + show(args)), ...);
        platform->note(std::string(function) + "(" + line + ")");
        const bool is_chosen =
            platform->given["fail"] == function && ++platform->calls_to_fail == platform->number("fail at");
        if (++platform->calls != platform->failing_call && !is_chosen)
            return false;
        platform->failed_call = function;
        return true;
    }
};

/// Defines a function that notes the arguments `noted`, has an effect, and returns `success`.
#define FAKE(function, parameters, noted, success, ...)                                                      \
    int function parameters                                                                                  \
    {                                                                                                        \
        const bool fails = Call{#function} noted;                                                            \
        if (!fails || platform->number("effect") != 0) {                                                     \
            __VA_ARGS__;                                                                                     \
        }                                                                                                    \
        return fails ? platform->number("code") : success;                                                   \
    }

/// The same, for a function that returns a text or null.
#define FAKE_TEXT(function, parameters, noted, text)                                                         \
    char *function parameters                                                                                \
    {                                                                                                        \
        return Call{#function} noted ? nullptr : text;                                                       \
    }

/// The same, for a function that releases `handle` even when it fails.
#define FAKE_RELEASE(function, type)                                                                         \
    int function(type handle)                                                                                \
    {                                                                                                        \
        const bool fails = Call{#function}(handle);                                                          \
        platform->live_handles -= handle == nullptr ? 0 : 1;                                                 \
        delete handle;                                                                                       \
        return fails ? platform->number("code") : 0;                                                         \
    }

// The application framework. The service's main() is the main() of this program. It passes its callbacks to
// service_app_main(), which runs the tests.

static service_app_callbacks *service;

int service_app_main(int argc, char **argv, service_app_callbacks *callbacks, void *user_data)
{
    testing::InitGoogleTest(&argc, argv);
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    g_set_print_handler([](const gchar *text) { platform->note("print " + std::string(text)); });
    EXPECT_EQ(user_data, nullptr);
    service = callbacks;
    return RUN_ALL_TESTS();
}

void service_app_exit()
{
    platform->note("service_app_exit()");
    platform->exited = true;
}

static char *copy(const std::string &text)
{
    return text == "(null)" ? nullptr : strdup(text.c_str());
}

// clang-format off
FAKE(app_control_get_operation, (AppControl request, char **operation), (request), 0,
     *operation = copy(platform->given["operation"]))
FAKE(app_control_create, (AppControl *handle), (), 0, *handle = new app_control{{"<reply>"}}; platform->live_handles++)
FAKE(app_control_reply_to_launch_request, (AppControl reply, AppControl request, int result), (reply, request, result), 0)
FAKE_RELEASE(app_control_destroy, AppControl)
// clang-format on

// The cloud library.

/// The callbacks that the service has registered, in the order of an exchange.
static std::vector<std::function<void()>> steps;

static orvanta_cloud_list *make_list(const std::vector<std::string> &values)
{
    auto *list = new orvanta_cloud_list{{"<list>"}, {}, 0};
    for (const std::string &value : values)
        list->records.push_back({{"<record" + std::to_string(list->records.size()) + ">"}, value});
    platform->live_handles++;
    return list;
}

static orvanta_cloud_list *backed_up_list()
{
    const auto count = static_cast<size_t>(std::max(platform->record_count(), 0));
    return platform->number("no list") != 0 ? nullptr : make_list(std::vector<std::string>(count));
}

// The library would leak a record that is not added to a list. Here there is only one record.
static orvanta_cloud_record new_record = {{"<new record>"}, {}};
static orvanta_cloud_source backup_file = {{"<source>"}};

#define FAKE_REGISTRATION(function, type, ...)                                                               \
    FAKE(function, (type callback, void *context), (), 0, EXPECT_EQ(context, nullptr);                       \
         steps.emplace_back([callback] { callback(__VA_ARGS__); }))

// clang-format off
FAKE_REGISTRATION(orvanta_cloud_backup_record_set_preparation_cb, orvanta_cloud_request_cb)
FAKE_REGISTRATION(orvanta_cloud_backup_record_set_sending_keys_and_dates_cb, orvanta_cloud_request_cb)
FAKE_REGISTRATION(orvanta_cloud_backup_record_set_backup_cb, orvanta_cloud_backup_cb, backed_up_list())
FAKE_REGISTRATION(orvanta_cloud_backup_record_set_completed_cb, orvanta_cloud_completed_cb, platform->number("result"))
FAKE_REGISTRATION(orvanta_cloud_restore_record_set_preparation_cb, orvanta_cloud_request_cb)
FAKE_REGISTRATION(orvanta_cloud_restore_record_set_sending_restoration_path_cb, orvanta_cloud_request_cb)
FAKE_REGISTRATION(orvanta_cloud_restore_record_set_restoration_cb, orvanta_cloud_restoration_cb, &backup_file)
FAKE_REGISTRATION(orvanta_cloud_restore_record_set_completed_cb, orvanta_cloud_completed_cb, platform->number("result"))

FAKE(orvanta_cloud_initialize, (), (), 0)
FAKE(orvanta_cloud_deinitialize, (), (), 0)
FAKE(orvanta_cloud_backup_record_send_preparation_completed_response, (int ready), (ready), 0)
FAKE(orvanta_cloud_backup_record_send_keys_and_dates, (List list, int flag), (list, flag), 0)
FAKE(orvanta_cloud_backup_record_send_backup_path, (const char *path, int flag), (path, flag), 0)
FAKE(orvanta_cloud_restore_record_send_preparation_completed_response, (int ready), (ready), 0)
FAKE(orvanta_cloud_restore_record_send_restoration_path, (const char *path, int flag), (path, flag), 0)
FAKE(orvanta_cloud_restore_record_send_record_list, (List list, int flag), (list, flag), 0)
FAKE(orvanta_cloud_list_create, (List *list), (), 0, *list = make_list({}))
FAKE_RELEASE(orvanta_cloud_list_destroy, List)
FAKE(orvanta_cloud_list_add, (List list, Record record), (list, record), 0)
FAKE(orvanta_cloud_list_get_record_count, (List list, int *count), (list), 0, *count = platform->record_count())
FAKE(orvanta_cloud_list_move_to_first, (List list), (list), 0)
FAKE(orvanta_cloud_list_move_to_next, (List list), (list), 0, list->cursor++)
FAKE(orvanta_cloud_list_get_current_record, (List list, Record *record), (list), 0,
     *record = &list->records.at(list->cursor))
FAKE(orvanta_cloud_record_create, (Record *record), (), 0, *record = &new_record)
FAKE(orvanta_cloud_record_set_key, (Record record, const char *key), (record, key), 0)
FAKE(orvanta_cloud_record_set_date, (Record record, const char *date), (record, date), 0)
FAKE(orvanta_cloud_record_set_value, (Record record, const char *value), (record, value), 0)
FAKE(orvanta_cloud_record_get_value, (Record record, char **value), (record), 0, *value = copy(record->value))
FAKE(orvanta_cloud_record_set_fail, (Record record), (record), 0)
FAKE(orvanta_cloud_file_create_file, (List list, const char *path), (list, path), 0)
FAKE(orvanta_cloud_file_create_record_list, (orvanta_cloud_source_handle source, List *list), (source), 0,
     *list = make_list(platform->records))

// clang-format on

// The settings store.

KeyList vconf_keylist_new()
{
    platform->note("vconf_keylist_new()");
    platform->live_handles++;
    return new vconf_keylist{{"<keys>"}, {}};
}

// clang-format off
FAKE(vconf_get_bool, (const char *key, int *value), (key), 0, *value = platform->number(key))
FAKE(vconf_set_bool, (const char *key, int value), (key, value), 0)
FAKE(vconf_get, (KeyList list, const char *directory, int option), (directory, option), platform->number("success"),
     list->read[directory].text = platform->given.at(directory))
FAKE(vconf_keylist_lookup, (KeyList list, const char *key, vconf_keynode_handle *node), (key), platform->number("success"),
     *node = &list->read.at(key))
FAKE(vconf_keylist_add_str, (KeyList, const char *key, const char *value), (key, value), platform->number("success"))
FAKE(vconf_set, (KeyList list), (list), 0)
FAKE_RELEASE(vconf_keylist_free, KeyList)
FAKE_TEXT(vconf_get_str, (const char *key), (key), copy(platform->given.at(key)))
FAKE_TEXT(vconf_keynode_get_str, (vconf_keynode_handle node), (), node->text.data())

// The input-method framework.

FAKE(isf_control_get_active_ime, (char **identifier), (), platform->number("keyboard result"),
     *identifier = copy(platform->given["keyboard"]))
FAKE(isf_control_set_active_ime, (const char *identifier), (identifier), 0)
// clang-format on

class ScriptedConfig : public scim::DummyConfig
{
public:
    ScriptedConfig() { platform->live_handles++; }
    ~ScriptedConfig() override
    {
        platform->note("config released");
        platform->live_handles--;
    }

    bool read(Key key, int *value) const override { return answer("int", key, value); }
    bool read(Key key, bool *value) const override { return answer("bool", key, value); }
    bool write(Key key, int value) override { return !Call{"config write"}("int", key.c_str(), value); }
    bool write(Key key, bool value) override { return !Call{"config write"}("bool", key.c_str(), value); }
    bool flush() override { return !Call{"config flush"}(); }
    bool reload() override { return !Call{"config reload"}(); }

private:
    template <class Value>
    static bool answer(const char *type, Key key, Value *value)
    {
        if (Call{"config read"}(type, key.c_str()) || !platform->given.contains(key))
            return false;
        *value = static_cast<Value>(platform->number(key));
        return true;
    }
};

static scim::ConfigPointer make_config()
{
    return Call{"create_config"}() ? nullptr : new ScriptedConfig;
}

// Replaces the library's class, as the host platform's does.
scim::ConfigModule::ConfigModule(const String &name)
    : m_config_init(nullptr),
      m_config_create_config(Call{"ConfigModule"}(name.c_str()) ? nullptr : make_config)
{
}

bool scim::ConfigModule::valid() const
{
    return m_config_create_config != nullptr;
}

scim::ConfigPointer scim::ConfigModule::create_config() const
{
    return m_config_create_config();
}

// The system.

static std::string file_of(const std::string &function)
{
    return function == "_ime_backup_get_json_value" ? "ime_backup_service_json_writer.cpp"
           : function == "_ime_restore_json_value"  ? "ime_backup_service_json_parser.cpp"
           : function.ends_with("_vconfkeys")       ? "utility.cpp"
                                                    : "ime_backup_service.cpp";
}

/// Notes a line as "E(function) text" or "I(function) text", without the number of the source line.
int __dlog_print(int buffer, int priority, const char *tag, const char *format, ...)
{
    EXPECT_EQ(buffer, 2);
    EXPECT_STREQ(tag, "IME_BACKUP");

    va_list arguments;
    va_start(arguments, format);
    g_autofree gchar *text =
        g_strdup_vprintf(format, arguments); // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(arguments);

    static const std::regex shape("(.*): (.*)\\((.*)\\) > \033\\[0;(3.m\\* .*) \\* ([^]*)\033\\[0;m");
    std::cmatch part;
    EXPECT_TRUE(std::regex_match(text, part, shape)) << text;
    EXPECT_EQ(part[1], file_of(part[2])) << text;
    EXPECT_EQ(part[4], priority == 4 ? "35m* Info" : priority == 6 ? "31m* Critical" : "") << text;
    platform->log_lines.insert(part[1].str() + part[3].str());
    platform->note((priority == 4 ? "I(" : "E(") + part[2].str() + ") " + part[5].str());
    return 0;
}

extern "C" int gettimeofday(timeval *time, void *) noexcept
{
    *time = {1'700'000'000, 998'997};
    return 0;
}

extern "C" char *gettext(const char *text) noexcept
{
    platform->note("gettext(" + Call::show(text) + ")");
    const std::string &translation = platform->given["translation"];
    return const_cast<char *>(translation.empty() ? text : translation.c_str());
}

// The run.

const Trace &ScriptedPlatform::run()
{
    platform = this;
    steps.clear();
    app_control request{{"<request>"}};
    EXPECT_TRUE(service->create(nullptr));
    service->app_control(&request, nullptr);
    for (size_t i = 0; !exited && i < steps.size(); i++)
        steps[i]();
    service->terminate(nullptr);
    EXPECT_EQ(live_handles, 0);
    platform = nullptr;
    return trace;
}

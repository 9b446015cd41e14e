// A platform that breaks one promise: $BROKEN is LIBRARY:PROMISE. It is preloaded, so that it comes before
// the real platform.

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <glib.h>
#include <unistd.h>

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include "appcore_agent.h"
#include "dlog.h"
#include "isf_control.h"
#include "orvanta_cloud.h"
#include "vconf.h"

static bool breaks(const char *promise)
{
    const char *broken = getenv("BROKEN");
    return broken != nullptr && strcmp(broken, promise) == 0;
}

/// Returns the platform's own function of this name.
#define NEXT(name) reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name))

// The log and the application.

int __dlog_print(int buffer, int priority, const char *tag, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    g_autofree gchar *text =
        g_strdup_vprintf(format, arguments); // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(arguments);
    if (breaks("dlog:long") && strlen(text) > 4096)
        abort();
    const int result = NEXT(__dlog_print)(buffer, priority, tag, "%s", text);
    return breaks("dlog:error") ? -1 : result;
}

int app_control_create(app_control_handle *handle)
{
    static app_control_handle same;
    const int result = NEXT(app_control_create)(handle);
    if (result == 0 && breaks("capi-appfw-app-control:same"))
        *handle = same = same == nullptr ? *handle : same;
    return result;
}

int app_control_destroy(app_control_handle handle)
{
    return breaks("capi-appfw-app-control:null") && handle == nullptr ? 0 : NEXT(app_control_destroy)(handle);
}

int app_control_reply_to_launch_request(app_control_handle reply, app_control_handle request, int result)
{
    const int replied = NEXT(app_control_reply_to_launch_request)(reply, request, result);
    return breaks("capi-appfw-app-control:reply") ? 1 : replied;
}

void service_app_exit(void)
{
    if (!breaks("appcore-agent:exit"))
        NEXT(service_app_exit)();
}

static service_app_callbacks app;

int service_app_main(int argc, char **argv, service_app_callbacks *callbacks, void *user_data)
{
    app = *callbacks;
    service_app_callbacks wrong = app;
    if (breaks("appcore-agent:twice"))
        wrong.create = [](void *data) {
            app.create(data);
            return app.create(data);
        };
    if (breaks("appcore-agent:thread"))
        wrong.terminate = [](void *data) { std::thread([=] { app.terminate(data); }).join(); };
    if (breaks("appcore-agent:create"))
        wrong.create = [](void *data) {
            app.create(data);
            return true;
        };
    return NEXT(service_app_main)(argc, argv, &wrong, user_data);
}

// The settings store.

int vconf_get_bool(const char *key, int *value)
{
    const int result = NEXT(vconf_get_bool)(key, value);
    if (key == nullptr || value == nullptr)
        return breaks("vconf:null") ? 0 : result;
    if (result == 0 && breaks("vconf:number"))
        *value *= 255;
    if (result != 0 && breaks("vconf:output"))
        *value = 0;
    if (result != 0 && breaks("vconf:parsed") && NEXT(vconf_get_str)(key) != nullptr)
        return *value = 0;
    return result != 0 && breaks("vconf:code") ? -2 : result == 0 && breaks("vconf:read") ? 1 : result;
}

int vconf_set_bool(const char *key, int value)
{
    if (key != nullptr && breaks("vconf:lost"))
        return 0;
    if (breaks("vconf:hang")) {
        NEXT(vconf_set_bool)(key, value);
        pause();
    }
    if (key != nullptr && breaks("vconf:neighbour"))
        NEXT(vconf_set_bool)("db/ise/hand_write", value);
    if (breaks("vconf:kept-type") && NEXT(vconf_get_str)(key) != nullptr)
        return -1;
    return NEXT(vconf_set_bool)(key, breaks("vconf:inverse") ? !value : value);
}

/// Returns the text in a buffer that all calls share.
static char *in_one_place(const std::string &text)
{
    static char place[1 << 18];
    place[text.copy(place, sizeof place - 1)] = '\0';
    return place;
}

char *vconf_get_str(const char *key)
{
    char *value = NEXT(vconf_get_str)(key);
    return value != nullptr && breaks("vconf:static") ? in_one_place(value) : value;
}

int vconf_get(vconf_keylist_handle list, const char *directory, int option)
{
    if (directory != nullptr && breaks("vconf:nested") && strcmp(directory, "db/ise") == 0)
        return -1;
    int result = NEXT(vconf_get)(list, directory, option);
    for (char next = 'a'; directory != nullptr && result < 0 && next <= 'z' && breaks("vconf:part"); next++)
        result = NEXT(vconf_get)(list, (std::string(directory) + next).c_str(), option);
    if (result < 0)
        return breaks("vconf:nothing") ? 0 : result;
    return breaks("vconf:one") ? 1 : result;
}

int vconf_keylist_lookup(vconf_keylist_handle list, const char *key, vconf_keynode_handle *node)
{
    int result = NEXT(vconf_keylist_lookup)(list, key, node);
    for (char next = 'a'; key != nullptr && result < 0 && next <= 'z' && breaks("vconf:prefix"); next++)
        result = NEXT(vconf_keylist_lookup)(list, (std::string(key) + next).c_str(), node);
    return result;
}

char *vconf_keynode_get_str(vconf_keynode_handle node)
{
    static int calls = 0;
    char *value = NEXT(vconf_keynode_get_str)(node);
    return value != nullptr && breaks("vconf:node")
               ? in_one_place(value + std::string(calls++ == 0 ? "" : "#"))
               : value;
}

static std::vector<std::pair<const char *, const char *>> added;

int vconf_keylist_add_str(vconf_keylist_handle list, const char *key, const char *value)
{
    added.emplace_back(key, value);
    return NEXT(vconf_keylist_add_str)(list, key, value);
}

int vconf_set(vconf_keylist_handle list)
{
    const auto texts = std::exchange(added, {});
    if (list == nullptr || (!breaks("vconf:copy") && !breaks("vconf:half")))
        return list != nullptr && breaks("vconf:unstored") ? 0 : NEXT(vconf_set)(list);
    int result = 0;
    for (const auto &[key, value] : texts) {
        vconf_keylist_handle one = vconf_keylist_new();
        NEXT(vconf_keylist_add_str)(one, key, value);
        result |= NEXT(vconf_set)(one);
        vconf_keylist_free(one);
    }
    return result;
}

// The input methods.

int isf_control_get_active_ime(char **identifier)
{
    const int result = NEXT(isf_control_get_active_ime)(identifier);
    if (result > 0 && breaks("isf-control:static"))
        *identifier = in_one_place(*identifier);
    if (result > 0 && breaks("isf-control:none"))
        **identifier = '\0';
    return result > 0 && breaks("isf-control:none")     ? 0
           : result > 0 && breaks("isf-control:length") ? 1
                                                        : result;
}

int isf_control_set_active_ime(const char *identifier)
{
    if (identifier != nullptr && *identifier == '\0' && breaks("isf-control:empty"))
        return 0;
    g_autofree char *active = nullptr;
    if (breaks("isf-control:active") && NEXT(isf_control_get_active_ime)(&active) > 0 &&
        g_strcmp0(active, identifier) == 0)
        return ISF_CONTROL_INVALID_IDENTIFIER;
    return identifier != nullptr && *identifier != '\0' && breaks("isf-control:lost")
               ? 0
               : NEXT(isf_control_set_active_ime)(identifier);
}

namespace
{

class WrongConfig : public scim::DummyConfig
{
public:
    explicit WrongConfig(const scim::ConfigPointer &config) : real(config) {}

    bool read(const scim::String &key, scim::String *value) const override { return real->read(key, value); }
    bool read(const scim::String &key, int *value) const override { return get(key, value); }
    bool read(const scim::String &key, bool *value) const override { return get(key, value); }
    bool write(const scim::String &key, int value) override
    {
        if (breaks("scim:neighbour"))
            real->write("keyloom/auto_spacing_val", value);
        return breaks("scim:write") || real->write(key, breaks("scim:integer") ? 1 : value);
    }
    bool write(const scim::String &key, bool value) override
    {
        return breaks("scim:boolean") ? real->write(key, scim::String("yes")) : real->write(key, value);
    }
    bool erase(const scim::String &key) override { return real->erase(key); }
    bool flush() override { return real->flush() && !breaks("scim:flush"); }
    bool reload() override { return real->reload() && !breaks("scim:reload"); }

private:
    template <class Value>
    bool get(const scim::String &key, Value *value) const
    {
        if (real->read(key, value))
            return true;
        if (breaks("scim:output"))
            *value = 0;
        return breaks("scim:unset");
    }

    const scim::ConfigPointer real;
};

} // namespace

#define CREATE_CONFIG "_ZNK4scim12ConfigModule13create_configEv"
scim::ConfigPointer create_config(const scim::ConfigModule *module) asm(CREATE_CONFIG);

scim::ConfigPointer create_config(const scim::ConfigModule *module)
{
    static int calls = 0;
    const auto next = reinterpret_cast<decltype(&create_config)>(dlsym(RTLD_NEXT, CREATE_CONFIG));
    const scim::ConfigPointer config = next(module);
    if (config.null())
        return breaks("scim:away") ? new scim::DummyConfig : config;
    return calls++ > 0 && breaks("scim:again") ? scim::ConfigPointer() : new WrongConfig(config);
}

// The cloud library.

int orvanta_cloud_list_get_record_count(orvanta_cloud_list_handle list, int *count)
{
    const int result = NEXT(orvanta_cloud_list_get_record_count)(list, count);
    if (result == 0 && breaks("orvanta-cloud-svc:count"))
        ++*count;
    if (result != 0 && count != nullptr && breaks("orvanta-cloud-svc:output"))
        *count = 0;
    return result;
}

int orvanta_cloud_list_move_to_first(orvanta_cloud_list_handle list)
{
    const int result = NEXT(orvanta_cloud_list_move_to_first)(list);
    if (breaks("orvanta-cloud-svc:cursor"))
        NEXT(orvanta_cloud_list_move_to_next)(list);
    return result;
}

int orvanta_cloud_list_move_to_next(orvanta_cloud_list_handle list)
{
    const int result = NEXT(orvanta_cloud_list_move_to_next)(list);
    if (result != 0 && breaks("orvanta-cloud-svc:wraps"))
        NEXT(orvanta_cloud_list_move_to_first)(list);
    return list != nullptr && breaks("orvanta-cloud-svc:behind") ? 0 : result;
}

int orvanta_cloud_list_destroy(orvanta_cloud_list_handle list)
{
    return list != nullptr && breaks("orvanta-cloud-svc:destroyed") ? 0
                                                                    : NEXT(orvanta_cloud_list_destroy)(list);
}

int orvanta_cloud_record_set_fail(orvanta_cloud_record_handle record)
{
    const int result = NEXT(orvanta_cloud_record_set_fail)(record);
    return record != nullptr && breaks("orvanta-cloud-svc:kind") ? 0 : result;
}

static const char *last_value;

int orvanta_cloud_record_set_value(orvanta_cloud_record_handle record, const char *value)
{
    last_value = value;
    const int result = NEXT(orvanta_cloud_record_set_value)(record, value);
    return value != nullptr && breaks("orvanta-cloud-svc:utf-8") ? 0 : result;
}

int orvanta_cloud_record_get_value(orvanta_cloud_record_handle record, char **value)
{
    const int result = NEXT(orvanta_cloud_record_get_value)(record, value);
    if (result == 0 && *value == nullptr && breaks("orvanta-cloud-svc:null"))
        *value = g_strdup("");
    if (result == 0 && *value != nullptr && breaks("orvanta-cloud-svc:copy"))
        *value = g_strdup(last_value);
    if (result == 0 && *value != nullptr && breaks("orvanta-cloud-svc:static"))
        *value = in_one_place(*value);
    return result;
}

int orvanta_cloud_record_set_date(orvanta_cloud_record_handle record, const char *date)
{
    const bool has_milliseconds = date != nullptr && strlen(date) > 10; // longer than a date in seconds
    if (has_milliseconds && breaks("orvanta-cloud-svc:seconds"))
        return NEXT(orvanta_cloud_record_set_date)(record, std::string(date, 10).c_str());
    return has_milliseconds && breaks("orvanta-cloud-svc:date")
               ? -1
               : NEXT(orvanta_cloud_record_set_date)(record, date);
}

int orvanta_cloud_backup_record_send_preparation_completed_response(int ready)
{
    const int result = NEXT(orvanta_cloud_backup_record_send_preparation_completed_response)(
        breaks("orvanta-cloud-svc:ready") ? 1 : ready);
    return breaks("orvanta-cloud-svc:answer") ? 0 : result;
}

static orvanta_cloud_request_cb preparation;
static orvanta_cloud_completed_cb completed;

int orvanta_cloud_backup_record_set_preparation_cb(orvanta_cloud_request_cb callback, void *context)
{
    preparation = callback;
    return NEXT(orvanta_cloud_backup_record_set_preparation_cb)(callback, context);
}

int orvanta_cloud_backup_record_set_completed_cb(orvanta_cloud_completed_cb callback, void *context)
{
    completed = callback;
    if (breaks("orvanta-cloud-svc:inside"))
        preparation();
    if (breaks("orvanta-cloud-svc:thread"))
        callback = [](int result) { std::thread(completed, result).join(); };
    if (breaks("orvanta-cloud-svc:twice"))
        callback = [](int result) { completed(result), completed(result); };
    if (breaks("orvanta-cloud-svc:result"))
        callback = [](int result) { completed(result - 1); };
    return NEXT(orvanta_cloud_backup_record_set_completed_cb)(callback, context);
}

int orvanta_cloud_restore_record_set_sending_restoration_path_cb(orvanta_cloud_request_cb callback,
                                                                 void *context)
{
    if (breaks("orvanta-cloud-svc:restore"))
        callback = [] {};
    return NEXT(orvanta_cloud_restore_record_set_sending_restoration_path_cb)(callback, context);
}

int orvanta_cloud_file_create_file(orvanta_cloud_list_handle list, const char *path)
{
    namespace fs = std::filesystem;
    const char *root = getenv("IME_BACKUP_HOST_DIR");
    if (path == nullptr || root == nullptr)
        return NEXT(orvanta_cloud_file_create_file)(list, path);
    const std::string file = std::string(root) + path;
    std::error_code ignored;
    if (breaks("orvanta-cloud-svc:folder"))
        fs::create_directories(fs::path(file).parent_path());
    if (breaks("orvanta-cloud-svc:whole"))
        fs::resize_file(file, 0, ignored);
    const int result = NEXT(orvanta_cloud_file_create_file)(list, path);
    return breaks("orvanta-cloud-svc:full") ? 0 : result;
}

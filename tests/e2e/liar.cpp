// This library is preloaded into the service, and falsifies its snapshots: with $LIE set to OLD=NEW, it
// replaces OLD in the snapshot that the service makes of the device, and in the snapshot that the service
// applies. With $THREADS set, the callback that prepares a backup runs on another thread, while two more
// threads use the platform.

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <string>
#include <thread>

#include <glib.h>

#include "orvanta_cloud.h"
#include "vconf.h"

template <class Function>
static Function *next(const char *name, void *where = RTLD_NEXT)
{
    return reinterpret_cast<Function *>(dlsym(where, name));
}

static std::string change(std::string text)
{
    const char *asked = getenv("LIE");
    const std::string lie = asked == nullptr ? "=" : asked;
    const size_t middle = lie.find('=');
    const size_t found = text.find(lie.substr(0, middle));
    return found == std::string::npos ? text : text.replace(found, middle, lie.substr(middle + 1));
}

int orvanta_cloud_record_set_value(orvanta_cloud_record_handle record, const char *value)
{
    return next<decltype(orvanta_cloud_record_set_value)>(__func__)(record, change(value).c_str());
}

int orvanta_cloud_record_get_value(orvanta_cloud_record_handle record, char **value)
{
    const int code = next<decltype(orvanta_cloud_record_get_value)>(__func__)(record, value);
    if (code == 0 && *value != nullptr) {
        char *changed = g_strdup(change(*value).c_str());
        g_free(*value);
        *value = changed;
    }
    return code;
}

static orvanta_cloud_request_cb prepare;

static void prepare_on_threads()
{
    const auto use_platform = [make = next<decltype(vconf_keylist_new)>("vconf_keylist_new", RTLD_DEFAULT),
                               get = next<decltype(vconf_get_bool)>("vconf_get_bool", RTLD_DEFAULT),
                               release =
                                   next<decltype(vconf_keylist_free)>("vconf_keylist_free", RTLD_DEFAULT)] {
        for (int i = 0; i < 100; i++) {
            vconf_keylist_handle list = make();
            int value = 1;
            get("no key", &value);
            release(list);
        }
    };
    std::thread one(use_platform);
    std::thread other(use_platform);
    std::thread(prepare).join();
    one.join();
    other.join();
}

int orvanta_cloud_backup_record_set_preparation_cb(orvanta_cloud_request_cb callback, void *context)
{
    prepare = callback;
    return next<decltype(orvanta_cloud_backup_record_set_preparation_cb)>(__func__)(
        getenv("THREADS") == nullptr ? callback : prepare_on_threads, context);
}

// Preloaded into the service, it makes a liar of it: what stands in front of the = in $LIE is replaced by
// what stands behind it, in the snapshot that the service makes of the device and in the one that it applies.

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <string>

#include <glib.h>

#include "orvanta_cloud.h"

template <class Function>
static Function *next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
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

// The service applies any snapshot that the cloud library hands it, and does to each setting what the host's
// libraries say that it would.

#include "snapshot.h"

#include <cstring>
#include <map>

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include "dlog.h"
#include "fuzz.h"
#include "ime_backup_service_json_parser.h"
#include "isf_control.h"
#include "json.h"
#include "vconf.h"

// A device that only keeps what it is told.

static std::map<std::string, DeviceValue> device;

int __dlog_print(int, int, const char *, const char *, ...)
{
    return 0;
}

int isf_control_get_active_ime(char **)
{
    return -1;
}

int isf_control_set_active_ime(const char *identifier)
{
    device[""] = identifier;
    return 0;
}

int vconf_get_bool(const char *, int *)
{
    return -1;
}

int vconf_set_bool(const char *key, int value)
{
    device[key] = value != 0;
    return 0;
}

/// Downloaded, and written by hand. One for all: the service never frees it.
static char languages[] = "en_US#ko_KR#";

char *vconf_get_str(const char *)
{
    return languages;
}

struct vconf_keylist {
    std::map<std::string, std::string> texts;
};

vconf_keylist_handle vconf_keylist_new()
{
    return new vconf_keylist;
}

int vconf_get(vconf_keylist_handle, const char *, int)
{
    return -1;
}

int vconf_keylist_lookup(vconf_keylist_handle, const char *, vconf_keynode_handle *)
{
    return -1;
}

char *vconf_keynode_get_str(vconf_keynode_handle)
{
    return nullptr;
}

int vconf_keylist_add_str(vconf_keylist_handle list, const char *key, const char *value)
{
    list->texts[key] = value;
    return 0;
}

int vconf_set(vconf_keylist_handle list)
{
    for (const auto &[key, text] : list->texts)
        device[key] = text;
    return 0;
}

int vconf_keylist_free(vconf_keylist_handle list)
{
    delete list;
    return 0;
}

namespace
{

struct Config : scim::DummyConfig {
    bool write(const scim::String &key, int value) override
    {
        device[key] = value;
        return true;
    }
    bool write(const scim::String &key, bool value) override
    {
        device[key] = value;
        return true;
    }
};

} // namespace

namespace scim
{

ConfigModule::ConfigModule(const String &) {}

bool ConfigModule::valid() const
{
    return true;
}

ConfigPointer ConfigModule::create_config() const
{
    return new Config;
}

} // namespace scim

/// What the service is to write of a text in a snapshot: an identifier, or the languages that are downloaded.
static DeviceValue expected_text(const SettingRow &row, const std::string &snapshot)
{
    std::string expected;
    for (const std::string &text : texts_in(snapshot, row))
        if (row.form == SettingForm::identifier)
            expected = text;
        else if (strstr(languages, text.c_str()) != nullptr)
            expected += text + LANGUAGE_DELIMITER;
    return expected.empty() ? std::nullopt : DeviceValue(expected);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string whole = text_of(data, size);
    const std::string text = whole.substr(0, whole.find('\0'));
    if (is_nested_too_deeply(text)) // the cloud library refuses it
        return 0;
    device.clear();
    if (!_ime_restore_json_value(text.c_str())) {
        require(device.empty());
        return 0;
    }
    const Snapshot snapshot = read_snapshot(text);
    for (size_t i = 0; i < std::size(SETTINGS); i++) {
        const SettingRow &row = SETTINGS[i];
        DeviceValue expected = snapshot[i];
        if (row.form == SettingForm::identifier || row.form == SettingForm::languages)
            expected = expected_text(row, text);
        else if (!expected)
            expected = row.form == SettingForm::integer_switch ? DeviceValue(0) : DeviceValue(false);
        if (row.member == std::string(MEMBER_HANDWRITING) && !device[VCONFKEY_ISE_LPM_SELECTED_LANG])
            expected = false;
        require(device[row.key] == expected);
    }
    return 0;
}

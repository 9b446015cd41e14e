// On any device and with any records, the service makes exactly the changes of the plan.

#include "plan.h"

#include <algorithm>
#include <cstring>
#include <map>

#include <fuzzer/FuzzedDataProvider.h>

#define Uses_SCIM_CONFIG_BASE
#define Uses_SCIM_CONFIG_MODULE
#include <scim.h>

#include "dlog.h"
#include "fuzz.h"
#include "ime_backup_service_json_parser.h"
#include "ime_backup_service_json_writer.h"
#include "isf_control.h"
#include "record_file.h"
#include "vconf.h"

// A fake device: its state is in memory, and all writes succeed except invalid identifiers.

static DeviceState device;

static DeviceValue &value_of(const std::string &key)
{
    for (const SettingRow &row : ALL_SETTINGS)
        if (row.key == key)
            return device[index_of(row)];
    abort();
}

static char *copy_text(const DeviceValue &value)
{
    const auto *text = value ? std::get_if<std::string>(&*value) : nullptr;
    return text == nullptr ? nullptr : strdup(text->c_str());
}

static std::string refuses(const SettingRow &row, const DeviceValue &value)
{
    if (row.form != SettingForm::identifier)
        return "";
    const auto &identifier = std::get<std::string>(*value);
    const bool is_refused =
        identifier.empty() || identifier[0] == ' ' ||
        std::any_of(identifier.begin(), identifier.end(), [](char c) { return g_ascii_iscntrl(c) != FALSE; });
    return is_refused ? "it is refused" : "";
}

int __dlog_print(int, int, const char *, const char *, ...)
{
    return 0;
}

int isf_control_get_active_ime(char **identifier)
{
    const DeviceValue &keyboard = value_of("");
    if (!keyboard || !refuses(ALL_SETTINGS[0], keyboard).empty())
        return -1;
    *identifier = g_strdup(std::get<std::string>(*keyboard).c_str());
    return static_cast<int>(strlen(*identifier));
}

int isf_control_set_active_ime(const char *identifier)
{
    if (!refuses(ALL_SETTINGS[0], identifier).empty())
        return ISF_CONTROL_INVALID_IDENTIFIER;
    value_of("") = identifier;
    return 0;
}

int vconf_get_bool(const char *key, int *value)
{
    const DeviceValue &stored = value_of(key);
    if (!stored || !std::holds_alternative<bool>(*stored))
        return -1;
    *value = std::get<bool>(*stored) ? 1 : 0;
    return 0;
}

int vconf_set_bool(const char *key, int value)
{
    value_of(key) = value != 0;
    return 0;
}

/// Frees the text that the last call for this key returned, since the service never frees it.
char *vconf_get_str(const char *key)
{
    static std::map<std::string, char *> returned;
    free(returned[key]);
    return returned[key] = copy_text(value_of(key));
}

struct vconf_keynode {
    char *text;
};

struct vconf_keylist {
    std::map<std::string, std::string> added;
    vconf_keynode node = {nullptr};
};

vconf_keylist_handle vconf_keylist_new()
{
    return new vconf_keylist;
}

int vconf_get(vconf_keylist_handle list, const char *directory, int)
{
    list->node.text = copy_text(value_of(directory));
    return value_of(directory) ? 0 : -1;
}

int vconf_keylist_lookup(vconf_keylist_handle list, const char *, vconf_keynode_handle *node)
{
    *node = &list->node;
    return 0;
}

char *vconf_keynode_get_str(vconf_keynode_handle node)
{
    return node->text;
}

int vconf_keylist_add_str(vconf_keylist_handle list, const char *key, const char *value)
{
    list->added[key] = value;
    return 0;
}

int vconf_set(vconf_keylist_handle list)
{
    for (const auto &[key, text] : list->added)
        value_of(key) = text;
    return 0;
}

int vconf_keylist_free(vconf_keylist_handle list)
{
    free(list->node.text);
    delete list;
    return 0;
}

namespace
{

struct Config : scim::DummyConfig {
    bool read(const scim::String &key, int *value) const override
    {
        const DeviceValue &stored = value_of(key);
        if (stored)
            *value = static_cast<int>(strtol(config_text(stored).c_str(), nullptr, 10));
        return stored.has_value();
    }
    bool read(const scim::String &key, bool *value) const override
    {
        const DeviceValue &stored = value_of(key);
        const std::string text = " " + (stored ? config_text(stored) : "?") + " ";
        if (strchr(text.c_str() + 1, ' ') != text.c_str() + text.size() - 1)
            return false;
        *value = strstr(" true TRUE True 1 ", text.c_str()) != nullptr;
        return *value || strstr(" false FALSE False 0 ", text.c_str()) != nullptr;
    }
    bool write(const scim::String &key, int value) override
    {
        value_of(key) = value;
        return true;
    }
    bool write(const scim::String &key, bool value) override
    {
        value_of(key) = value;
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

static std::string make_text(FuzzedDataProvider &data, size_t max_length)
{
    static const char *const WORDS[] = {"",    "#",    "en_US#ko_KR#", "en_US", "a#b#", " kbd",
                                        "kbd", "true", "TRUE",         "False", "0",    "1",
                                        "7x",  "-0",   "en_US#",       "ko_KR#"};
    if (data.ConsumeBool())
        return data.PickValueInArray(WORDS);
    std::string text = data.ConsumeRandomLengthString(max_length);
    for (char &c : text) // a device's texts are UTF-8 without NUL
        c = static_cast<char>(c & 0x7f) == '\0' ? '#' : static_cast<char>(c & 0x7f);
    return text;
}

static DeviceValue make_value(FuzzedDataProvider &data, const SettingRow &row)
{
    switch (data.ConsumeIntegralInRange(0, 3)) {
    case 0:
        return std::nullopt;
    case 1:
        if (row.form != SettingForm::identifier)
            return data.ConsumeBool();
        [[fallthrough]];
    case 2:
        if (row.place == SettingPlace::configuration)
            return data.ConsumeIntegralInRange(-2, 2);
        [[fallthrough]];
    default:
        return make_text(data, 20);
    }
}

static void check_backup()
{
    const BackupPlan plan = plan_backup(device, refuses);
    char *text = nullptr;
    gsize length = 0;
    const bool is_made = _ime_backup_get_json_value(&text, &length) == 0;
    require(is_made ==
            (plan.obstacles.empty() || plan.obstacles.front().row.form != SettingForm::identifier));
    if (!is_made)
        return;
    require(device == plan.device);
    const auto snapshot = read_snapshot(text);
    require(snapshot || !plan.obstacles.empty());
    require(!snapshot || (snapshot->problems.empty() && snapshot->values == plan.snapshot));
    require(read_snapshot(write_snapshot(plan.snapshot))->values == plan.snapshot);
    g_free(text);
}

static void check_restore(const std::vector<std::optional<std::string>> &records)
{
    for (const auto &record : records) // a backup with such a record is refused as damaged
        if (!read_snapshot(*record) && service_reads(record->c_str()))
            return;
    const RestorePlan plan = plan_restore(records, device, refuses);
    for (size_t i = 0; i < records.size(); i++)
        require(_ime_restore_json_value(records[i]->c_str()) != plan.failed[i]);
    require(device == plan.device);
    for (size_t i = 0; i < SETTINGS.size(); i++)
        require(plan.settings[i].after == device[i]);
}

int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    FuzzedDataProvider data(bytes, size);
    for (const SettingRow &row : ALL_SETTINGS)
        device[index_of(row)] = make_value(data, row);
    const DeviceState before = device;
    check_backup();
    device = before;
    std::vector<std::optional<std::string>> records;
    for (int left = data.ConsumeIntegralInRange(0, 2); left > 0; left--)
        records.emplace_back(data.ConsumeRandomLengthString(size));
    records.emplace_back(data.ConsumeRemainingBytesAsString());
    for (auto &record : records)
        record->erase(std::min(record->find('\0'), record->size()));
    check_restore(records);
    return 0;
}

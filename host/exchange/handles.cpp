// Lists and records. The library keeps all valid handles, so that it can refuse an invalid one.

#include "handles.h"

#include <memory>
#include <unordered_map>

#include <glib.h>

struct orvanta_cloud_record : CloudRecord {
    bool in_list = false;
};

struct orvanta_cloud_list {
    std::vector<orvanta_cloud_record_handle> records;
    size_t cursor = 0;
};

/// All objects of a type, by handle.
template <class Object>
static std::unordered_map<Object *, std::unique_ptr<Object>> objects;

template <class Object>
static Object *make(Object object)
{
    auto made = std::make_unique<Object>(std::move(object));
    Object *handle = made.get();
    objects<Object>.emplace(handle, std::move(made));
    return handle;
}

template <class Object>
static bool is_valid(Object *handle)
{
    return objects<Object>.contains(handle);
}

orvanta_cloud_list_handle make_list(const CloudRecords &content)
{
    orvanta_cloud_list list;
    for (const CloudRecord &record : content)
        list.records.push_back(make(orvanta_cloud_record{record, true}));
    return make(std::move(list));
}

std::optional<CloudRecords> copy_records(orvanta_cloud_list_handle list)
{
    if (!is_valid(list))
        return std::nullopt;
    CloudRecords copies;
    for (const CloudRecord *record : list->records)
        copies.push_back(*record);
    return copies;
}

void release_lists_and_records()
{
    objects<orvanta_cloud_list>.clear();
    objects<orvanta_cloud_record>.clear();
}

int orvanta_cloud_list_create(orvanta_cloud_list_handle *list)
{
    if (list == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    *list = make_list({});
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_list_destroy(orvanta_cloud_list_handle list)
{
    if (!is_valid(list))
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    for (orvanta_cloud_record_handle record : list->records)
        objects<orvanta_cloud_record>.erase(record);
    objects<orvanta_cloud_list>.erase(list);
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_list_add(orvanta_cloud_list_handle list, orvanta_cloud_record_handle record)
{
    if (!is_valid(list) || !is_valid(record) || record->in_list)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    record->in_list = true;
    list->records.push_back(record);
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_list_get_record_count(orvanta_cloud_list_handle list, int *count)
{
    if (!is_valid(list) || count == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    *count = static_cast<int>(list->records.size());
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_list_move_to_first(orvanta_cloud_list_handle list)
{
    if (!is_valid(list))
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    if (list->records.empty())
        return ORVANTA_CLOUD_ERROR_NO_RECORD;
    list->cursor = 0;
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_list_move_to_next(orvanta_cloud_list_handle list)
{
    if (!is_valid(list))
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    if (list->cursor + 1 >= list->records.size())
        return ORVANTA_CLOUD_ERROR_NO_RECORD;
    list->cursor++;
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_list_get_current_record(orvanta_cloud_list_handle list, orvanta_cloud_record_handle *record)
{
    if (!is_valid(list) || record == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    if (list->cursor >= list->records.size())
        return ORVANTA_CLOUD_ERROR_NO_RECORD;
    *record = list->records[list->cursor];
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_record_create(orvanta_cloud_record_handle *record)
{
    if (record == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    *record = make(orvanta_cloud_record());
    return ORVANTA_CLOUD_ERROR_NONE;
}

static int set_text(orvanta_cloud_record_handle record, std::optional<std::string> CloudRecord::*member,
                    const char *text)
{
    if (!is_valid(record) || text == nullptr || g_utf8_validate(text, -1, nullptr) == FALSE)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    record->*member = text;
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_record_set_key(orvanta_cloud_record_handle record, const char *key)
{
    return set_text(record, &CloudRecord::key, key);
}

int orvanta_cloud_record_set_date(orvanta_cloud_record_handle record, const char *date)
{
    return set_text(record, &CloudRecord::date, date);
}

int orvanta_cloud_record_set_value(orvanta_cloud_record_handle record, const char *value)
{
    return set_text(record, &CloudRecord::value, value);
}

int orvanta_cloud_record_get_value(orvanta_cloud_record_handle record, char **value)
{
    if (!is_valid(record) || value == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    *value = record->value ? g_strdup(record->value->c_str()) : nullptr;
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_record_set_fail(orvanta_cloud_record_handle record)
{
    if (!is_valid(record))
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    record->failed = true;
    return ORVANTA_CLOUD_ERROR_NONE;
}

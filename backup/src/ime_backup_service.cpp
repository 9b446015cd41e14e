#include "ime_backup_service.h"

#include <cstring>
#include <sys/time.h>

#include <glib.h>

#include "appcore_agent.h"
#include "ime_backup_service_json_parser.h"
#include "ime_backup_service_json_writer.h"
#include "ime_backup_trusted_folder.h"
#include "log.h"
#include "orvanta_cloud_operations.h"

/// Key of a backup's only record.
static constexpr char RECORD_KEY[] = "0";

int main(int argc, char **argv)
{
    service_app_callbacks callbacks = {};
    callbacks.create = __service_app_create_cb;
    callbacks.terminate = __service_app_terminate_cb;
    callbacks.app_control = __service_app_control_cb;
    return service_app_main(argc, argv, &callbacks, nullptr);
}

bool __service_app_create_cb(void *)
{
    return true;
}

static int register_callbacks(cloud_operation_e operation, const char *caller);

void __service_app_control_cb(app_control_handle request, void *)
{
    if (CLOUD_CALL(orvanta_cloud_initialize) != 0)
        return;

    char *operation = nullptr; // never freed
    if (APP_CONTROL_CALL(app_control_get_operation, request, &operation) != 0)
        return;

    app_control_handle reply = nullptr;
    if (APP_CONTROL_CALL(app_control_create, &reply) != 0) {
        if (reply != nullptr)
            app_control_destroy(reply);
        return;
    }

    const int error = register_callbacks(__get_cloud_operation(operation), __func__);
    if (error == 0)
        PRINTED_CALL("ret", app_control_reply_to_launch_request, reply, request, 0);

    APP_CONTROL_CALL(app_control_destroy, reply);

    if (error != 0) {
        LOG_ERROR("It is terminated with Orvanta Cloud failed, error_code = [%d]\n", error);
        service_app_exit();
    }
}

cloud_operation_e __get_cloud_operation(const char *operation)
{
    // More text may follow the operation's identifier.
    const auto begins_with = [operation](const char *identifier) {
        return strncmp(identifier, operation, strlen(identifier)) == 0;
    };

    if (operation == nullptr)
        return ORVANTA_CLOUD_OPERATION_UNKNOWN;
    if (begins_with(OPERATION_BACKUP))
        return ORVANTA_CLOUD_OPERATION_BACKUP;
    if (begins_with(OPERATION_RESTORE))
        return ORVANTA_CLOUD_OPERATION_RESTORE;
    if (begins_with(OPERATION_GET_BACKUP_INFO))
        return ORVANTA_CLOUD_OPERATION_GET_BACKUP_INFO;
    return ORVANTA_CLOUD_OPERATION_UNKNOWN;
}

static int register_backup_callbacks(const char *caller);
static int register_restore_callbacks(const char *caller);
static int register_backup_info_callbacks();

static int register_callbacks(cloud_operation_e operation, const char *caller)
{
    switch (operation) {
    case ORVANTA_CLOUD_OPERATION_BACKUP:
        LOG_INFO("==== ORVANTA_CLOUD_OPERATION_BACKUP ====");
        return register_backup_callbacks(caller);
    case ORVANTA_CLOUD_OPERATION_RESTORE:
        LOG_INFO("==== ORVANTA_CLOUD_OPERATION_RESTORE ====");
        return register_restore_callbacks(caller);
    case ORVANTA_CLOUD_OPERATION_GET_BACKUP_INFO:
        return register_backup_info_callbacks();
    case ORVANTA_CLOUD_OPERATION_UNKNOWN:
        break;
    }
    return 0;
}

// Each of these functions stops at the first registration that fails, and returns its error code.

static int register_backup_callbacks(const char *caller)
{
    int error = CLOUD_CALL(orvanta_cloud_backup_record_set_preparation_cb, __backup_prepare_cb, nullptr);
    if (error == 0)
        error = CLOUD_CALL(orvanta_cloud_backup_record_set_sending_keys_and_dates_cb,
                           __backup_get_keys_dates_cb, nullptr);
    if (error == 0)
        error = CLOUD_CALL(orvanta_cloud_backup_record_set_backup_cb, __backup_record_cb, nullptr);
    if (error == 0)
        error = CLOUD_CALL(orvanta_cloud_backup_record_set_completed_cb, __backup_completed_cb, nullptr);
    return error;
}

static int register_restore_callbacks(const char *caller)
{
    int error = CLOUD_CALL(orvanta_cloud_restore_record_set_preparation_cb, __restore_prepare_cb, nullptr);
    if (error == 0)
        error = CLOUD_CALL(orvanta_cloud_restore_record_set_sending_restoration_path_cb,
                           __restore_get_restore_path_cb, nullptr);
    if (error == 0)
        error = CLOUD_CALL(orvanta_cloud_restore_record_set_restoration_cb, __restore_record_cb, nullptr);
    if (error == 0)
        error = CLOUD_CALL(orvanta_cloud_restore_record_set_completed_cb, __restore_completed_cb, nullptr);
    return error;
}

// A backup that ends after it has sent the records' keys and dates. It writes no snapshot.
static int register_backup_info_callbacks()
{
    int error = PRINTED_CALL("error_code", orvanta_cloud_backup_record_set_preparation_cb,
                             __backup_prepare_cb, nullptr);
    if (error == 0)
        error = PRINTED_CALL("error_code", orvanta_cloud_backup_record_set_sending_keys_and_dates_cb,
                             __backup_get_keys_dates_cb, nullptr);
    if (error == 0)
        error = PRINTED_CALL("error_code", orvanta_cloud_backup_record_set_completed_cb,
                             __backup_completed_cb, nullptr);
    return error;
}

// Backup

void __backup_prepare_cb()
{
    LOG_INFO("==== __backup_prepare_cb ====");
    CLOUD_CALL(orvanta_cloud_backup_record_send_preparation_completed_response, 1);
}

// Goes on after a failure: the library then refuses the null handle, and the log shows the refusal.
void __backup_get_keys_dates_cb()
{
    LOG_INFO("==== __backup_get_keys_dates_cb ====");

    orvanta_cloud_list_handle list = nullptr;
    CLOUD_CALL(orvanta_cloud_list_create, &list);

    orvanta_cloud_record_handle record = nullptr;
    CLOUD_CALL(orvanta_cloud_record_create, &record);
    CLOUD_CALL(orvanta_cloud_record_set_key, record, RECORD_KEY);
    gchar *date = g_strdup_printf("%llu", __get_current_time_ms());
    CLOUD_CALL(orvanta_cloud_record_set_date, record, date);
    CLOUD_CALL(orvanta_cloud_list_add, list, record);
    g_free(date);

    CLOUD_CALL(orvanta_cloud_backup_record_send_keys_and_dates, list, ORVANTA_CLOUD_SEND_VALID);
    CLOUD_CALL(orvanta_cloud_list_destroy, list);
}

unsigned long long __get_current_time_ms()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned long long>(now.tv_usec) / 1000 +
           static_cast<unsigned long long>(static_cast<long long>(now.tv_sec) * 1000);
}

void __backup_record_cb(orvanta_cloud_list_handle list)
{
    LOG_INFO("==== _backup_record_cb ====");

    if (list == nullptr) {
        CLOUD_CALL(orvanta_cloud_backup_record_send_backup_path, nullptr, ORVANTA_CLOUD_SEND_NOTHING);
        return;
    }

    int count = 0;
    if (orvanta_cloud_list_get_record_count(list, &count) != 0 || count == 0) {
        LOG_ERROR("orvanta_cloud_list_get_record_count() failed.");
        CLOUD_CALL(orvanta_cloud_backup_record_send_backup_path, nullptr, ORVANTA_CLOUD_SEND_NOTHING);
        CLOUD_CALL(orvanta_cloud_list_destroy, list);
        return;
    }

    CLOUD_CALL(orvanta_cloud_list_move_to_first, list);
    for (int i = 0; i < count; i++) {
        orvanta_cloud_record_handle record = nullptr;
        if (CLOUD_CALL(orvanta_cloud_list_get_current_record, list, &record) == 0) {
            gchar *snapshot = nullptr;
            gsize length = 0;
            _ime_backup_get_json_value(&snapshot, &length);
            if (length == 0) {
                LOG_ERROR("_ime_backup_get_json_value() failed");
            } else {
                CLOUD_CALL(orvanta_cloud_record_set_value, record, snapshot);
                g_free(snapshot);
            }
        }
        if (i + 1 < count)
            CLOUD_CALL(orvanta_cloud_list_move_to_next, list);
    }

    // The path is sent even when the file could not be written: the library checks the file itself.
    CLOUD_CALL(orvanta_cloud_file_create_file, list, IME_BACKUP_BACKUP_FILE);
    CLOUD_CALL(orvanta_cloud_backup_record_send_backup_path, IME_BACKUP_BACKUP_FILE,
               ORVANTA_CLOUD_SEND_VALID);
    CLOUD_CALL(orvanta_cloud_list_destroy, list);
}

void __backup_completed_cb(int result)
{
    if (result == 0)
        LOG_ERROR("__backup_completed_cb() failed.");
    service_app_exit();
}

// Restore

void __restore_prepare_cb()
{
    CLOUD_CALL(orvanta_cloud_restore_record_send_preparation_completed_response, 1);
}

void __restore_get_restore_path_cb()
{
    CLOUD_CALL(orvanta_cloud_restore_record_send_restoration_path, IME_BACKUP_RESTORE_FILE,
               ORVANTA_CLOUD_SEND_VALID);
}

static void restore_record(orvanta_cloud_record_handle record, int index, const char *caller);

void __restore_record_cb(orvanta_cloud_source_handle source)
{
    LOG_INFO("==== _restore_record_cb ====");

    orvanta_cloud_list_handle list = nullptr;
    if (CLOUD_CALL(orvanta_cloud_file_create_record_list, source, &list) != 0) {
        CLOUD_CALL(orvanta_cloud_restore_record_send_record_list, nullptr, ORVANTA_CLOUD_SEND_NOTHING);
        return;
    }

    int count = 0;
    if (orvanta_cloud_list_get_record_count(list, &count) != 0 || count == 0) {
        LOG_ERROR("orvanta_cloud_list_get_record_count() failed.");
        CLOUD_CALL(orvanta_cloud_restore_record_send_record_list, nullptr, ORVANTA_CLOUD_SEND_NOTHING);
        if (list != nullptr)
            CLOUD_CALL(orvanta_cloud_list_destroy, list);
        return;
    }
    LOG_INFO("==== count = [%d] ====", count);

    if (orvanta_cloud_list_move_to_first(list) != 0)
        LOG_ERROR("orvanta_cloud_list_move_to_first() failed.");
    for (int i = 0; i < count; i++) {
        orvanta_cloud_record_handle record = nullptr;
        if (CLOUD_CALL(orvanta_cloud_list_get_current_record, list, &record) == 0)
            restore_record(record, i, __func__);
        if (i + 1 < count)
            CLOUD_CALL(orvanta_cloud_list_move_to_next, list);
    }

    CLOUD_CALL(orvanta_cloud_restore_record_send_record_list, list, ORVANTA_CLOUD_SEND_VALID);
    CLOUD_CALL(orvanta_cloud_list_destroy, list);
}

static void set_key_and_date(orvanta_cloud_record_handle record, int index, const char *caller);

static void restore_record(orvanta_cloud_record_handle record, int index, const char *caller)
{
    gchar *value = nullptr;
    if (orvanta_cloud_record_get_value(record, &value) != 0)
        LOG_ERROR("orvanta_cloud_record_get_value() failed.");

    bool applied = false;
    if (value != nullptr) {
        LOG_INFO("value: [%s]", value);
        applied = _ime_restore_json_value(value);
    }

    if (applied) {
        set_key_and_date(record, index, caller);
    } else {
        LOG_INFO("orvanta_cloud_record_set_fail");
        CLOUD_CALL(orvanta_cloud_record_set_fail, record);
    }
    g_free(value);
}

static void set_key_and_date(orvanta_cloud_record_handle record, int index, const char *caller)
{
    gchar *key = g_strdup_printf("%d", index);
    CLOUD_CALL(orvanta_cloud_record_set_key, record, key);
    gchar *date = g_strdup_printf("%llu", __get_current_time_ms());
    CLOUD_CALL(orvanta_cloud_record_set_date, record, date);
    g_free(date);
    g_free(key);
}

void __restore_completed_cb(int result)
{
    if (result == 0)
        LOG_ERROR("__restore_completed_cb() failed.");
    service_app_exit();
}

void __service_app_terminate_cb(void *)
{
    if (orvanta_cloud_deinitialize() != 0)
        LOG_ERROR("orvanta_cloud_deinitialize() failed.");
}

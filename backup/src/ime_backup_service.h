#pragma once

#include "app_control.h"
#include "orvanta_cloud.h"

/// The operations that the cloud backup client can request.
enum cloud_operation_e {
    ORVANTA_CLOUD_OPERATION_BACKUP,
    ORVANTA_CLOUD_OPERATION_RESTORE,
    ORVANTA_CLOUD_OPERATION_GET_BACKUP_INFO,
    ORVANTA_CLOUD_OPERATION_UNKNOWN,
};

bool __service_app_create_cb(void *user_data);
void __service_app_control_cb(app_control_handle request, void *user_data);
void __service_app_terminate_cb(void *user_data);

cloud_operation_e __get_cloud_operation(const char *operation);

void __backup_prepare_cb();
void __backup_get_keys_dates_cb();
void __backup_record_cb(orvanta_cloud_list_handle list);
void __backup_completed_cb(int result);

void __restore_prepare_cb();
void __restore_get_restore_path_cb();
void __restore_record_cb(orvanta_cloud_source_handle source);
void __restore_completed_cb(int result);

/// Returns the wall-clock time in milliseconds since the Unix epoch.
unsigned long long __get_current_time_ms();

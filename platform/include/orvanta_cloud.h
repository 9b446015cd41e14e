/** @file
 * The cloud backup client library (liborvanta-cloud-svc): a service takes part in a backup or a restore by
 * registering callbacks. The library calls them from the main loop, on the thread that runs
 * service_app_main(), one at a time, and never from within one of its own functions, such as a registration.
 *
 * A record is a text value under a key, with a date. Records are passed in lists.
 *
 * Every function returns 0 (#ORVANTA_CLOUD_ERROR_NONE) or an error code. An out-parameter is written only
 * on success. All texts are NUL-terminated UTF-8. The library copies the texts that it receives. The caller
 * releases the texts that the library returns with g_free(); malloc() may have allocated them, since GLib
 * (2.46 or newer) uses the same allocator.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

enum orvanta_cloud_error {
    ORVANTA_CLOUD_ERROR_NONE = 0,
    /** A null argument, a text that is not UTF-8, or a handle that is invalid or destroyed. */
    ORVANTA_CLOUD_ERROR_INVALID_PARAMETER = -1,
    /** The library is not initialised, or no exchange waits for this answer. */
    ORVANTA_CLOUD_ERROR_INVALID_STATE = -2,
    /** The list holds no such record. */
    ORVANTA_CLOUD_ERROR_NO_RECORD = -3,
    /** A file can't be read or written. */
    ORVANTA_CLOUD_ERROR_IO = -4,
    /** A file holds no valid records. */
    ORVANTA_CLOUD_ERROR_BAD_FILE = -5,
};

/**
 * A list of records with a cursor. The service destroys every list together with its records: the lists from
 * orvanta_cloud_list_create() and orvanta_cloud_file_create_record_list(), and the list that its backup
 * callback receives. The library destroys only the lists and records left at orvanta_cloud_deinitialize().
 */
typedef struct orvanta_cloud_list *orvanta_cloud_list_handle;

/** One record. It belongs to the list that it was added to, or to the library while it is in no list. */
typedef struct orvanta_cloud_record *orvanta_cloud_record_handle;

/** Restored data, which orvanta_cloud_file_create_record_list() turns into a list. */
typedef struct orvanta_cloud_source *orvanta_cloud_source_handle;

/** Values of a send function's `flag`, which says whether the argument before it is null or valid. */
#define ORVANTA_CLOUD_SEND_NOTHING 0
#define ORVANTA_CLOUD_SEND_VALID 1

/** Asks the service to get ready, to send keys and dates, or to name a path. */
typedef void (*orvanta_cloud_request_cb)(void);
/**
 * Passes the records to fill in, with the keys and dates that the service sent. The library makes the list,
 * and the callback destroys it.
 */
typedef void (*orvanta_cloud_backup_cb)(orvanta_cloud_list_handle list);
/** Passes restored data, which is valid until the callback returns. */
typedef void (*orvanta_cloud_restoration_cb)(orvanta_cloud_source_handle source);
/**
 * Reports the end of an exchange, also when an earlier step failed. `result` is 1 for success and 0 for
 * failure, unlike the results of the functions here.
 */
typedef void (*orvanta_cloud_completed_cb)(int result);

/**
 * Opens the library, unless it is already open. Calls are not counted: the service makes one for each
 * request, and closes the library once, before it exits.
 */
int orvanta_cloud_initialize(void);
/**
 * Closes the library: aborts exchanges that still run, and releases all lists and records. Refused in a
 * callback that sends an answer.
 */
int orvanta_cloud_deinitialize(void);

/**
 * @name Registration
 * Each function replaces the callback registered before. `context` is reserved and must be null. An
 * exchange's callbacks are registered in the order in which they are called. The preparation callback begins
 * a set of callbacks. The completed callback closes the set, and the main loop then starts the exchange. A
 * backup without a backup callback ends after the service has sent its keys and dates.
 * @{
 */
int orvanta_cloud_backup_record_set_preparation_cb(orvanta_cloud_request_cb callback, void *context);
int orvanta_cloud_backup_record_set_sending_keys_and_dates_cb(orvanta_cloud_request_cb callback,
                                                              void *context);
int orvanta_cloud_backup_record_set_backup_cb(orvanta_cloud_backup_cb callback, void *context);
int orvanta_cloud_backup_record_set_completed_cb(orvanta_cloud_completed_cb callback, void *context);

int orvanta_cloud_restore_record_set_preparation_cb(orvanta_cloud_request_cb callback, void *context);
int orvanta_cloud_restore_record_set_sending_restoration_path_cb(orvanta_cloud_request_cb callback,
                                                                 void *context);
int orvanta_cloud_restore_record_set_restoration_cb(orvanta_cloud_restoration_cb callback, void *context);
int orvanta_cloud_restore_record_set_completed_cb(orvanta_cloud_completed_cb callback, void *context);
/** @} */

/**
 * @name Answers
 * Each function answers one callback and is called before that callback returns. `flag` is
 * #ORVANTA_CLOUD_SEND_VALID with a list or path, or #ORVANTA_CLOUD_SEND_NOTHING with null. The library copies
 * what it needs of a list before the function returns, since the service destroys the list next. `ready` is 1
 * for ready, 0 for not ready. An exchange fails when an answer is missing, is 0 or is
 * #ORVANTA_CLOUD_SEND_NOTHING.
 * @{
 */
int orvanta_cloud_backup_record_send_preparation_completed_response(int ready);
int orvanta_cloud_backup_record_send_keys_and_dates(orvanta_cloud_list_handle list, int flag);
/**
 * `path`: the file to upload, as orvanta_cloud_file_create_file() wrote it for this exchange. The service
 * sends the path as valid even when that function failed, or when a record has no value because the settings
 * could not be read. In both cases the library must fail the exchange and keep the last good backup: it must
 * upload neither a file that an earlier exchange left at `path` nor a record without a value.
 */
int orvanta_cloud_backup_record_send_backup_path(const char *path, int flag);

int orvanta_cloud_restore_record_send_preparation_completed_response(int ready);
/** `path`: where the library puts the restored data. */
int orvanta_cloud_restore_record_send_restoration_path(const char *path, int flag);
/**
 * `list`: the restored records. Records that could not be applied are marked as failed. Every other record
 * has its index in the list as its new key and the current time as its new date, so that the client shows
 * when the record last matched the device.
 */
int orvanta_cloud_restore_record_send_record_list(orvanta_cloud_list_handle list, int flag);
/** @} */

/**
 * @name Lists
 * @{
 */
int orvanta_cloud_list_create(orvanta_cloud_list_handle *list);
int orvanta_cloud_list_destroy(orvanta_cloud_list_handle list);
/** Appends a record, which from then on belongs to the list. */
int orvanta_cloud_list_add(orvanta_cloud_list_handle list, orvanta_cloud_record_handle record);
int orvanta_cloud_list_get_record_count(orvanta_cloud_list_handle list, int *count);
/** A list's cursor starts on its first record. */
int orvanta_cloud_list_move_to_first(orvanta_cloud_list_handle list);
/** On the last record, fails with #ORVANTA_CLOUD_ERROR_NO_RECORD, and the cursor stays. */
int orvanta_cloud_list_move_to_next(orvanta_cloud_list_handle list);
/** Gets the record under the cursor, which still belongs to the list. */
int orvanta_cloud_list_get_current_record(orvanta_cloud_list_handle list,
                                          orvanta_cloud_record_handle *record);
/** @} */

/**
 * @name Records
 * @{
 */
int orvanta_cloud_record_create(orvanta_cloud_record_handle *record);
int orvanta_cloud_record_set_key(orvanta_cloud_record_handle record, const char *key);
/** `date`: milliseconds since the Unix epoch, in decimal. */
int orvanta_cloud_record_set_date(orvanta_cloud_record_handle record, const char *date);
int orvanta_cloud_record_set_value(orvanta_cloud_record_handle record, const char *value);
/** `value`: a new text, or null when the record has no value, which is not an error. */
int orvanta_cloud_record_get_value(orvanta_cloud_record_handle record, char **value);
/** Marks a record as one that could not be restored. */
int orvanta_cloud_record_set_fail(orvanta_cloud_record_handle record);
/** @} */

/**
 * @name Files
 * @{
 */
/** Writes a list's records to a file, replacing an existing file. The file is written whole or not at all. */
int orvanta_cloud_file_create_file(orvanta_cloud_list_handle list, const char *path);
/** Makes a list of the records in `source`. */
int orvanta_cloud_file_create_record_list(orvanta_cloud_source_handle source,
                                          orvanta_cloud_list_handle *list);
/** @} */

#ifdef __cplusplus
}
#endif

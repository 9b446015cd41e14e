// The C interface of exchanges.

#include "orvanta_cloud.h"

#include <memory>

#include "handles.h"
#include "queue.h"

namespace
{

struct Library {
    Callbacks backup; ///< registered so far for the next exchange
    Callbacks restore;
    std::shared_ptr<ExchangeQueue> queue = std::make_shared<ExchangeQueue>();
};

/// Null while the library is not initialised.
std::unique_ptr<Library> library;

template <class Callback>
int set_callback(Callbacks Library::*set, Callback Callbacks::*member, Callback callback)
{
    if (library == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_STATE;
    if (callback == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    (*library).*set.*member = callback;
    return ORVANTA_CLOUD_ERROR_NONE;
}

/// Registers the preparation callback, which begins a set of callbacks.
int begin_set(Callbacks Library::*set, orvanta_cloud_request_cb callback)
{
    if (library != nullptr)
        (*library).*set = {};
    return set_callback(set, &Callbacks::preparation, callback);
}

/// Registers the completed callback, which completes a set of callbacks and starts an exchange.
int close_set(Callbacks Library::*set, Direction direction, orvanta_cloud_completed_cb callback)
{
    if (const int error = set_callback(set, &Callbacks::completed, callback); error != 0)
        return error;
    const Callbacks &callbacks = (*library).*set;
    const bool is_complete = direction == Direction::backup
                                 ? callbacks.keys_and_dates != nullptr
                                 : callbacks.restoration_path != nullptr && callbacks.restoration != nullptr;
    if (callbacks.preparation == nullptr || !is_complete)
        return ORVANTA_CLOUD_ERROR_INVALID_STATE;
    library->queue->add(direction, callbacks);
    return ORVANTA_CLOUD_ERROR_NONE;
}

/// Passes an answer to the exchange that expects it.
template <class... Args>
int answer(Direction direction, Answer awaited, int (Exchange::*take)(Args...), Args... args)
{
    Exchange *exchange = library == nullptr ? nullptr : library->queue->find(direction, awaited);
    return exchange == nullptr ? ORVANTA_CLOUD_ERROR_INVALID_STATE : (exchange->*take)(args...);
}

} // namespace

int orvanta_cloud_initialize(void)
{
    if (library != nullptr)
        return ORVANTA_CLOUD_ERROR_NONE;
    library = std::make_unique<Library>();
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_deinitialize(void)
{
    if (library == nullptr || library->queue->is_in_callback())
        return ORVANTA_CLOUD_ERROR_INVALID_STATE;
    library->queue->close();
    library.reset();
    release_lists_and_records();
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_backup_record_set_preparation_cb(orvanta_cloud_request_cb callback, void *)
{
    return begin_set(&Library::backup, callback);
}

int orvanta_cloud_backup_record_set_sending_keys_and_dates_cb(orvanta_cloud_request_cb callback, void *)
{
    return set_callback(&Library::backup, &Callbacks::keys_and_dates, callback);
}

int orvanta_cloud_backup_record_set_backup_cb(orvanta_cloud_backup_cb callback, void *)
{
    return set_callback(&Library::backup, &Callbacks::backup, callback);
}

int orvanta_cloud_backup_record_set_completed_cb(orvanta_cloud_completed_cb callback, void *)
{
    return close_set(&Library::backup, Direction::backup, callback);
}

int orvanta_cloud_restore_record_set_preparation_cb(orvanta_cloud_request_cb callback, void *)
{
    return begin_set(&Library::restore, callback);
}

int orvanta_cloud_restore_record_set_sending_restoration_path_cb(orvanta_cloud_request_cb callback, void *)
{
    return set_callback(&Library::restore, &Callbacks::restoration_path, callback);
}

int orvanta_cloud_restore_record_set_restoration_cb(orvanta_cloud_restoration_cb callback, void *)
{
    return set_callback(&Library::restore, &Callbacks::restoration, callback);
}

int orvanta_cloud_restore_record_set_completed_cb(orvanta_cloud_completed_cb callback, void *)
{
    return close_set(&Library::restore, Direction::restore, callback);
}

int orvanta_cloud_backup_record_send_preparation_completed_response(int ready)
{
    return answer(Direction::backup, Answer::ready, &Exchange::answer_ready, ready);
}

int orvanta_cloud_backup_record_send_keys_and_dates(orvanta_cloud_list_handle list, int flag)
{
    return answer(Direction::backup, Answer::keys_and_dates, &Exchange::answer_list, list, flag);
}

int orvanta_cloud_backup_record_send_backup_path(const char *path, int flag)
{
    return answer(Direction::backup, Answer::backup_path, &Exchange::answer_path, path, flag);
}

int orvanta_cloud_restore_record_send_preparation_completed_response(int ready)
{
    return answer(Direction::restore, Answer::ready, &Exchange::answer_ready, ready);
}

int orvanta_cloud_restore_record_send_restoration_path(const char *path, int flag)
{
    return answer(Direction::restore, Answer::restoration_path, &Exchange::answer_path, path, flag);
}

int orvanta_cloud_restore_record_send_record_list(orvanta_cloud_list_handle list, int flag)
{
    return answer(Direction::restore, Answer::record_list, &Exchange::answer_list, list, flag);
}

int orvanta_cloud_file_create_file(orvanta_cloud_list_handle list, const char *path)
{
    return answer(Direction::backup, Answer::backup_path, &Exchange::write_file, list, path);
}

int orvanta_cloud_file_create_record_list(orvanta_cloud_source_handle source, orvanta_cloud_list_handle *list)
{
    return answer(Direction::restore, Answer::record_list, &Exchange::read_file, source, list);
}

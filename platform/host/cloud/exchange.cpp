// The exchanges: a backup or a restore, carried out step by step from the main loop through the callbacks
// that the service registered.

#include <deque>
#include <functional>
#include <utility>

#include <glib.h>

#include "cloud_store.h"
#include "exchange_report.h"
#include "file_lock.h"
#include "orvanta_cloud.h"
#include "records.h"
#include "state.h"

struct orvanta_cloud_source {
    std::filesystem::path file;
};

namespace
{

constexpr guint LOCK_RETRY_MS = 20;

struct Callbacks {
    orvanta_cloud_request_cb preparation = nullptr;
    orvanta_cloud_request_cb keys_and_dates = nullptr;
    orvanta_cloud_backup_cb backup = nullptr;
    orvanta_cloud_request_cb restoration_path = nullptr;
    orvanta_cloud_restoration_cb restoration = nullptr;
    orvanta_cloud_completed_cb completed = nullptr;
};

/// What an exchange waits for while the service's callback runs.
enum class Answer {
    none,
    backup_ready,
    keys_and_dates,
    backup_path,
    restore_ready,
    restoration_path,
    record_list
};

/// One exchange, and what the service has answered in it so far.
struct Exchange {
    using Step = void (*)(Exchange &);

    ExchangeReport report;
    Callbacks callbacks;
    std::vector<Step> steps;
    size_t next = 0;

    Answer awaited = Answer::none;
    bool ready = false;
    std::optional<CloudRecords> records; ///< announced by a backup, or handed back by a restore
    std::optional<std::string> path;     ///< device path of the backup or restoration file
    std::string written_path;            ///< what was written to be backed up, and where
    std::string written;
    std::string file_error;
    orvanta_cloud_source source;
    size_t restored_count = 0;
};

struct Library {
    bool initialized = false;
    Callbacks backup; ///< sets that are being registered
    Callbacks restore;
    std::deque<Exchange> exchanges; ///< the first is under way
    std::vector<std::function<void()>> completions;
    guint loop_source = 0;
    std::optional<FileLock> lock;
};

Library &library()
{
    static Library instance;
    return instance;
}

/// Calls a callback that is to send an answer before it returns.
template <class... Args>
void ask(Exchange &exchange, Answer answer, void (*callback)(Args...), Args... args)
{
    exchange.awaited = answer;
    callback(args...);
    exchange.awaited = Answer::none;
}

// Backup.

void prepare_backup(Exchange &exchange)
{
    ask(exchange, Answer::backup_ready, exchange.callbacks.preparation);
    if (!exchange.ready)
        throw HostError("the service is not ready");
}

void ask_for_keys_and_dates(Exchange &exchange)
{
    ask(exchange, Answer::keys_and_dates, exchange.callbacks.keys_and_dates);
    if (!exchange.records || exchange.records->empty())
        throw HostError("the service announced no records");
    exchange.report.records = *exchange.records;
}

void have_records_filled(Exchange &exchange)
{
    ask(exchange, Answer::backup_path, exchange.callbacks.backup, make_list(*exchange.records));
    if (!exchange.path)
        throw HostError("the service had nothing to back up");
    // Else a file of an earlier backup would pass for this one's.
    if (exchange.written_path != *exchange.path)
        throw HostError(exchange.file_error.empty() ? "the service wrote no backup file"
                                                    : exchange.file_error);
}

void upload(Exchange &exchange)
{
    const File file(g_file_new_for_path(host_path(*exchange.path).c_str()));
    const std::string content = read_record_file(file.get());
    if (content != exchange.written)
        throw HostError("the backup file is not what was written into it");

    const CloudRecords records = decode_record_file(content);
    if (records.size() != exchange.records->size())
        throw HostError("the backup file holds other records than were announced");
    for (size_t i = 0; i < records.size(); i++) {
        const std::string key = records[i].key.value_or("");
        if (records[i].key != (*exchange.records)[i].key)
            throw HostError("the backup file holds a record \"" + key + "\" that was not announced");
        if (!records[i].value)
            throw HostError("record \"" + key + "\" has no value: the settings could not be read");
    }
    exchange.report.backup = CloudStore().add(content);
}

// Restore.

void prepare_restore(Exchange &exchange)
{
    ask(exchange, Answer::restore_ready, exchange.callbacks.preparation);
    if (!exchange.ready)
        throw HostError("the service is not ready");
}

void ask_for_restoration_path(Exchange &exchange)
{
    ask(exchange, Answer::restoration_path, exchange.callbacks.restoration_path);
    if (!exchange.path)
        throw HostError("the service named no restoration path");
}

void download(Exchange &exchange)
{
    const CloudStore store;
    const char *wanted = g_getenv(RESTORE_VARIABLE);
    const guint64 number = store.find(wanted == nullptr ? "" : wanted);
    exchange.report.backup = number;
    std::string content;
    try {
        content = store.read(number);
        exchange.restored_count = decode_record_file(content).size();
    } catch (const HostError &error) {
        throw HostError("backup " + std::to_string(number) + " is refused: " + error.what());
    }
    exchange.source.file = host_path(*exchange.path);
    write_private_file(exchange.source.file, content);
}

void have_records_restored(Exchange &exchange)
{
    ask(exchange, Answer::record_list, exchange.callbacks.restoration, &exchange.source);
    if (!exchange.records)
        throw HostError("the service could not read the records of backup " +
                        std::to_string(exchange.report.backup));
    exchange.report.records = *exchange.records;

    if (exchange.records->size() != exchange.restored_count)
        throw HostError("the service did not hand back all records");
    std::string failed;
    for (const CloudRecord &record : *exchange.records)
        if (record.failed)
            failed += (failed.empty() ? "\"" : ", \"") + record.key.value_or("") + "\"";
    if (!failed.empty())
        throw HostError("not restored: record " + failed);
}

const std::vector<Exchange::Step> BACKUP_STEPS = {prepare_backup, ask_for_keys_and_dates, have_records_filled,
                                                  upload};
const std::vector<Exchange::Step> INFO_STEPS = {prepare_backup, ask_for_keys_and_dates};
const std::vector<Exchange::Step> RESTORE_STEPS = {prepare_restore, ask_for_restoration_path, download,
                                                   have_records_restored};

// The driver.

void save_report(const Exchange &exchange)
{
    try {
        write_report(exchange.report);
    } catch (const HostError &error) {
        g_printerr("liborvanta-cloud-svc: the exchange's report is lost: %s\n", error.what());
    }
}

void start_first_exchange();

/// Ends the first exchange. A service ends itself once it is told that an exchange is completed, so it is
/// told of none while another waits.
void complete_first_exchange()
{
    const Exchange exchange = std::move(library().exchanges.front());
    library().exchanges.pop_front();
    save_report(exchange);
    library().lock.reset();
    library().completions.emplace_back([completed = exchange.callbacks.completed,
                                        result = exchange.report.succeeded ? 1 : 0] { completed(result); });
    if (!library().exchanges.empty()) {
        start_first_exchange();
        return;
    }
    for (const auto &complete : std::exchange(library().completions, {}))
        complete();
}

void fail(Exchange &exchange, const std::string &reason)
{
    exchange.next = exchange.steps.size();
    exchange.report.succeeded = false;
    exchange.report.reason = reason;
    g_printerr("liborvanta-cloud-svc: %s failed: %s\n", exchange.report.operation.c_str(), reason.c_str());
}

gboolean run_next_step(void *)
{
    Exchange &exchange = library().exchanges.front();
    if (exchange.next == exchange.steps.size()) {
        library().loop_source = 0;
        complete_first_exchange();
        return G_SOURCE_REMOVE;
    }
    try {
        exchange.steps[exchange.next](exchange);
        exchange.next++;
        exchange.report.succeeded = exchange.next == exchange.steps.size();
    } catch (const HostError &error) {
        fail(exchange, error.what());
    }
    return G_SOURCE_CONTINUE;
}

gboolean try_to_start(void *)
{
    try {
        if (!library().lock->try_acquire())
            return G_SOURCE_CONTINUE;
    } catch (const HostError &error) {
        fail(library().exchanges.front(), error.what());
    }
    library().loop_source = g_idle_add(run_next_step, nullptr);
    return G_SOURCE_REMOVE;
}

void start_first_exchange()
{
    library().lock.emplace(state_root() / EXCHANGE_LOCK);
    if (try_to_start(nullptr) == G_SOURCE_CONTINUE)
        library().loop_source = g_timeout_add(LOCK_RETRY_MS, try_to_start, nullptr);
}

int enqueue(const char *operation, const Callbacks &callbacks, const std::vector<Exchange::Step> &steps)
{
    Exchange &exchange = library().exchanges.emplace_back();
    exchange.report.operation = operation;
    exchange.callbacks = callbacks;
    exchange.steps = steps;
    if (library().exchanges.size() == 1)
        start_first_exchange();
    return ORVANTA_CLOUD_ERROR_NONE;
}

template <class Callback>
int set_callback(Callbacks &callbacks, Callback Callbacks::*member, Callback callback)
{
    if (!library().initialized)
        return ORVANTA_CLOUD_ERROR_INVALID_STATE;
    if (callback == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    callbacks.*member = callback;
    return ORVANTA_CLOUD_ERROR_NONE;
}

/// The exchange that waits for this answer, if there is one.
Exchange *waiting_exchange(Answer answer)
{
    auto &exchanges = library().exchanges;
    return exchanges.empty() || exchanges.front().awaited != answer ? nullptr : &exchanges.front();
}

int answer_ready(Answer answer, int ready)
{
    Exchange *exchange = waiting_exchange(answer);
    if (exchange == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_STATE;
    exchange->ready = ready != 0;
    return ORVANTA_CLOUD_ERROR_NONE;
}

int answer_list(Answer answer, orvanta_cloud_list_handle list, int flag)
{
    Exchange *exchange = waiting_exchange(answer);
    if (exchange == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_STATE;
    exchange->records.reset();
    if (flag == ORVANTA_CLOUD_SEND_NOTHING)
        return ORVANTA_CLOUD_ERROR_NONE;
    exchange->records = copy_records(list);
    return exchange->records ? ORVANTA_CLOUD_ERROR_NONE : ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
}

int answer_path(Answer answer, const char *path, int flag)
{
    Exchange *exchange = waiting_exchange(answer);
    if (exchange == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_STATE;
    exchange->path.reset();
    if (flag == ORVANTA_CLOUD_SEND_NOTHING)
        return ORVANTA_CLOUD_ERROR_NONE;
    if (path == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    exchange->path = path;
    return ORVANTA_CLOUD_ERROR_NONE;
}

} // namespace

int orvanta_cloud_initialize(void)
{
    library().initialized = true;
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_deinitialize(void)
{
    const auto &exchanges = library().exchanges;
    const bool in_callback = !exchanges.empty() && exchanges.front().awaited != Answer::none;
    if (!library().initialized || in_callback)
        return ORVANTA_CLOUD_ERROR_INVALID_STATE;
    if (library().loop_source != 0)
        g_source_remove(library().loop_source);
    library().loop_source = 0;
    for (Exchange &exchange : library().exchanges) {
        fail(exchange, "the service ended before the exchange was over");
        save_report(exchange);
    }
    library().exchanges.clear();
    library().lock.reset();
    release_lists_and_records();
    library().initialized = false;
    return ORVANTA_CLOUD_ERROR_NONE;
}

int orvanta_cloud_backup_record_set_preparation_cb(orvanta_cloud_request_cb callback, void * /*context*/)
{
    library().backup = {};
    return set_callback(library().backup, &Callbacks::preparation, callback);
}

int orvanta_cloud_backup_record_set_sending_keys_and_dates_cb(orvanta_cloud_request_cb callback,
                                                              void * /*context*/)
{
    return set_callback(library().backup, &Callbacks::keys_and_dates, callback);
}

int orvanta_cloud_backup_record_set_backup_cb(orvanta_cloud_backup_cb callback, void * /*context*/)
{
    return set_callback(library().backup, &Callbacks::backup, callback);
}

int orvanta_cloud_backup_record_set_completed_cb(orvanta_cloud_completed_cb callback, void * /*context*/)
{
    Callbacks &callbacks = library().backup;
    if (const int error = set_callback(callbacks, &Callbacks::completed, callback); error != 0)
        return error;
    if (callbacks.preparation == nullptr || callbacks.keys_and_dates == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_STATE;
    return callbacks.backup != nullptr ? enqueue("backup", callbacks, BACKUP_STEPS)
                                       : enqueue("info", callbacks, INFO_STEPS);
}

int orvanta_cloud_restore_record_set_preparation_cb(orvanta_cloud_request_cb callback, void * /*context*/)
{
    library().restore = {};
    return set_callback(library().restore, &Callbacks::preparation, callback);
}

int orvanta_cloud_restore_record_set_sending_restoration_path_cb(orvanta_cloud_request_cb callback,
                                                                 void * /*context*/)
{
    return set_callback(library().restore, &Callbacks::restoration_path, callback);
}

int orvanta_cloud_restore_record_set_restoration_cb(orvanta_cloud_restoration_cb callback, void * /*context*/)
{
    return set_callback(library().restore, &Callbacks::restoration, callback);
}

int orvanta_cloud_restore_record_set_completed_cb(orvanta_cloud_completed_cb callback, void * /*context*/)
{
    Callbacks &callbacks = library().restore;
    if (const int error = set_callback(callbacks, &Callbacks::completed, callback); error != 0)
        return error;
    if (callbacks.preparation == nullptr || callbacks.restoration_path == nullptr ||
        callbacks.restoration == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_STATE;
    return enqueue("restore", callbacks, RESTORE_STEPS);
}

int orvanta_cloud_backup_record_send_preparation_completed_response(int ready)
{
    return answer_ready(Answer::backup_ready, ready);
}

int orvanta_cloud_backup_record_send_keys_and_dates(orvanta_cloud_list_handle list, int flag)
{
    return answer_list(Answer::keys_and_dates, list, flag);
}

int orvanta_cloud_backup_record_send_backup_path(const char *path, int flag)
{
    return answer_path(Answer::backup_path, path, flag);
}

int orvanta_cloud_restore_record_send_preparation_completed_response(int ready)
{
    return answer_ready(Answer::restore_ready, ready);
}

int orvanta_cloud_restore_record_send_restoration_path(const char *path, int flag)
{
    return answer_path(Answer::restoration_path, path, flag);
}

int orvanta_cloud_restore_record_send_record_list(orvanta_cloud_list_handle list, int flag)
{
    return answer_list(Answer::record_list, list, flag);
}

int orvanta_cloud_file_create_file(orvanta_cloud_list_handle list, const char *path)
{
    const std::optional<CloudRecords> records = copy_records(list);
    if (!records || path == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    Exchange *exchange = waiting_exchange(Answer::backup_path);
    try {
        const std::string content = encode_record_file(*records);
        write_private_file(host_path(path), content);
        if (exchange != nullptr) {
            exchange->written_path = path;
            exchange->written = content;
        }
        return ORVANTA_CLOUD_ERROR_NONE;
    } catch (const HostError &error) {
        if (exchange != nullptr)
            exchange->file_error = error.what();
        return ORVANTA_CLOUD_ERROR_IO;
    }
}

int orvanta_cloud_file_create_record_list(orvanta_cloud_source_handle source, orvanta_cloud_list_handle *list)
{
    const Exchange *exchange = waiting_exchange(Answer::record_list);
    if (exchange == nullptr || source != &exchange->source || list == nullptr)
        return ORVANTA_CLOUD_ERROR_INVALID_PARAMETER;
    std::string content;
    try {
        const File file(g_file_new_for_path(source->file.c_str()));
        content = read_record_file(file.get());
    } catch (const HostError &) {
        return ORVANTA_CLOUD_ERROR_IO;
    }
    try {
        *list = make_list(decode_record_file(content));
        return ORVANTA_CLOUD_ERROR_NONE;
    } catch (const HostError &) {
        return ORVANTA_CLOUD_ERROR_BAD_FILE;
    }
}

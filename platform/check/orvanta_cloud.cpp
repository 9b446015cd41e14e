// The cloud library: lists and records, the exchange, and the record file.

#include "orvanta_cloud.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>
#include <vector>

#include <glib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"
#include "ime_backup_trusted_folder.h"
#include "main_loop.h"
#include "report.h"

using List = orvanta_cloud_list_handle;
using Record = orvanta_cloud_record_handle;

// Lists and records.

static Record make_record(const char *value = nullptr)
{
    Record record = nullptr;
    expect(CALL(orvanta_cloud_record_create(&record)), 0);
    if (record == nullptr)
        fail("a record", "null");
    if (value != nullptr)
        expect(CALL(orvanta_cloud_record_set_value(record, value)), 0);
    return record;
}

static List make_list(const std::vector<std::string> &values = {})
{
    List list = nullptr;
    expect(CALL(orvanta_cloud_list_create(&list)), 0);
    if (list == nullptr)
        fail("a list", "null");
    for (const std::string &value : values)
        expect(CALL(orvanta_cloud_list_add(list, make_record(value.c_str()))), 0);
    return list;
}

static std::string get_value(Record record)
{
    char *value = nullptr;
    expect(CALL(orvanta_cloud_record_get_value(record, &value)), 0);
    if (value == nullptr)
        fail("a text", "null");
    const std::string copy = value;
    g_free(value);
    return copy;
}

static Record get_current(List list)
{
    Record record = nullptr;
    expect(CALL(orvanta_cloud_list_get_current_record(list, &record)), 0);
    if (record == nullptr)
        fail("a record", "null");
    return record;
}

/// A value that no call returns. If it changes, a failed call has written its output.
template <class Handle>
static Handle invalid_handle()
{
    static char memory[4096] = {};
    return reinterpret_cast<Handle>(memory + sizeof memory / 2);
}

/// @param spare  a record that is in no list
static void expect_list_refused(List list, Record spare)
{
    int count = 42;
    auto record = invalid_handle<Record>();
    expect_error(CALL(orvanta_cloud_list_get_record_count(list, &count)));
    expect(count, 42, "the output: ");
    expect_error(CALL(orvanta_cloud_list_get_current_record(list, &record)));
    expect(record == invalid_handle<Record>(), true, "the output is untouched: ");
    expect_error(CALL(orvanta_cloud_list_move_to_first(list)));
    expect_error(CALL(orvanta_cloud_list_move_to_next(list)));
    expect_error(CALL(orvanta_cloud_list_add(list, spare)));
    expect_error(CALL(orvanta_cloud_list_destroy(list)));
}

static void expect_record_refused(Record record, List spare)
{
    char text[] = "";
    char *value = text;
    expect_error(CALL(orvanta_cloud_record_get_value(record, &value)));
    expect(value == text, true, "the output is untouched: ");
    expect_error(CALL(orvanta_cloud_record_set_key(record, "0")));
    expect_error(CALL(orvanta_cloud_record_set_date(record, "0")));
    expect_error(CALL(orvanta_cloud_record_set_value(record, "")));
    expect_error(CALL(orvanta_cloud_record_set_fail(record)));
    expect_error(CALL(orvanta_cloud_list_add(spare, record)));
}

// The exchange.

enum class Exchange { info, backup, restore };

static int is_ready = 1;
static void (*check_list)(List list) = nullptr;

/// Sends an answer, which the library must accept.
static void answer(int (*send)())
{
    is_in_library_call = true;
    run_to_end([send] { expect(send(), 0); });
    is_in_library_call = false;
}

static void send_keys_and_dates()
{
    const Record record = make_record();
    expect(CALL(orvanta_cloud_record_set_key(record, "0")), 0);
    expect(CALL(orvanta_cloud_record_set_date(record, "1700000000999")), 0);
    static List list;
    list = make_list();
    expect(CALL(orvanta_cloud_list_add(list, record)), 0);
    answer(
        [] { return CALL(orvanta_cloud_backup_record_send_keys_and_dates(list, ORVANTA_CLOUD_SEND_VALID)); });
    expect(CALL(orvanta_cloud_list_destroy(list)), 0);
}

static void on_completed(int result)
{
    note_event("completed(" + std::to_string(result) + ")");
}

static void register_restore()
{
    const auto on_preparation = [] {
        note_event("preparation");
        answer(
            [] { return CALL(orvanta_cloud_restore_record_send_preparation_completed_response(is_ready)); });
    };
    const auto on_path_request = [] {
        note_event("restoration_path");
        answer([] {
            return CALL(
                orvanta_cloud_restore_record_send_restoration_path(nullptr, ORVANTA_CLOUD_SEND_NOTHING));
        });
    };
    const auto on_restoration = [](orvanta_cloud_source_handle) { note_event("restoration"); };

    expect(CALL(orvanta_cloud_restore_record_set_preparation_cb(on_preparation, nullptr)), 0);
    expect(CALL(orvanta_cloud_restore_record_set_sending_restoration_path_cb(on_path_request, nullptr)), 0);
    expect(CALL(orvanta_cloud_restore_record_set_restoration_cb(on_restoration, nullptr)), 0);
    expect(CALL(orvanta_cloud_restore_record_set_completed_cb(on_completed, nullptr)), 0);
}

static void register_backup(Exchange exchange)
{
    const auto on_preparation = [] {
        note_event("preparation");
        answer(
            [] { return CALL(orvanta_cloud_backup_record_send_preparation_completed_response(is_ready)); });
    };
    const auto on_keys_and_dates_request = [] {
        note_event("keys_and_dates");
        run_to_end(send_keys_and_dates);
    };
    const auto on_backup = [](List list) {
        note_event("backup");
        run_to_end([list] { check_list(list); });
        answer([] {
            return CALL(orvanta_cloud_backup_record_send_backup_path(nullptr, ORVANTA_CLOUD_SEND_NOTHING));
        });
        orvanta_cloud_list_destroy(list);
    };

    expect(CALL(orvanta_cloud_backup_record_set_preparation_cb(on_preparation, nullptr)), 0);
    expect(
        CALL(orvanta_cloud_backup_record_set_sending_keys_and_dates_cb(on_keys_and_dates_request, nullptr)),
        0);
    if (exchange == Exchange::backup)
        expect(CALL(orvanta_cloud_backup_record_set_backup_cb(on_backup, nullptr)), 0);
    expect(CALL(orvanta_cloud_backup_record_set_completed_cb(on_completed, nullptr)), 0);
}

/// Registers for an exchange, and runs it.
///
/// @return the exchange's events
static std::string run_exchange(Exchange exchange)
{
    const auto create = [exchange, is_created = false]() mutable {
        if (std::exchange(is_created, true)) // a faulty platform may call it again
            return true;
        is_in_library_call = true;
        const bool is_registered = run_to_end([exchange] {
            expect(CALL(orvanta_cloud_initialize()), 0);
            if (exchange == Exchange::restore)
                register_restore();
            else
                register_backup(exchange);
        });
        is_in_library_call = false;
        return is_registered;
    };
    const Events events = run_main_loop({.create = create, .last_event = "completed"});
    if (events.application.empty())
        skip("the main loop does not run");
    if (events.exchange.empty())
        skip("the library starts no exchange after the registration");
    note_call("an exchange");
    return events.exchange;
}

/// Runs a backup whose backup callback calls a function, and then ends the backup without a file.
static void run_backup(void (*check)(List list))
{
    check_list = check;
    const std::string events = run_exchange(Exchange::backup);
    if (events.find("backup") == std::string::npos)
        skip("the library does not ask for the records");
    expect(events, " preparation keys_and_dates backup completed(0)");
}

// The record file.

static constexpr char FILE_NAME[] = "/ime-backup-check.dat";
static constexpr char MISSING_FOLDER_NAME[] = "/ime-backup-check";
static constexpr char TEMPORARY_NAME[] = "/ime-backup-check.new";
static const std::string FILE_PATH = std::string(IME_BACKUP_TRUSTED_FOLDER) + FILE_NAME;
static constexpr rlim_t SIZE_LIMIT = 65'521;

/// The folder that the library writes to. A platform may keep the device's folders below another folder.
struct RecordFolder {
    char partial_file[4096]; ///< left by a killed process; "" if another process writes the files
    char path[4096] = IME_BACKUP_TRUSTED_FOLDER;
};

static auto &record_folder = *make_shared_memory<RecordFolder>();

static std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Handles SIGXFSZ, which interrupts a write at the file size limit: finds the file, and exits.
static void die_in_write(int)
{
    for (int file = STDERR_FILENO + 1; file < 1024; file++) {
        struct stat status = {};
        char path[sizeof record_folder.partial_file] = "";
        if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size != SIZE_LIMIT ||
            readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), path, sizeof path - 1) <= 0)
            continue;
        const std::string name = path;
        snprintf(record_folder.partial_file, sizeof record_folder.partial_file, "%s", path);
        snprintf(record_folder.path, sizeof record_folder.path, "%s",
                 name.substr(0, name.rfind('/')).c_str());
        if (!name.ends_with(FILE_NAME)) // the library may choose a new name in each process
            unlink(path);
    }
    _exit(0);
}

/// Makes a list whose record file has at least this size. Overwrites the texts of the key and date after they
/// are set, so that the library must copy them.
static List make_sized_list(size_t size, const char *given_key = "0",
                            const char *given_date = "1700000000999")
{
    static std::string key;
    static std::string date;
    key = given_key;
    date = given_date;
    const List list = make_list({std::string(size, 'x')});
    const Record record = get_current(list);
    expect(CALL(orvanta_cloud_record_set_key(record, key.c_str())), 0);
    expect(CALL(orvanta_cloud_record_set_date(record, date.c_str())), 0);
    key.assign(key.size(), '?');
    date.assign(date.size(), '?');
    return list;
}

/// Tries to write a file that exceeds the size limit.
static int write_too_much(void (*on_limit)(int))
{
    const List list = make_sized_list(4 * SIZE_LIMIT);
    const rlimit limit = {SIZE_LIMIT, RLIM_INFINITY};
    std::signal(SIGXFSZ, on_limit);
    setrlimit(RLIMIT_FSIZE, &limit);
    return CALL(orvanta_cloud_file_create_file(list, FILE_PATH.c_str()));
}

static void die_while_writing()
{
    int status = 0;
    waitpid(start_process([] { write_too_much(die_in_write); }), &status, 0);
}

/// Writes a list's record file.
///
/// @return the content of the file
static std::string write_small(List list = make_sized_list(1))
{
    expect(CALL(orvanta_cloud_file_create_file(list, FILE_PATH.c_str())), 0);
    std::string content = read_file(record_folder.path + std::string(FILE_NAME));
    if (content.empty()) { // die_in_write() may have found a folder for temporary files
        snprintf(record_folder.path, sizeof record_folder.path, "%s", IME_BACKUP_TRUSTED_FOLDER);
        content = read_file(FILE_PATH);
    }
    if (content.empty() && access(IME_BACKUP_TRUSTED_FOLDER, F_OK) == 0)
        fail("a file at " + FILE_PATH, "none, or an empty one");
    if (content.empty())
        skip("the file that the library wrote as " + FILE_PATH + " can't be found");
    return content;
}

/// The same, but skips the check unless the library writes the same file for the same list each time.
static std::string write_comparable()
{
    const std::string content = write_small();
    if (write_small() != content)
        skip("the library writes a different file each time");
    return content;
}

/// Expects the old file to be unchanged after `work` has failed to replace it.
static void expect_file_stays(void (*work)())
{
    die_while_writing(); // finds the record folder
    const std::string before = write_comparable();
    if (*record_folder.partial_file == '\0')
        skip("another process writes the library's files");
    work();
    const std::string after = read_file(record_folder.path + std::string(FILE_NAME));
    note_call("orvanta_cloud_file_create_file(), which can't write all of the file");
    if (after != before)
        fail("the old file", "another file of " + std::to_string(after.size()) + " bytes");
}

static void remove_files()
{
    const std::string folder = record_folder.path;
    for (const std::string &made :
         {record_folder.partial_file + std::string(), folder + FILE_NAME, folder + TEMPORARY_NAME,
          folder + MISSING_FOLDER_NAME + FILE_NAME, folder + MISSING_FOLDER_NAME})
        if (access(made.c_str(), F_OK) == 0 && remove(made.c_str()) != 0) {
            note_call(made.c_str());
            fail("removed", strerror(errno));
        }
}

// The promises.

static constexpr Check CHECKS[] = {
    {"orvanta_cloud_initialize() can be called again", "The service would not serve a second request.",
     [] {
         expect(CALL(orvanta_cloud_initialize()), 0);
         expect(CALL(orvanta_cloud_initialize()), 0);
         orvanta_cloud_list_destroy(make_list());
         expect(CALL(orvanta_cloud_deinitialize()), 0);
     }},

    {"a list returns each of its records once, in order, and an error after the last record",
     "The service would back up or restore a record twice, or not at all.",
     [] {
         orvanta_cloud_initialize();
         for (const auto &values : {std::vector<std::string>(), {"one"}, {"one", "two", "three"}}) {
             const List list = make_list(values);
             int count = -1;
             expect(CALL(orvanta_cloud_list_get_record_count(list, &count)), 0);
             expect(count, static_cast<int>(values.size()));
             for (int pass = 0; pass < 2; pass++) {
                 if (pass > 0 && count > 0)
                     expect(CALL(orvanta_cloud_list_move_to_first(list)), 0);
                 for (size_t i = 0; i < values.size(); i++) {
                     expect(get_value(get_current(list)), values[i]);
                     if (i + 1 < values.size())
                         expect(CALL(orvanta_cloud_list_move_to_next(list)), 0);
                 }
                 expect_error(CALL(orvanta_cloud_list_move_to_next(list)));
                 if (count > 0)
                     expect(get_value(get_current(list)), values.back());
             }
             if (count == 0) {
                 auto record = invalid_handle<Record>();
                 expect_error(CALL(orvanta_cloud_list_move_to_first(list)));
                 expect_error(CALL(orvanta_cloud_list_get_current_record(list, &record)));
                 expect(record == invalid_handle<Record>(), true, "the output is untouched: ");
             }
             expect(CALL(orvanta_cloud_list_destroy(list)), 0);
         }
     }},

    {"a record copies the value that is set", "The service would back up a text that it has already freed.",
     [] {
         orvanta_cloud_initialize();
         const Record record = make_record();
         for (const std::string &text :
              {std::string("{\"a\":\"\xc3\xa9\"}"), std::string(), std::string(100'000, 'x')}) {
             std::string buffer = text;
             expect(CALL(orvanta_cloud_record_set_value(record, buffer.c_str())), 0);
             buffer.assign(buffer.size(), '?');
             expect(get_value(record), text);
         }
     }},

    {"orvanta_cloud_record_get_value() returns a new text each time, which g_free() can free",
     "The service would free a text twice, or while the text is in use.",
     [] {
         orvanta_cloud_initialize();
         const Record record = make_record("value");
         char *one = nullptr;
         char *other = nullptr;
         expect(CALL(orvanta_cloud_record_get_value(record, &one)), 0);
         expect(CALL(orvanta_cloud_record_get_value(record, &other)), 0);
         expect(one == other, false, "the same text: ");
         one[0] = '?';
         g_free(one);
         expect(other, "value");
         g_free(other);
     }},

    {"orvanta_cloud_record_get_value() returns null for a record without a value",
     "The service would restore a text that is in no backup.",
     [] {
         orvanta_cloud_initialize();
         char text[] = "";
         char *value = text;
         expect(CALL(orvanta_cloud_record_get_value(make_record(), &value)), 0);
         expect(value, nullptr);
     }},

    {"a record's key and date can be set, and it can be marked as failed",
     "The service would back up no record, and could not report that a record is not restored.",
     [] {
         orvanta_cloud_initialize();
         const Record record = make_record();
         expect(CALL(orvanta_cloud_record_set_key(record, "0")), 0);
         expect(CALL(orvanta_cloud_record_set_date(record, "1700000000999")), 0);
         expect(CALL(orvanta_cloud_record_set_fail(record)), 0);
     }},

    {"null and a text that is not UTF-8 are refused, and outputs stay untouched",
     "The service would crash after a failed call, since it goes on after failures.",
     [] {
         orvanta_cloud_initialize();
         expect_list_refused(nullptr, make_record());
         expect_record_refused(nullptr, make_list());
         expect_error(CALL(orvanta_cloud_list_create(nullptr)));
         expect_error(CALL(orvanta_cloud_record_create(nullptr)));
         const List list = make_list({""});
         expect_error(CALL(orvanta_cloud_list_get_record_count(list, nullptr)));
         expect_error(CALL(orvanta_cloud_list_get_current_record(list, nullptr)));
         const Record record = make_record();
         expect_error(CALL(orvanta_cloud_record_set_key(record, nullptr)));
         expect_error(CALL(orvanta_cloud_record_set_date(record, nullptr)));
         expect_error(CALL(orvanta_cloud_record_set_value(record, nullptr)));
         expect_error(CALL(orvanta_cloud_record_set_value(record, "\xff")));
         expect_error(CALL(orvanta_cloud_record_get_value(record, nullptr)));
     }},

    {"a destroyed list and its records are refused, and outputs stay untouched",
     "The service would read freed memory.",
     [] {
         orvanta_cloud_initialize();
         const List list = make_list({"value"});
         const Record record = get_current(list);
         const Record spare = make_record(); // made now: later it could get the address of a destroyed record
         const List spare_list = make_list();
         expect(CALL(orvanta_cloud_list_destroy(list)), 0);
         expect_list_refused(list, spare);
         expect_record_refused(record, spare_list);
     }},

    {"an invalid handle, or a handle of another kind, is refused, and outputs stay untouched",
     "The service would read invalid memory.",
     [] {
         orvanta_cloud_initialize();
         const Record record = make_record();
         const List list = make_list();
         expect_list_refused(invalid_handle<List>(), record);
         expect_record_refused(invalid_handle<Record>(), list);
         expect_list_refused(reinterpret_cast<List>(record), record);
         expect_record_refused(reinterpret_cast<Record>(list), list);
     }},

    {"an answer that no exchange waits for is refused",
     "The service would treat an exchange that has ended as running.",
     [] {
         orvanta_cloud_initialize();
         const List list = make_list({""});
         const char *path = FILE_PATH.c_str();
         expect_error(CALL(orvanta_cloud_backup_record_send_preparation_completed_response(1)));
         expect_error(CALL(orvanta_cloud_backup_record_send_keys_and_dates(list, ORVANTA_CLOUD_SEND_VALID)));
         expect_error(CALL(orvanta_cloud_backup_record_send_backup_path(path, ORVANTA_CLOUD_SEND_VALID)));
         expect_error(CALL(orvanta_cloud_restore_record_send_preparation_completed_response(1)));
         expect_error(
             CALL(orvanta_cloud_restore_record_send_restoration_path(path, ORVANTA_CLOUD_SEND_VALID)));
         expect_error(CALL(orvanta_cloud_restore_record_send_record_list(list, ORVANTA_CLOUD_SEND_VALID)));
     }},

    {"a service that is not ready gets no more callbacks except completed(0)",
     "The service would take part in an exchange that it has declined.",
     [] {
         is_ready = 0;
         for (const Exchange exchange : {Exchange::info, Exchange::restore})
             expect(run_exchange(exchange), " preparation completed(0)");
     },
     Check::changes},

    {"a restore asks for a path, and ends if it gets none", "A restore would never begin, or never end.",
     [] { expect(run_exchange(Exchange::restore), " preparation restoration_path completed(0)"); },
     Check::changes},

    {"a backup passes one record for each key, without a value",
     "The service would back up nothing, or use a key that the client does not know.",
     [] {
         run_backup([](List list) {
             int count = 0;
             expect(CALL(orvanta_cloud_list_get_record_count(list, &count)), 0);
             expect(count, 1);
             expect(CALL(orvanta_cloud_list_move_to_first(list)), 0);
             char *value = nullptr;
             expect(CALL(orvanta_cloud_record_get_value(get_current(list), &value)), 0);
             expect(value, nullptr);
         });
     },
     Check::changes},

    {"orvanta_cloud_file_create_file() writes a file into the trusted folder, with the records' keys and "
     "dates",
     "The service would deliver no backup.",
     [] {
         run_backup([](List) {
             die_while_writing();
             const std::string content = write_comparable();
             const bool has_key = write_small(make_sized_list(1, "1")) != content;
             const bool has_date = write_small(make_sized_list(1, "0", "1700000000998")) != content;
             note_call("orvanta_cloud_file_create_file(), with another key, then with a date 1 ms earlier");
             expect(has_key, true, "another file for another key: ");
             expect(has_date, true, "another file for another date: ");
         });
     },
     Check::changes},

    {"orvanta_cloud_file_create_file() returns an error for a missing folder, and does not make the folder",
     "The service would deliver a file that does not exist.",
     [] {
         run_backup([](List list) {
             die_while_writing();
             const std::string path =
                 std::string(IME_BACKUP_TRUSTED_FOLDER) + MISSING_FOLDER_NAME + FILE_NAME;
             expect_error(CALL(orvanta_cloud_file_create_file(list, path.c_str())));
             expect(access((record_folder.path + std::string(MISSING_FOLDER_NAME)).c_str(), F_OK) != 0, true,
                    "no folder: ");
             expect_error(CALL(orvanta_cloud_file_create_file(list, nullptr)));
             expect_error(CALL(orvanta_cloud_file_create_file(nullptr, FILE_PATH.c_str())));
         });
     },
     Check::changes},

    {"orvanta_cloud_file_create_file() keeps the old file when its process is killed",
     "Half a backup would replace a whole backup.",
     [] { run_backup([](List) { expect_file_stays(die_while_writing); }); }, Check::changes},

    {"orvanta_cloud_file_create_file() returns an error and keeps the old file when the disk is full",
     "Half a backup would replace a whole backup.",
     [] {
         run_backup([](List) {
             expect_file_stays([] { run_in_process([] { expect_error(write_too_much(SIG_IGN)); }); });
         });
     },
     Check::changes},

    {"the service's user can make, write, rename and remove a file in the trusted folder",
     "The cloud library could neither receive nor deliver a backup.",
     [] {
         const std::string file = record_folder.path + std::string(FILE_NAME);
         const std::string other = record_folder.path + std::string(TEMPORARY_NAME);
         if (access(record_folder.path, F_OK) != 0 && errno == ENOENT)
             skip("the cloud library uses another folder");
         note_call(file.c_str());
         const auto expect_done = [](bool is_done, const char *what) {
             if (!is_done)
                 fail(what, strerror(errno));
         };
         expect_done(!!(std::ofstream(other) << "content" << std::flush), "written");
         expect_done(rename(other.c_str(), file.c_str()) == 0, "renamed");
         expect(read_file(file), "content");
         expect_done(unlink(file.c_str()) == 0, "removed");
     },
     Check::changes},

    {"an exchange for backup info calls back in order, from the main loop, on its thread, and completes once",
     "Callbacks would come when the service does not expect them, and the exchange would fail or never end.",
     [] { expect(run_exchange(Exchange::info), " preparation keys_and_dates completed(1)"); },
     Check::changes},
};

extern const Library ORVANTA_CLOUD = {"orvanta-cloud-svc", CHECKS, nullptr, remove_files};

// liborvanta-cloud-svc, on real files, with a service that is only a few callbacks.

#include "orvanta_cloud.h"

#include <functional>
#include <set>

#include <gtest/gtest.h>

#include "cloud_store.h"
#include "exchange_report.h"
#include "file_lock.h"
#include "host.h"
#include "state.h"

namespace fs = std::filesystem;

namespace
{

const CloudRecords TWO_RECORDS = {{"0", "1700000000999", "{\"a\":\"\xc3\xa9 \\\\ \\\"\"}"},
                                  {"1", std::nullopt, "second"}};

/// How `action` is refused, or "" when it is not.
std::string refusal(const std::function<void()> &action)
{
    try {
        action();
        return "";
    } catch (const HostError &error) {
        return error.what();
    }
}

class Cloud : public testing::Test
{
protected:
    Cloud()
    {
        setenv("IME_BACKUP_HOST_DIR", root.path.c_str(), 1);
        unsetenv("IME_BACKUP_CLOUD_STORE");
    }
    ~Cloud() override
    {
        unsetenv(RESTORE_VARIABLE);
        orvanta_cloud_deinitialize();
    }

    const TempDir root;
};

TEST_F(Cloud, RefusesBadHandles)
{
    orvanta_cloud_list_handle list = nullptr;
    orvanta_cloud_record_handle record = nullptr;
    ASSERT_EQ(orvanta_cloud_list_create(&list), 0);
    ASSERT_EQ(orvanta_cloud_record_create(&record), 0);
    const auto gone_list = list;
    const auto gone_record = record;
    ASSERT_EQ(orvanta_cloud_list_add(list, record), 0);
    EXPECT_NE(orvanta_cloud_list_add(list, record), 0) << "a record is added once";
    ASSERT_EQ(orvanta_cloud_list_destroy(list), 0);

    int count = 0;
    char *value = nullptr;
    for (const auto bad_list : {gone_list, orvanta_cloud_list_handle{nullptr}}) {
        EXPECT_NE(orvanta_cloud_list_destroy(bad_list), 0);
        EXPECT_NE(orvanta_cloud_list_get_record_count(bad_list, &count), 0);
        EXPECT_NE(orvanta_cloud_list_move_to_first(bad_list), 0);
        EXPECT_NE(orvanta_cloud_list_move_to_next(bad_list), 0);
        EXPECT_NE(orvanta_cloud_list_get_current_record(bad_list, &record), 0);
        EXPECT_NE(orvanta_cloud_file_create_file(bad_list, "/f"), 0);
    }
    for (const auto bad_record : {gone_record, orvanta_cloud_record_handle{nullptr}}) {
        EXPECT_NE(orvanta_cloud_record_set_key(bad_record, "k"), 0);
        EXPECT_NE(orvanta_cloud_record_get_value(bad_record, &value), 0);
        EXPECT_NE(orvanta_cloud_record_set_fail(bad_record), 0);
    }
    EXPECT_NE(orvanta_cloud_list_create(nullptr), 0);
    ASSERT_EQ(orvanta_cloud_record_create(&record), 0);
    EXPECT_NE(orvanta_cloud_record_set_value(record, "\xff"), 0) << "no text";
    EXPECT_NE(orvanta_cloud_backup_record_send_keys_and_dates(nullptr, 1), 0) << "nothing asks for an answer";
}

TEST_F(Cloud, RecordFileHoldsWhatWasPutIn)
{
    const std::string content = encode_record_file(TWO_RECORDS);
    const CloudRecords read = decode_record_file(content);
    ASSERT_EQ(read.size(), 2);
    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(read[i].key, TWO_RECORDS[i].key);
        EXPECT_EQ(read[i].date, TWO_RECORDS[i].date);
        EXPECT_EQ(read[i].value, TWO_RECORDS[i].value);
    }
}

TEST_F(Cloud, RecordFileIsRefusedWhenAnyByteDiffers)
{
    const std::string content = encode_record_file(TWO_RECORDS);
    for (size_t i = 0; i < content.size(); i++) {
        EXPECT_NE(refusal([&] { decode_record_file(content.substr(0, i)); }), "") << "cut at " << i;
        for (const char change : {'\x01', '\x20', '\x80'}) {
            std::string changed = content;
            changed[i] = static_cast<char>(changed[i] ^ change);
            EXPECT_NE(refusal([&] { decode_record_file(changed); }), "") << "byte " << i;
        }
    }
    std::string later = content;
    later.replace(later.find("\"version\":1"), 11, "\"version\":2");
    EXPECT_NE(refusal([&] { decode_record_file(later); }).find("later version"), std::string::npos);
    const std::string deep(1'000'000, '[');
    for (const char *head : {"", R"({"a\\":")", R"({"a":"\"","b":)", "/* \" */"})
        EXPECT_NE(refusal([&] { decode_record_file(std::string(head) + deep); }), "");
    EXPECT_NE(refusal([&] { decode_record_file(encode_record_file({{"0", "1", deep}})); }), "");
    for (const char *other :
         {"", " ", "null", "[]", "{}", R"({"format":7})", R"({"format":"ime-backup-records"})",
          R"({"format":{}})", R"({"format":"ime-backup-records","version":[]})",
          R"({"format":"ime-backup-records","version":"1","records":[7]})"})
        EXPECT_NE(refusal([&] { decode_record_file(other); }), "") << other;
}

TEST_F(Cloud, StoreNumbersBackupsAndKeepsOthersOut)
{
    const fs::path folder = root.path / "cloud";
    write_file(folder / ".partial", "half a backup");
    write_file(folder / "backup-x.json", "");
    write_file(folder / "backup-77.json", "");
    write_file(folder / "notes.txt", "");
    CloudStore store;
    EXPECT_NE(refusal([&] { store.find(""); }).find("no backup yet"), std::string::npos);
    EXPECT_EQ(store.add("one"), 1);
    EXPECT_EQ(store.add("two"), 2);
    fs::rename(folder / "backup-000001.json", folder / "backup-000009.json");
    EXPECT_EQ(store.add("ten"), 10);
    EXPECT_EQ(store.numbers(), (std::vector<guint64>{2, 9, 10}));
    EXPECT_EQ(store.find(""), 10);
    EXPECT_EQ(store.read(9), "one");
    for (const char *unknown : {"1", "0", "-2", "two", "2/../9"})
        EXPECT_NE(refusal([&] { store.find(unknown); }).find("no backup"), std::string::npos) << unknown;
    EXPECT_FALSE(fs::exists(folder / ".partial"));
}

TEST_F(Cloud, StoreRefusesAFileThatIsTooLarge)
{
    write_file(root.path / "cloud/backup-000001.json", "");
    fs::resize_file(root.path / "cloud/backup-000001.json", 200'000'000);
    EXPECT_NE(refusal([] { CloudStore().read(1); }).find("larger"), std::string::npos);
}

// A service that answers as a test tells it to.

GMainLoop *loop;

struct Service {
    int ready = 1;
    bool send_keys = true;
    const char *key = "0"; ///< that a filled record has
    bool add_record = false;
    bool tamper = false; ///< with the file that was written
    std::optional<std::string> value = "settings";
    std::string written_path = "/data/backup.dat";
    std::string sent_path = "/data/backup.dat";
    std::set<std::string> unappliable; ///< values
    bool hand_back = true;
    bool hand_back_all = true;

    std::vector<std::string> called;
    int result = -1;
} service;

void on_prepare_backup()
{
    service.called.emplace_back("prepare");
    orvanta_cloud_backup_record_send_preparation_completed_response(service.ready);
}

void on_keys_and_dates()
{
    service.called.emplace_back("keys");
    orvanta_cloud_list_handle list = nullptr;
    orvanta_cloud_record_handle record = nullptr;
    orvanta_cloud_list_create(&list);
    orvanta_cloud_record_create(&record);
    orvanta_cloud_record_set_key(record, "0");
    orvanta_cloud_record_set_date(record, "1700000000999");
    orvanta_cloud_list_add(list, record);
    EXPECT_EQ(orvanta_cloud_backup_record_send_keys_and_dates(service.send_keys ? list : nullptr,
                                                              service.send_keys),
              0);
    orvanta_cloud_list_destroy(list);
}

void on_backup(orvanta_cloud_list_handle list)
{
    service.called.emplace_back("backup");
    orvanta_cloud_record_handle record = nullptr;
    EXPECT_EQ(orvanta_cloud_list_get_current_record(list, &record), 0);
    if (service.value)
        orvanta_cloud_record_set_value(record, service.value->c_str());
    orvanta_cloud_record_set_key(record, service.key);
    if (service.add_record && orvanta_cloud_record_create(&record) == 0)
        orvanta_cloud_list_add(list, record);
    if (!service.written_path.empty())
        orvanta_cloud_file_create_file(list, service.written_path.c_str());
    if (service.tamper)
        write_file(host_path(service.written_path), encode_record_file(TWO_RECORDS));
    if (service.sent_path.empty())
        orvanta_cloud_backup_record_send_backup_path(nullptr, 0);
    else
        orvanta_cloud_backup_record_send_backup_path(service.sent_path.c_str(), 1);
    orvanta_cloud_list_destroy(list);
}

void on_completed(int result)
{
    service.called.emplace_back("completed");
    service.result = result;
    g_main_loop_quit(loop);
}

void on_prepare_restore()
{
    service.called.emplace_back("prepare");
    orvanta_cloud_restore_record_send_preparation_completed_response(service.ready);
}

void on_path()
{
    service.called.emplace_back("path");
    orvanta_cloud_restore_record_send_restoration_path("/data/restore.dat", 1);
}

void on_restoration(orvanta_cloud_source_handle source)
{
    service.called.emplace_back("restoration");
    orvanta_cloud_list_handle list = nullptr;
    ASSERT_EQ(orvanta_cloud_file_create_record_list(source, &list), 0);
    do {
        orvanta_cloud_record_handle record = nullptr;
        char *value = nullptr;
        orvanta_cloud_list_get_current_record(list, &record);
        orvanta_cloud_record_get_value(record, &value);
        if (service.unappliable.contains(value))
            orvanta_cloud_record_set_fail(record);
        g_free(value);
    } while (orvanta_cloud_list_move_to_next(list) == 0);
    if (!service.hand_back_all) {
        orvanta_cloud_list_destroy(list);
        orvanta_cloud_list_create(&list);
    }
    orvanta_cloud_restore_record_send_record_list(service.hand_back ? list : nullptr, service.hand_back);
    orvanta_cloud_list_destroy(list);
}

ExchangeReport run_exchange(bool restore, Service with = {}, bool info = false)
{
    service = std::move(with);
    EXPECT_EQ(orvanta_cloud_initialize(), 0);
    if (restore) {
        orvanta_cloud_restore_record_set_preparation_cb(on_prepare_restore, nullptr);
        orvanta_cloud_restore_record_set_sending_restoration_path_cb(on_path, nullptr);
        orvanta_cloud_restore_record_set_restoration_cb(on_restoration, nullptr);
        EXPECT_EQ(orvanta_cloud_restore_record_set_completed_cb(on_completed, nullptr), 0);
    } else {
        orvanta_cloud_backup_record_set_preparation_cb(on_prepare_backup, nullptr);
        orvanta_cloud_backup_record_set_sending_keys_and_dates_cb(on_keys_and_dates, nullptr);
        if (!info)
            orvanta_cloud_backup_record_set_backup_cb(on_backup, nullptr);
        EXPECT_EQ(orvanta_cloud_backup_record_set_completed_cb(on_completed, nullptr), 0);
    }
    EXPECT_TRUE(service.called.empty()) << "the exchange starts from the main loop";
    loop = g_main_loop_new(nullptr, FALSE);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    const ExchangeReport report = read_report(state_root() / LAST_REPORT);
    EXPECT_EQ(report.succeeded, service.result == 1);
    return report;
}

TEST_F(Cloud, ExchangesCallInOrder)
{
    EXPECT_EQ(run_exchange(false).reason, "");
    EXPECT_EQ(service.called, (std::vector<std::string>{"prepare", "keys", "backup", "completed"}));
    EXPECT_EQ(run_exchange(false, {}, true).reason, "");
    EXPECT_EQ(service.called, (std::vector<std::string>{"prepare", "keys", "completed"}));
    EXPECT_EQ(run_exchange(true).reason, "");
    EXPECT_EQ(service.called, (std::vector<std::string>{"prepare", "path", "restoration", "completed"}));
    EXPECT_EQ(CloudStore().numbers(), std::vector<guint64>{1});

    for (const char *name :
         {"cloud", "data", "cloud/backup-000001.json", "data/backup.dat", "data/restore.dat"})
        EXPECT_EQ(fs::status(root.path / name).permissions() & fs::perms(077), fs::perms::none) << name;
}

TEST_F(Cloud, ABackupSucceedsOnlyWhole)
{
    // A file of an earlier backup lies where the next one's would.
    ASSERT_TRUE(run_exchange(false).succeeded);
    write_file(root.path / "blocked", "a file where a folder should be");
    const struct {
        const char *reason;
        std::function<void(Service &)> change;
    } cases[] = {
        {"not ready", [](Service &s) { s.ready = 0; }},
        {"announced no records", [](Service &s) { s.send_keys = false; }},
        {"record \"9\" that was not announced", [](Service &s) { s.key = "9"; }},
        {"other records than were announced", [](Service &s) { s.add_record = true; }},
        {"not what was written", [](Service &s) { s.tamper = true; }},
        {"nothing to back up", [](Service &s) { s.sent_path = ""; }},
        {"has no value", [](Service &s) { s.value.reset(); }},
        {"wrote no backup file", [](Service &s) { s.written_path = ""; }},
        {"wrote no backup file", [](Service &s) { s.sent_path = "/elsewhere"; }},
        {"blocked", [](Service &s) { s.written_path = s.sent_path = "/blocked/backup.dat"; }},
        {"absolute path", [](Service &s) { s.written_path = s.sent_path = "/../backup.dat"; }},
    };
    for (const auto &test : cases) {
        Service with;
        test.change(with);
        const ExchangeReport report = run_exchange(false, with);
        EXPECT_FALSE(report.succeeded);
        EXPECT_NE(report.reason.find(test.reason), std::string::npos) << report.reason;
    }
    EXPECT_EQ(CloudStore().numbers(), std::vector<guint64>{1});
}

TEST_F(Cloud, ARestoreSucceedsOnlyWhole)
{
    EXPECT_NE(run_exchange(true).reason.find("no backup yet"), std::string::npos);
    CloudStore().add(encode_record_file({{"0", "1", "a"}, {"1", "1", "b"}, {"2", "1", "c"}}));
    CloudStore().add("damaged");

    EXPECT_NE(run_exchange(true).reason.find("backup 2 is refused"), std::string::npos);
    EXPECT_EQ(service.called, (std::vector<std::string>{"prepare", "path", "completed"}));
    setenv(RESTORE_VARIABLE, "1", 1);
    EXPECT_TRUE(run_exchange(true).succeeded);

    Service with;
    with.unappliable = {"a", "c"};
    const ExchangeReport report = run_exchange(true, with);
    EXPECT_EQ(report.reason, R"(not restored: record "0", "2")");
    ASSERT_EQ(report.records.size(), 3);
    EXPECT_FALSE(report.records[1].failed);

    with = {};
    with.hand_back = false;
    EXPECT_NE(run_exchange(true, with).reason.find("could not read the records"), std::string::npos);
    with = {};
    with.hand_back_all = false;
    EXPECT_NE(run_exchange(true, with).reason.find("did not hand back all"), std::string::npos);
}

TEST_F(Cloud, AnExchangeWaitsForAnother)
{
    // The lock belongs to an open file: a second one in this process stands for another process's.
    static std::optional<FileLock> other;
    other.emplace(state_root() / EXCHANGE_LOCK);
    ASSERT_TRUE(other->try_acquire());
    g_timeout_add(
        100,
        [](void *) {
            EXPECT_TRUE(service.called.empty());
            other.reset();
            return G_SOURCE_REMOVE;
        },
        nullptr);
    EXPECT_TRUE(run_exchange(false).succeeded);
}

TEST_F(Cloud, AnUnfinishedExchangeIsReported)
{
    orvanta_cloud_initialize();
    orvanta_cloud_backup_record_set_preparation_cb(on_prepare_backup, nullptr);
    orvanta_cloud_backup_record_set_sending_keys_and_dates_cb(on_keys_and_dates, nullptr);
    ASSERT_EQ(orvanta_cloud_backup_record_set_completed_cb(on_completed, nullptr), 0);
    EXPECT_EQ(orvanta_cloud_deinitialize(), 0);
    EXPECT_NE(read_report(state_root() / LAST_REPORT).reason.find("ended before"), std::string::npos);
    EXPECT_NE(orvanta_cloud_backup_record_set_preparation_cb(on_prepare_backup, nullptr), 0);
}

} // namespace

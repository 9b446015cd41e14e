#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "device.h"
#include "history.h"
#include "orvanta_cloud.h"
#include "report.h"

/// The callbacks that the service registered.
struct Callbacks {
    orvanta_cloud_request_cb preparation = nullptr;
    orvanta_cloud_request_cb keys_and_dates = nullptr;
    orvanta_cloud_backup_cb backup = nullptr;
    orvanta_cloud_request_cb restoration_path = nullptr;
    orvanta_cloud_restoration_cb restoration = nullptr;
    orvanta_cloud_completed_cb completed = nullptr;
};

struct orvanta_cloud_source {
    std::filesystem::path file;
};

/// What an exchange waits for while the service's callback runs.
enum class Answer { none, ready, keys_and_dates, backup_path, restoration_path, record_list };

/// Which half of the interface an exchange, and an answer, belongs to.
enum class Direction { backup, restore };

/// A backup or a restore: a row of steps, each of which asks the service for something or does something for
/// it. Its result is that of its last step, or of the first that fails; it is given once.
class Exchange
{
public:
    /// A backup without a backup callback tells its keys and dates and goes no further.
    Exchange(Direction direction, const Callbacks &callbacks);

    /// Begins, once it has its turn.
    void begin() { history.emplace(exchange_report.operation); }

    /// Runs the next step. A failed one throws HostError, or whatever else went wrong.
    ///
    /// @return whether it was the last
    bool run_step();

    /// Notes a change that is about to be made in the history.
    ///
    /// @throws PlatformError when it must not be made: it can't be noted, or is none that such an exchange
    /// makes
    void note(const Change &change);

    /// Gives the exchange its result, with the account as it stands.
    void decide(ExchangeReport::Result result, const std::string &reason = "");

    const ExchangeReport &report() const { return exchange_report; }
    /// The report of an exchange that has its result.
    const std::string &encoded_report() const { return report_line; }

    /// Tells the service the result.
    void complete() const;

    // What the service answers and does while one of its callbacks runs. Each yields a code of the library.

    bool awaits(Direction which, Answer answer) const { return which == direction && answer == awaited; }
    bool is_in_callback() const { return awaited != Answer::none; }
    int answer_ready(int ready);
    int answer_list(orvanta_cloud_list_handle list, int flag);
    int answer_path(const char *path, int flag);
    int write_file(orvanta_cloud_list_handle list, const char *device_path);
    int read_file(orvanta_cloud_source_handle handle, orvanta_cloud_list_handle *list);

private:
    using Step = void (Exchange::*)();

    template <class... Args>
    void ask(Answer answer, void (*callback)(Args...), Args... args);

    void prepare();
    void ask_for_keys_and_dates();
    void plan_backup();
    void have_records_filled();
    void upload();
    void ask_for_restoration_path();
    void download();
    void plan_restore();
    void have_records_restored();

    DeviceState read_device();
    DeviceState look_at_device();

    CloudRecords check_upload(const std::string &content) const;
    void require_planned_backup(const CloudRecords &filled);
    std::string compare_records() const;
    std::string compare_settings(const DeviceState &state);
    std::vector<std::string> find_changed() const;
    void report_doubts();

    const Direction direction;
    const Callbacks callbacks;
    std::vector<Step> steps;
    size_t next = 0;
    ExchangeReport exchange_report;
    std::string report_line;

    Answer awaited = Answer::none;
    bool ready = false;
    std::optional<CloudRecords> records; ///< announced by a backup, or handed back by a restore
    std::optional<std::string> path;     ///< device path of the backup or restoration file
    std::string written_path;            ///< what was written to be backed up, and where
    std::string written;
    std::string file_error;
    orvanta_cloud_source source;
    Backup downloaded;
    std::optional<HistoryWriter> history; ///< nothing before it has its turn
    DeviceState before;                   ///< the device, when it was planned what it becomes
    std::optional<DeviceState> after;     ///< the device at the end, except what is unread

    Device &device = *host_device();
    std::set<SettingPlace> unread;
    std::optional<BackupPlan> backup_plan;
    std::optional<RestorePlan> restore_plan;
};

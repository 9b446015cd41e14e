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

/// The answer that an exchange expects from the service while a callback of the service runs.
enum class Answer { none, ready, keys_and_dates, backup_path, restoration_path, record_list };

/// The half of the cloud library's interface that an exchange or an answer belongs to.
enum class Direction { backup, restore };

/// A backup or a restore: a sequence of steps. A step calls the service back, or does the library's own
/// work. The exchange fails at the first step that fails, and succeeds after its last step.
class Exchange
{
public:
    /// A backup without a backup callback ends after it has asked for keys and dates.
    Exchange(Direction direction, const Callbacks &callbacks);

    /// Begins the exchange's entry in the history. Call this when the exchange has its turn.
    void begin() { history.emplace(exchange_report.operation); }

    /// Runs the next step. A step that fails throws HostError, or any other exception.
    ///
    /// @return true after the last step
    bool run_step();

    /// Notes in the history a change that is about to be made.
    ///
    /// @throws PlatformError when the change must not be made: it can't be noted, or an exchange of this
    /// kind makes no such change
    void note(const Change &change);

    /// Sets the result, and completes the report and the history.
    void finish(ExchangeReport::Result result, const std::string &reason = "");

    const ExchangeReport &report() const { return exchange_report; }
    /// The report as a line of JSON, after finish().
    const std::string &encoded_report() const { return report_line; }

    /// Calls the service's completed callback.
    void complete() const;

    // Functions that the service calls while one of its callbacks runs. They return a code of the library.

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
    void fill_records();
    void upload();
    void ask_for_restoration_path();
    void download();
    void plan_restore();
    void restore_records();

    DeviceState read_device();
    DeviceState read_device_or_throw();

    CloudRecords check_upload(const std::string &content) const;
    void require_planned_backup(const CloudRecords &filled);
    std::string compare_records() const;
    std::string compare_settings(const DeviceState &state);
    std::vector<std::string> find_changed() const;
    void report_caveats();

    const Direction direction;
    const Callbacks callbacks;
    std::vector<Step> steps;
    size_t next = 0;
    ExchangeReport exchange_report;
    std::string report_line;

    Answer awaited = Answer::none;
    bool ready = false;
    std::optional<CloudRecords> records; ///< that the service announced or, in a restore, handed back
    std::optional<std::string> path;     ///< device path of the backup or restoration file
    std::string written_path;            ///< device path of the file that the service wrote
    std::string written_content;
    std::string file_error; ///< why the last attempt to write the file failed
    orvanta_cloud_source source;
    Backup downloaded;
    std::optional<HistoryWriter> history; ///< nothing before begin()
    DeviceState before;                   ///< the device when the exchange was planned
    std::optional<DeviceState> after;     ///< the device at the end, except unread places

    Device &device = *host_device();
    std::set<SettingPlace> unread_places; ///< reading them has failed
    std::optional<BackupPlan> backup_plan;
    std::optional<RestorePlan> restore_plan;
};

#include "report.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include <glib.h>
#include <nlohmann/json.hpp>

#include "errors.h"
#include "shared_names.h"
#include "value_json.h"

using Json = nlohmann::json;
using Result = ExchangeReport::Result;

ExchangeReport report_planned(const RestorePlan &plan, BackupNumber number, const CloudRecords &records)
{
    ExchangeReport report;
    report.operation = "restore";
    report.backup = number;
    std::vector<std::string> failed;
    for (size_t i = 0; i < records.size(); i++) {
        const std::string key = plan.failed[i] ? records[i].key.value_or("") : std::to_string(i);
        report.records.push_back({key, records[i].date, std::nullopt, plan.failed[i]});
        if (plan.failed[i])
            failed.push_back("\"" + key + "\"");
    }
    std::vector<std::string> refused;
    for (size_t i = 0; i < SETTINGS.size(); i++) {
        const RestoredSetting &setting = plan.settings[i];
        report.settings.push_back(
            {SETTINGS[i].member, setting.before, setting.wanted, setting.after, setting.why});
        if (!setting.refusal.empty())
            refused.emplace_back(SETTINGS[i].member);
    }
    std::vector<std::string> reasons;
    if (records.empty())
        reasons.push_back("backup " + std::to_string(number) + " holds no record");
    if (!failed.empty())
        reasons.push_back("not restored: record " + join(failed, ", "));
    if (!refused.empty())
        reasons.push_back("not restored: " + join(refused, ", "));
    reasons.insert(reasons.end(), plan.refusals.begin(), plan.refusals.end());
    report.reason = join(reasons, "; ");
    report.result = reasons.empty() ? Result::succeeded : Result::failed;
    return report;
}

void throw_failure(const ExchangeReport &report)
{
    switch (report.result) {
    case Result::succeeded:
        return;
    case Result::no_platform:
        throw PlatformError(report.reason);
    case Result::no_daemon:
        throw DaemonError(report.reason);
    case Result::no_keyboard:
        throw KeyboardError(report.reason);
    case Result::no_backup:
        throw NoBackupError(report.reason);
    case Result::damaged:
        throw DamagedError(report.reason);
    case Result::interrupted:
        throw InterruptedError(report.reason);
    case Result::timed_out:
        throw TimeoutError(report.reason);
    case Result::undecided:
    case Result::failed:
        throw HostError(report.reason);
    }
}

void throw_obstacle(const Obstacle &obstacle)
{
    if (obstacle.row.form == SettingForm::identifier)
        throw KeyboardError(obstacle.reason);
    throw PlatformError(obstacle.reason);
}

Backup read_for_restore(const CloudStore &store, BackupNumber number)
{
    try {
        return store.read(number);
    } catch (const UnreadableError &error) {
        throw UnreadableError("backup " + std::to_string(number) + " " + error.what());
    } catch (const DamagedError &error) {
        throw DamagedError("backup " + std::to_string(number) + " is refused: " + error.what());
    }
}

static std::string identity_of(int file)
{
    struct stat status = {};
    if (fstat(file, &status) != 0)
        return "";
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

std::string name_report_file(int file, int number_in_process)
{
    return std::to_string(number_in_process) + ":" + identity_of(file);
}

std::optional<int> find_report_file()
{
    const char *name = getenv(REPORT_VARIABLE);
    const int number = name == nullptr ? -1 : atoi(name);
    if (number <= STDERR_FILENO || name != name_report_file(number, number))
        return std::nullopt;
    return number;
}

// JSON. An unknown enumerator is an error: a later version may have written the report.

template <class Enum, size_t COUNT>
static void read_enumerator(const Json &json, Enum &value, const char *const (&names)[COUNT])
{
    const auto found = std::find(std::begin(names), std::end(names), json.get_ref<const std::string &>());
    if (found == std::end(names))
        throw HostError("it has an unknown value: " + json.get<std::string>());
    value = static_cast<Enum>(found - std::begin(names));
}

#define ENUM_NAMES(Enum, ...)                                                                                \
    static constexpr const char *NAMES_OF_##Enum[] = {__VA_ARGS__};                                          \
    static void to_json(Json &json, Enum value)                                                              \
    {                                                                                                        \
        json = NAMES_OF_##Enum[static_cast<size_t>(value)];                                                  \
    }                                                                                                        \
    static void from_json(const Json &json, Enum &value)                                                     \
    {                                                                                                        \
        read_enumerator(json, value, NAMES_OF_##Enum);                                                       \
    }

using Outcome = Change::Outcome;
ENUM_NAMES(Result, "undecided", "succeeded", "failed", "no platform", "no daemon", "no keyboard", "no backup",
           "damaged", "timed out")
ENUM_NAMES(Outcome, "pending", "made", "refused")
ENUM_NAMES(SettingPlace, "input-method control", "settings store", "configuration")

template <>
struct nlohmann::adl_serializer<SnapshotValue> {
    static void to_json(Json &json, const SnapshotValue &value)
    {
        json = nullptr;
        std::visit(
            [&](const auto &typed) {
                if constexpr (!std::is_same_v<decltype(typed), const std::monostate &>)
                    json = typed;
            },
            value);
    }

    static void from_json(const Json &json, SnapshotValue &value)
    {
        if (json.is_boolean())
            value = json.get<bool>();
        else if (json.is_string())
            value = json.get<std::string>();
        else if (json.is_array())
            value = json.get<std::vector<std::string>>();
    }
};

static void to_json(Json &json, const CloudRecord &record)
{
    json = {{"key", record.key.value_or("")}, {"date", record.date.value_or("")}, {"failed", record.failed}};
}

static void from_json(const Json &json, CloudRecord &record)
{
    record = {json.value("key", ""), json.value("date", ""), std::nullopt, json.value("failed", false)};
}

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(SettingReport, member, before, wanted, after, why)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Change, place, key, before, after, outcome)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(ExchangeReport, operation, result, reason, backup, storing,
                                                stored, records, settings, changes)

static std::string to_line(const Json &object)
{
    return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string encode_report(const ExchangeReport &report)
{
    return to_line(report);
}

std::string encode_change(size_t number, const Change &change)
{
    Json object = change;
    object["change"] = number;
    return to_line(object);
}

static void read_line(const Json &object, ExchangeReport &report)
{
    if (!object.contains("change")) {
        object.at("result");
        report = object.get<ExchangeReport>();
        return;
    }
    const auto index = object["change"].get<size_t>();
    if (index > report.changes.size())
        throw HostError("a change is missing");
    report.changes.resize(std::max(report.changes.size(), index + 1));
    report.changes[index] = object.get<Change>();
}

ExchangeReport decode_report(const std::string &text)
{
    ExchangeReport report;
    std::istringstream lines(text);
    // The last line is incomplete if its writer was killed.
    for (std::string line; std::getline(lines, line) && !lines.eof();)
        try {
            read_line(Json::parse(line), report);
        } catch (const Json::exception &) {
            throw HostError("it is not a report, or is damaged");
        }
    return report;
}

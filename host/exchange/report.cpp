#include "report.h"

#include <cstdlib>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include <glib.h>
#include <nlohmann/json.hpp>

#include "contact.h"
#include "errors.h"

using Json = nlohmann::ordered_json;
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

// Words of a report.

static constexpr const char *RESULTS[] = {"undecided", "succeeded",   "failed",    "no platform",
                                          "no daemon", "no keyboard", "no backup", "damaged"};
static constexpr const char *OUTCOMES[] = {"pending", "made", "refused"};
static constexpr const char *PLACES[] = {"input-method control", "settings store", "configuration"};

template <class Enum, size_t COUNT>
static const char *to_word(const char *const (&words)[COUNT], Enum value)
{
    return words[static_cast<size_t>(value)];
}

template <class Enum, size_t COUNT>
static Enum from_word(const char *const (&words)[COUNT], const Json &object, const char *name)
{
    for (size_t i = 0; i < COUNT; i++)
        if (object.value(name, "") == words[i])
            return static_cast<Enum>(i);
    throw HostError(std::string("it has no ") + name + " that is known");
}

/// Member of an object that stands for a text which is no UTF-8: its bytes, in base 64.
static constexpr char BYTES[] = "base64";

// Writing.

/// A text of the device's may be no UTF-8, and has to be read back as it is.
static Json to_json(const std::string &text)
{
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE)
        return text;
    g_autofree gchar *encoded = g_base64_encode(reinterpret_cast<const guchar *>(text.data()), text.size());
    return {{BYTES, encoded}};
}

static Json to_json(const DeviceValue &value)
{
    if (!value)
        return nullptr;
    const auto *text = std::get_if<std::string>(&*value);
    if (text != nullptr)
        return to_json(*text);
    const bool *truth = std::get_if<bool>(&*value);
    return truth != nullptr ? Json(*truth) : Json(std::get<int>(*value));
}

static Json to_json(const SnapshotValue &value)
{
    if (const bool *truth = std::get_if<bool>(&value); truth != nullptr)
        return *truth;
    if (const auto *text = std::get_if<std::string>(&value); text != nullptr)
        return *text;
    const auto *languages = std::get_if<std::vector<std::string>>(&value);
    return languages != nullptr ? Json(*languages) : Json();
}

static Json to_json(const Change &change)
{
    return {{"place", to_word(PLACES, change.place)},
            {"key", change.key},
            {"before", to_json(change.before)},
            {"after", to_json(change.after)},
            {"outcome", to_word(OUTCOMES, change.outcome)}};
}

static std::string to_line(const Json &object)
{
    return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string encode_report(const ExchangeReport &report)
{
    Json object = {{"operation", report.operation}, {"result", to_word(RESULTS, report.result)},
                   {"reason", report.reason},       {"backup", report.backup},
                   {"storing", report.storing},     {"stored", report.stored},
                   {"records", Json::array()},      {"settings", Json::array()},
                   {"changes", Json::array()}};
    for (const CloudRecord &record : report.records)
        object["records"].push_back({{"key", record.key.value_or("")},
                                     {"date", record.date.value_or("")},
                                     {"failed", record.failed}});
    for (const SettingReport &setting : report.settings)
        object["settings"].push_back({{"member", setting.member},
                                      {"before", to_json(setting.before)},
                                      {"wanted", to_json(setting.wanted)},
                                      {"after", to_json(setting.after)},
                                      {"why", setting.why}});
    for (const Change &change : report.changes)
        object["changes"].push_back(to_json(change));
    return to_line(object);
}

std::string encode_change(size_t number, const Change &change)
{
    Json object = {{"change", number}};
    object.update(to_json(change));
    return to_line(object);
}

// Reading.

static DeviceValue read_value(const Json &value)
{
    if (value.is_boolean())
        return value.get<bool>();
    if (value.is_number_integer())
        return value.get<int>();
    if (value.is_string())
        return value.get<std::string>();
    if (!value.is_object())
        return std::nullopt;
    gsize length = 0;
    g_autofree guchar *bytes = g_base64_decode(value.value(BYTES, "").c_str(), &length);
    return std::string(reinterpret_cast<const char *>(bytes), length);
}

static SnapshotValue read_wanted(const Json &value)
{
    if (value.is_boolean())
        return value.get<bool>();
    if (value.is_string())
        return value.get<std::string>();
    return value.is_array() ? SnapshotValue(value.get<std::vector<std::string>>()) : SnapshotValue();
}

static Change read_change(const Json &object)
{
    return {from_word<SettingPlace>(PLACES, object, "place"), object.value("key", ""),
            read_value(object.value("before", Json())), read_value(object.value("after", Json())),
            from_word<Change::Outcome>(OUTCOMES, object, "outcome")};
}

static ExchangeReport read_report(const Json &object)
{
    ExchangeReport report;
    report.operation = object.value("operation", "");
    report.result = from_word<Result>(RESULTS, object, "result");
    report.reason = object.value("reason", "");
    report.backup = object.value("backup", BackupNumber{0});
    report.storing = object.value("storing", false);
    report.stored = object.value("stored", false);
    for (const Json &record : object.value("records", Json::array()))
        report.records.push_back(
            {record.value("key", ""), record.value("date", ""), std::nullopt, record.value("failed", false)});
    for (const Json &setting : object.value("settings", Json::array()))
        report.settings.push_back({setting.value("member", ""), read_value(setting.value("before", Json())),
                                   read_wanted(setting.value("wanted", Json())),
                                   read_value(setting.value("after", Json())), setting.value("why", "")});
    for (const Json &change : object.value("changes", Json::array()))
        report.changes.push_back(read_change(change));
    return report;
}

static void read_line(const Json &object, ExchangeReport &report)
{
    if (!object.contains("change")) {
        report = read_report(object);
        return;
    }
    const auto index = object["change"].get<size_t>();
    if (index > report.changes.size())
        throw HostError("it lacks a change");
    report.changes.resize(std::max(report.changes.size(), index + 1));
    report.changes[index] = read_change(object);
}

ExchangeReport decode_report(const std::string &text)
{
    ExchangeReport report;
    std::istringstream lines(text);
    // A line that does not end was being written when its process was killed.
    for (std::string line; std::getline(lines, line) && !lines.eof();)
        try {
            read_line(Json::parse(line), report);
        } catch (const Json::exception &) {
            throw HostError("it is no report, or damaged");
        }
    return report;
}

#include "report.h"

#include <cstdlib>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "errors.h"
#include "json.h"

std::string list_before(const ExchangeReport &report, const SettingRow &row)
{
    for (const SettingReport &setting : report.settings)
        if (const auto *list = setting.before ? std::get_if<std::string>(&*setting.before) : nullptr;
            list != nullptr && setting.member == row.member)
            return *list;
    return "";
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
    const char *name = g_getenv(REPORT_VARIABLE);
    const int number = name == nullptr ? -1 : atoi(name);
    if (number <= STDERR_FILENO || name != name_report_file(number, number))
        return std::nullopt;
    return number;
}

bool is_asked_for(const char *variable)
{
    return g_strcmp0(g_getenv(variable), "1") == 0;
}

// Words of a report.

static constexpr const char *RESULTS[] = {"undecided",   "succeeded", "failed",
                                          "no platform", "no backup", "damaged"};
static constexpr const char *OUTCOMES[] = {"pending", "made", "refused"};
static constexpr const char *KINDS[] = {"unusable", "unfit", "refused"};
static constexpr const char *PLACES[] = {"input-method control", "settings store", "configuration"};

template <class Enum, size_t COUNT>
static const char *to_word(const char *const (&words)[COUNT], Enum value)
{
    return words[static_cast<size_t>(value)];
}

template <class Enum, size_t COUNT>
static Enum from_word(const char *const (&words)[COUNT], JsonObject *object, const char *name)
{
    for (size_t i = 0; i < COUNT; i++)
        if (get_text(object, name) == words[i])
            return static_cast<Enum>(i);
    throw HostError(std::string("it has no ") + name + " that is known");
}

/// Member of an object that stands for a text which is no UTF-8: its bytes, in base 64.
static constexpr char BYTES[] = "base64";

// Writing.

static void add_text(JsonBuilder *builder, const char *name, const std::string &text)
{
    g_autofree gchar *valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    json_builder_set_member_name(builder, name);
    json_builder_add_string_value(builder, valid);
}

/// A text of the device's, which may be no UTF-8 and has to be read back as it is.
static void add_exact_text(JsonBuilder *builder, const char *name, const std::string &text)
{
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE) {
        add_text(builder, name, text);
        return;
    }
    g_autofree gchar *encoded = g_base64_encode(reinterpret_cast<const guchar *>(text.data()), text.size());
    json_builder_set_member_name(builder, name);
    json_builder_begin_object(builder);
    add_text(builder, BYTES, encoded);
    json_builder_end_object(builder);
}

static void add_value(JsonBuilder *builder, const char *name, const DeviceValue &value)
{
    if (value && std::holds_alternative<std::string>(*value)) {
        add_exact_text(builder, name, std::get<std::string>(*value));
        return;
    }
    json_builder_set_member_name(builder, name);
    if (!value)
        json_builder_add_null_value(builder);
    else if (const bool *truth = std::get_if<bool>(&*value); truth != nullptr)
        json_builder_add_boolean_value(builder, *truth ? TRUE : FALSE);
    else
        json_builder_add_int_value(builder, std::get<int>(*value));
}

static void add_truth(JsonBuilder *builder, const char *name, bool truth)
{
    json_builder_set_member_name(builder, name);
    json_builder_add_boolean_value(builder, truth ? TRUE : FALSE);
}

template <class Elements, class AddMembers>
static void add_array(JsonBuilder *builder, const char *name, const Elements &elements,
                      AddMembers add_members)
{
    json_builder_set_member_name(builder, name);
    json_builder_begin_array(builder);
    for (const auto &element : elements) {
        json_builder_begin_object(builder);
        add_members(element);
        json_builder_end_object(builder);
    }
    json_builder_end_array(builder);
}

static void add_change(JsonBuilder *builder, const Change &change)
{
    add_text(builder, "place", to_word(PLACES, change.place));
    add_text(builder, "key", change.key);
    add_value(builder, "before", change.before);
    add_value(builder, "after", change.after);
    add_text(builder, "outcome", to_word(OUTCOMES, change.outcome));
}

template <class AddMembers>
static std::string make_line(AddMembers add_members)
{
    g_autoptr(JsonBuilder) builder = json_builder_new();
    json_builder_begin_object(builder);
    add_members(builder);
    json_builder_end_object(builder);
    g_autoptr(JsonNode) root = json_builder_get_root(builder);
    g_autofree gchar *text = json_to_string(root, FALSE);
    return std::string(text) + "\n";
}

std::string encode_report(const ExchangeReport &report)
{
    return make_line([&](JsonBuilder *builder) {
        add_text(builder, "operation", report.operation);
        add_text(builder, "result", to_word(RESULTS, report.result));
        add_text(builder, "reason", report.reason);
        json_builder_set_member_name(builder, "backup");
        json_builder_add_int_value(builder, static_cast<gint64>(report.backup));
        add_truth(builder, "storing", report.storing);
        add_truth(builder, "stored", report.stored);
        add_array(builder, "records", report.records, [&](const CloudRecord &record) {
            add_text(builder, "key", record.key.value_or(""));
            add_text(builder, "date", record.date.value_or(""));
            add_truth(builder, "failed", record.failed);
        });
        add_text(builder, "snapshot", report.snapshot);
        add_array(builder, "settings", report.settings, [&](const SettingReport &setting) {
            add_text(builder, "member", setting.member);
            add_value(builder, "before", setting.before);
            add_value(builder, "after", setting.after);
        });
        add_array(builder, "changes", report.changes,
                  [&](const Change &change) { add_change(builder, change); });
        add_array(builder, "troubles", report.troubles, [&](const Trouble &trouble) {
            add_text(builder, "kind", to_word(KINDS, trouble.kind));
            add_text(builder, "place", to_word(PLACES, trouble.place));
            add_text(builder, "reason", trouble.reason);
        });
    });
}

std::string encode_change(size_t number, const Change &change)
{
    return make_line([&](JsonBuilder *builder) {
        json_builder_set_member_name(builder, "change");
        json_builder_add_int_value(builder, static_cast<gint64>(number));
        add_change(builder, change);
    });
}

// Reading.

static DeviceValue read_value(JsonObject *object, const char *name)
{
    if (const auto text = get_text(object, name); text)
        return *text;
    if (const auto truth = get_boolean(object, name); truth)
        return *truth;
    if (const auto number = get_integer(object, name); number)
        return static_cast<int>(*number);
    if (const auto encoded = get_text(get_object(get_member(object, name)), BYTES); encoded) {
        gsize length = 0;
        g_autofree guchar *bytes = g_base64_decode(encoded->c_str(), &length);
        return std::string(reinterpret_cast<const char *>(bytes), length);
    }
    return std::nullopt;
}

static std::string read_text(JsonObject *object, const char *name)
{
    return get_text(object, name).value_or("");
}

template <class Read>
static auto read_array(JsonObject *object, const char *name, Read read)
{
    std::vector<decltype(read(object))> elements;
    JsonArray *array = get_array(object, name);
    for (guint i = 0; array != nullptr && i < json_array_get_length(array); i++)
        elements.push_back(read(get_object(json_array_get_element(array, i))));
    return elements;
}

static Change read_change(JsonObject *object)
{
    return {from_word<SettingPlace>(PLACES, object, "place"), read_text(object, "key"),
            read_value(object, "before"), read_value(object, "after"),
            from_word<Change::Outcome>(OUTCOMES, object, "outcome")};
}

static ExchangeReport read_report(JsonObject *object)
{
    ExchangeReport report;
    report.operation = read_text(object, "operation");
    report.result = from_word<ExchangeReport::Result>(RESULTS, object, "result");
    report.reason = read_text(object, "reason");
    report.backup = static_cast<BackupNumber>(get_integer(object, "backup").value_or(0));
    report.storing = get_boolean(object, "storing").value_or(false);
    report.stored = get_boolean(object, "stored").value_or(false);
    report.records = read_array(object, "records", [](JsonObject *record) {
        return CloudRecord{get_text(record, "key"), get_text(record, "date"), std::nullopt,
                           get_boolean(record, "failed").value_or(false)};
    });
    report.snapshot = read_text(object, "snapshot");
    report.settings = read_array(object, "settings", [](JsonObject *setting) {
        return SettingReport{read_text(setting, "member"), read_value(setting, "before"),
                             read_value(setting, "after")};
    });
    report.changes = read_array(object, "changes", read_change);
    report.troubles = read_array(object, "troubles", [](JsonObject *trouble) {
        return Trouble{from_word<Trouble::Kind>(KINDS, trouble, "kind"),
                       from_word<SettingPlace>(PLACES, trouble, "place"), read_text(trouble, "reason")};
    });
    return report;
}

ExchangeReport decode_report(const std::string &text)
{
    ExchangeReport report;
    std::istringstream lines(text);
    // A line that does not end was being written when its process was killed.
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
        g_autoptr(JsonNode) root = parse_json(line);
        JsonObject *object = get_object(root);
        if (const auto number = get_integer(object, "change"); number) {
            const auto index = static_cast<size_t>(*number);
            if (index > report.changes.size())
                throw HostError("it lacks a change");
            report.changes.resize(std::max(report.changes.size(), index + 1));
            report.changes[index] = read_change(object);
        } else {
            report = read_report(object);
        }
    }
    return report;
}

#include "snapshot.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include <nlohmann/json.hpp>

using Json = nlohmann::json;

/// Deeper than any snapshot, but not too deep for a parser's stack.
static constexpr size_t MAX_DEPTH = 1000;
static constexpr char BYTE_ORDER_MARK[] = "\xef\xbb\xbf";

static bool is_without_nul(const std::string &text)
{
    return text.find('\0') == std::string::npos;
}

/// True if other JSON parsers read the same value.
static bool is_portable(const Json &value, size_t depth = 0)
{
    constexpr auto MAX_INTEGER = std::numeric_limits<std::int64_t>::max();
    switch (value.type()) {
    case Json::value_t::string:
        return is_without_nul(value.get_ref<const std::string &>());
    case Json::value_t::number_unsigned:
        return value.get<std::uint64_t>() <= static_cast<std::uint64_t>(MAX_INTEGER);
    case Json::value_t::number_float:
        return std::abs(value.get<double>()) < static_cast<double>(MAX_INTEGER);
    case Json::value_t::array:
        return depth < MAX_DEPTH && std::all_of(value.begin(), value.end(), [&](const Json &element) {
                   return is_portable(element, depth + 1);
               });
    case Json::value_t::object:
        return depth < MAX_DEPTH &&
               std::all_of(value.items().begin(), value.items().end(), [&](const auto &member) {
                   return is_without_nul(member.key()) && is_portable(member.value(), depth + 1);
               });
    default:
        return true;
    }
}

static const Json *find_member(const Json &object, const char *name)
{
    const auto found = object.is_object() ? object.find(name) : object.end();
    return found == object.end() ? nullptr : &*found;
}

static bool is_language(const Json &element)
{
    const Json *language = find_member(element, MEMBER_LANG_ID);
    return language != nullptr && language->is_string();
}

static std::vector<std::string> read_languages(const Json &elements)
{
    std::vector<std::string> languages;
    for (const Json &element : elements)
        if (is_language(element))
            languages.push_back(element[MEMBER_LANG_ID]);
    return languages;
}

static SnapshotValue read_value(const Json &member, SettingForm form)
{
    if (form == SettingForm::languages)
        return member.is_array() ? SnapshotValue(read_languages(member)) : SnapshotValue();
    if (form == SettingForm::identifier)
        return member.is_string() ? SnapshotValue(member.get<std::string>()) : SnapshotValue();
    if (member.is_number())
        return member.get<double>() != 0;
    return member.is_boolean() ? SnapshotValue(member.get<bool>()) : SnapshotValue();
}

/// Returns how a member differs from what the service writes, or an empty text.
static std::string find_problem(const Json *member, const SettingRow &row, const SnapshotValue &value)
{
    if (member == nullptr)
        return std::string(row.member) + " is missing";
    if (value == SnapshotValue() || member->is_number())
        return std::string(row.member) + " has the wrong type";
    const bool is_plain = row.form != SettingForm::languages ||
                          std::all_of(member->begin(), member->end(), [](const Json &element) {
                              return is_language(element) && element.size() == 1;
                          });
    return is_plain ? "" : std::string(row.member) + " has elements that are not languages";
}

static void find_unknown_members(const Json &root, std::vector<std::string> &problems)
{
    for (const auto &member : root.items())
        if (std::none_of(SETTINGS.begin(), SETTINGS.end(),
                         [&](const SettingRow &row) { return member.key() == row.member; }))
            problems.push_back("\"" + member.key() + "\" is not a setting");
}

std::optional<Snapshot> read_snapshot(const std::string &text)
{
    const Json root = Json::parse(text, nullptr, false);
    if (root.is_discarded() || text.starts_with(BYTE_ORDER_MARK) || !is_portable(root))
        return std::nullopt;
    Snapshot snapshot;
    snapshot.is_object = root.is_object();
    for (size_t i = 0; i < SETTINGS.size(); i++) {
        const Json *member = find_member(root, SETTINGS[i].member);
        if (member != nullptr)
            snapshot.values[i] = read_value(*member, SETTINGS[i].form);
        if (const std::string problem = find_problem(member, SETTINGS[i], snapshot.values[i]);
            !problem.empty())
            snapshot.problems.push_back(problem);
    }
    if (snapshot.is_object)
        find_unknown_members(root, snapshot.problems);
    return snapshot;
}

static std::string write_value(const SnapshotValue &value)
{
    if (const bool *truth = std::get_if<bool>(&value); truth != nullptr)
        return *truth ? "true" : "false";
    if (const auto *text = std::get_if<std::string>(&value); text != nullptr)
        return Json(*text).dump();
    if (const auto *languages = std::get_if<std::vector<std::string>>(&value); languages != nullptr) {
        Json elements = Json::array();
        for (const std::string &language : *languages)
            elements.push_back({{MEMBER_LANG_ID, language}});
        return elements.dump();
    }
    return "null";
}

std::string write_snapshot(const SnapshotValues &values)
{
    std::string members;
    for (size_t i = 0; i < SETTINGS.size(); i++)
        members += (i == 0 ? "\"" : ",\"") + std::string(SETTINGS[i].member) + "\":" + write_value(values[i]);
    return "{" + members + "}";
}

DeviceValue device_value(const SettingRow &row, const SnapshotValue &value)
{
    if (const bool *truth = std::get_if<bool>(&value); truth != nullptr)
        return row.form == SettingForm::integer_switch ? DeviceValue(*truth ? 1 : 0) : DeviceValue(*truth);
    if (const auto *text = std::get_if<std::string>(&value); text != nullptr)
        return *text;
    if (const auto *languages = std::get_if<std::vector<std::string>>(&value); languages != nullptr)
        return join_languages(*languages);
    return std::nullopt;
}

bool is_same_snapshot(const SnapshotValues &one, const SnapshotValues &other)
{
    for (size_t i = 0; i < SETTINGS.size(); i++)
        if (!is_same_value(SETTINGS[i], device_value(SETTINGS[i], one[i]),
                           device_value(SETTINGS[i], other[i])))
            return false;
    return true;
}

#include "import.h"

#include <glib.h>
#include <nlohmann/json.hpp>

#include "cloud_store.h"
#include "json.h"
#include "snapshot.h"

/// Key of the record that holds a snapshot in a backup of the service's.
static constexpr char RECORD_KEY[] = "0";

/// Whether scripts can read it. A device reads more than that, such as comments.
static bool is_strict_json(const std::string &text)
{
    static constexpr char BYTE_ORDER_MARK[] = "\xef\xbb\xbf";
    return nlohmann::json::accept(text) && !text.starts_with(BYTE_ORDER_MARK);
}

/// A snapshot as it is, or as a device reads it.
static std::string make_strict(const std::string &text, std::vector<std::string> &remarks)
{
    if (is_strict_json(text))
        return text;
    remarks.emplace_back("it is no strict JSON; what a device reads in it is stored");
    g_autoptr(JsonNode) root = parse_json(text);
    g_autofree gchar *strict = json_to_string(root, FALSE);
    if (!is_strict_json(strict)) // such as a number that is infinite, or escapes that come to no UTF-8
        throw HostError("it is no strict JSON, and can't be made that");
    return strict;
}

/// The record file of a backup that holds this snapshot.
static std::string wrap_snapshot(const std::string &text)
{
    const std::string now = std::to_string(g_get_real_time() / 1000);
    return encode_record_file({{RECORD_KEY, now, text}});
}

static void check_record_file(const std::string &content)
{
    try {
        snapshot_in(decode_record_file(content));
    } catch (const HostError &error) {
        throw DamagedError(error.what());
    }
}

static void require_utf8(const std::string &text)
{
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE)
        throw HostError("it is no UTF-8 text");
}

Importable make_importable(const std::string &content)
{
    if (is_record_file(content)) {
        check_record_file(content);
        return {content, {}};
    }
    require_utf8(content);
    const std::string text = content.substr(0, content.find_last_not_of(" \t\r\n") + 1);
    Importable importable;
    try {
        importable.remarks = find_oddities(text);
    } catch (const HostError &error) {
        throw HostError(std::string("it is neither a backup nor a snapshot: ") + error.what());
    }
    importable.content = wrap_snapshot(make_strict(text, importable.remarks));
    return importable;
}

#include "import.h"

#include <glib.h>

#include "cloud_store.h"
#include "snapshot.h"

Importable make_importable(const std::string &content)
{
    if (is_record_file(content)) {
        try {
            snapshot_in(decode_record_file(content));
            return {content, {}};
        } catch (const HostError &error) {
            throw DamagedError(error.what());
        }
    }
    if (g_utf8_validate(content.data(), static_cast<gssize>(content.size()), nullptr) == FALSE)
        throw HostError("it is no UTF-8 text");
    const std::string text = content.substr(0, content.find_last_not_of(" \t\r\n") + 1);
    if (!is_read_alike(text))
        throw DamagedError("parsers read it in different ways: it is no strict JSON");
    const std::optional<Snapshot> snapshot = read_snapshot(text);
    if (!snapshot || !snapshot->is_object)
        throw HostError("it is neither a backup nor a snapshot: it is no JSON object");
    const std::string now = std::to_string(g_get_real_time() / 1000);
    return {encode_record_file({{RECORD_KEY, now, text}}), snapshot->oddities};
}

#include "import.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <glib.h>

#include "cloud_store.h"
#include "files.h"
#include "snapshot.h"

std::string read_input(const std::string &name, size_t max_size, const char *purpose)
try {
    const Descriptor file(name == "-" ? dup(STDIN_FILENO) : open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        throw HostError(g_strerror(errno));
    return read_to_end(file, max_size);
} catch (const HostError &error) {
    throw HostError(name + " can't be " + purpose + ": " + error.what());
}

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
        throw HostError("not UTF-8 text");
    const std::string text = content.substr(0, content.find_last_not_of(" \t\r\n") + 1);
    if (!is_unambiguous(text))
        throw DamagedError("not strict JSON: parsers may read it differently");
    const std::optional<Snapshot> snapshot = read_snapshot(text);
    if (!snapshot || !snapshot->is_object)
        throw HostError("neither a backup nor a snapshot: not a JSON object");
    const std::string now = std::to_string(g_get_real_time() / 1000);
    return {encode_record_file({{RECORD_KEY, now, text}}), snapshot->problems};
}

#include "state.h"

#include <algorithm>
#include <unistd.h>

#include <glib.h>
#include <glib/gstdio.h>

namespace fs = std::filesystem;

static constexpr int PRIVATE_FOLDER = 0700;
static constexpr int PRIVATE_FILE = 0600;

fs::path absolute_path(const fs::path &path)
{
    std::error_code error;
    const fs::path absolute = fs::absolute(path, error);
    if (error)
        throw StateError("can't tell where " + path.string() + " is: " + error.message());
    return absolute;
}

fs::path state_root()
{
    const char *root = g_getenv("IME_BACKUP_HOST_DIR");
    if (root != nullptr && *root != '\0')
        return absolute_path(root);
    return fs::path(g_get_user_state_dir()) / "ime-backup";
}

fs::path host_path(const std::string &device_path)
{
    const fs::path path(device_path);
    if (!path.is_absolute() || std::find(path.begin(), path.end(), "..") != path.end())
        throw HostError("not an absolute path without \"..\": " + device_path);
    return state_root() / path.relative_path();
}

void make_private_folder(const fs::path &folder)
{
    if (g_mkdir_with_parents(folder.c_str(), PRIVATE_FOLDER) != 0)
        throw StateError("can't make the folder " + folder.string() + ": " + g_strerror(errno));
    if (g_access(folder.c_str(), W_OK | X_OK) != 0)
        throw StateError("can't write in the folder " + folder.string() + ": " + g_strerror(errno));
}

void write_private_file(const fs::path &file, const std::string &content)
{
    make_private_folder(file.parent_path());
    g_autoptr(GError) error = nullptr;
    constexpr auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    if (g_file_set_contents_full(file.c_str(), content.data(), static_cast<gssize>(content.size()), flags,
                                 PRIVATE_FILE, &error) == FALSE)
        throw HostError("can't write " + file.string() + ": " + error->message);
}

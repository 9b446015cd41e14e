#include "paths.h"

#include <algorithm>

#include <glib.h>

#include "errors.h"

namespace fs = std::filesystem;

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

fs::path absolute_path(const fs::path &path)
{
    std::error_code error;
    const fs::path absolute = fs::absolute(path, error);
    if (error)
        throw PlatformError("can't make the path " + path.string() + " absolute: " + error.message());
    return absolute;
}

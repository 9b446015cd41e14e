#pragma once

#include <filesystem>
#include <string>

/// Returns the folder that holds all of the host platform's state: $IME_BACKUP_HOST_DIR; default: ime-backup
/// in the user's state folder.
///
/// @throws PlatformError when the path is relative and there is no current folder
std::filesystem::path state_root();

/// Returns the path below the state root that stands for a device path such as "/opt/usr/...".
///
/// @throws HostError when the device path is not absolute or contains ".."
std::filesystem::path host_path(const std::string &device_path);

/// @throws PlatformError when the path is relative and there is no current folder
std::filesystem::path absolute_path(const std::filesystem::path &path);

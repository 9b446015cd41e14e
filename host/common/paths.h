#pragma once

#include <filesystem>
#include <string>

/// The folder that holds all of the host platform's state: $IME_BACKUP_HOST_DIR, else ime-backup below the
/// user's state folder.
///
/// @throws PlatformError when a relative path has no folder to start from
std::filesystem::path state_root();

/// Where a device path, such as "/opt/usr/...", lies on the host: below the state root.
///
/// @throws HostError when the path is not absolute or leads out of the root
std::filesystem::path host_path(const std::string &device_path);

/// @throws PlatformError when a relative path has no folder to start from
std::filesystem::path absolute_path(const std::filesystem::path &path);

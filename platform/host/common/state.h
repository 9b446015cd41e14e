#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

/// Something that the host can't do; the message is for the person at the workstation.
struct HostError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The host platform's own state can't be used at all.
struct StateError : HostError {
    using HostError::HostError;
};

/// @throws StateError when a relative path has no folder to start from
std::filesystem::path absolute_path(const std::filesystem::path &path);

/// The folder that holds all of the host platform's state: $IME_BACKUP_HOST_DIR, else ime-backup below the
/// user's state folder.
std::filesystem::path state_root();

/// Where a device path, such as "/opt/usr/...", lies on the host: below the state root.
///
/// @throws HostError when the path is not absolute or leads out of the root
std::filesystem::path host_path(const std::string &device_path);

/// Makes a folder, and those above it that are missing; only their owner can enter what is made.
///
/// @throws StateError when it can't be made or nothing can be written in it
void make_private_folder(const std::filesystem::path &folder);

/// Replaces a file, whole or not at all; durably, so that it survives a power cut once this returns. Only
/// its owner can read it.
///
/// @throws HostError when it can't be written; the old file is then still there
void write_private_file(const std::filesystem::path &file, const std::string &content);

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A backup as the retention rules see it.
struct RatedBackup {
    enum class State { good, damaged, unreadable } state;
    std::optional<std::int64_t> date; ///< in milliseconds since 1970
};

/// How many backups to keep. A backup is kept if any rule keeps it.
struct Retention {
    std::uint64_t newest = 0;
    std::uint64_t daily = 0; ///< days with a backup: of each, the backup with the latest date is kept
    std::uint64_t weekly = 0;
    std::uint64_t monthly = 0;
    std::optional<std::int64_t> within = {}; ///< maximum age in milliseconds
};

/// Returns, for each backup, the names of the rules that keep it; none if the backup is to be deleted.
/// Unreadable backups are always kept. So are, among the good ones, the newest and the one with the latest
/// date. Rules about dates also keep good backups that have no date.
///
/// @param backups in the order of their numbers
/// @param now     in milliseconds since 1970
std::vector<std::vector<std::string>>
apply_retention(const Retention &retention, const std::vector<RatedBackup> &backups, std::int64_t now);

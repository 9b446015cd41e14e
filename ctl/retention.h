#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A backup, as the rules of a retention see it.
struct RatedBackup {
    enum class State { good, damaged, unreadable } state;
    std::optional<std::int64_t> date; ///< in milliseconds since 1970
};

/// How many backups to keep. A backup is kept if any rule keeps it.
struct Retention {
    std::uint64_t newest = 0;
    std::uint64_t daily = 0; ///< of each of the last days that have a backup, the one with the latest date
    std::uint64_t weekly = 0;
    std::uint64_t monthly = 0;
    std::optional<std::int64_t> within = {}; ///< the last milliseconds
};

/// The rules that keep each backup, for a person; none for one that goes. What can't be read is kept, and of
/// the good ones always the newest, the one with the latest date and, where a rule goes by dates, those
/// without one.
///
/// @param backups oldest first, by their numbers
/// @param now     in milliseconds since 1970
std::vector<std::vector<std::string>>
apply_retention(const Retention &retention, const std::vector<RatedBackup> &backups, std::int64_t now);

#include "retention.h"

#include <algorithm>
#include <numeric>

#include <glib.h>

/// Formats the period of local time that a date is in.
static std::string period_of(std::int64_t date, const char *format)
{
    g_autoptr(GDateTime) time = g_date_time_new_from_unix_local(date / 1000);
    g_autofree gchar *text = time == nullptr ? nullptr : g_date_time_format(time, format);
    return text == nullptr ? "" : text;
}

std::vector<std::vector<std::string>>
apply_retention(const Retention &retention, const std::vector<RatedBackup> &backups, std::int64_t now)
{
    using State = RatedBackup::State;
    std::vector<std::vector<std::string>> kept_by(backups.size());
    const bool has_date_rule = retention.within || retention.daily + retention.weekly + retention.monthly > 0;

    std::vector<size_t> by_date; // the good backups that have a date, latest first
    std::optional<size_t> newest;
    for (size_t i = 0; i < backups.size(); i++) {
        const auto &[state, date] = backups[i];
        if (state == State::unreadable)
            kept_by[i].emplace_back("unreadable");
        if (i + retention.newest >= backups.size())
            kept_by[i].emplace_back("newest");
        if (retention.within && date && *date > now - *retention.within)
            kept_by[i].emplace_back("within");
        if (state != State::good)
            continue;
        newest = i;
        if (date && !period_of(*date, "%F").empty()) // the calendar ends with the year 9999
            by_date.push_back(i);
        else if (has_date_rule)
            kept_by[i].emplace_back("no date");
    }
    std::ranges::stable_sort(by_date, [&](size_t one, size_t other) {
        return std::pair(*backups[one].date, one) > std::pair(*backups[other].date, other);
    });

    const struct {
        const char *name;
        const char *period;
        std::uint64_t count;
    } rules[] = {{"daily", "%F", retention.daily},
                 {"weekly", "%G-%V", retention.weekly},
                 {"monthly", "%Y-%m", retention.monthly}};
    for (const auto &rule : rules) {
        std::string last;
        std::uint64_t left = rule.count;
        for (const size_t i : by_date)
            if (const std::string period = period_of(*backups[i].date, rule.period);
                left > 0 && period != last) {
                kept_by[i].emplace_back(rule.name);
                last = period;
                left--;
            }
    }
    if (newest && kept_by[*newest].empty())
        kept_by[*newest].emplace_back("newest");
    if (!by_date.empty() && kept_by[by_date.front()].empty())
        kept_by[by_date.front()].emplace_back("latest date");
    return kept_by;
}

// Which backups "prune" keeps.

#include <glib.h>
#include <gtest/gtest.h>

#include "retention.h"
#include "text.h"

namespace
{

/// @param time as "2026-06-15T12:00" in UTC, with or without seconds; or in milliseconds
std::optional<std::int64_t> parse(const std::string &time)
{
    static constexpr size_t SIZE_TO_MINUTES = sizeof "2026-06-15T12:00" - 1;
    const std::string text = time + (time.size() == SIZE_TO_MINUTES ? ":00Z" : "Z");
    g_autoptr(GDateTime) date = g_date_time_new_from_iso8601(text.c_str(), nullptr);
    if (date != nullptr)
        return g_date_time_to_unix(date) * 1000 + g_date_time_get_microsecond(date) / 1000;
    return time.empty() ? std::nullopt : std::optional(std::stoll(time));
}

TEST(Retention, KeepsWhatItsRulesSay)
{
    static constexpr char UTC[] = "UTC0";
    static constexpr char BERLIN[] = "CET-1CEST,M3.5.0,M10.5.0/3";
    static constexpr char NEW_YORK[] = "EST5EDT,M3.2.0,M11.1.0";
    const struct {
        const char *zone;
        Retention retention;
        /// Each is "DATE RULES" of a good backup, "!DATE RULES" of a damaged one, "?DATE RULES" of an
        /// unreadable one; without RULES, the backup is deleted.
        std::vector<std::string> backups;
    } cases[] = {
        {UTC, {.newest = 1}, {}},
        {UTC, {.newest = 9}, {" newest", "! newest"}},
        {UTC,
         {.newest = 1},
         {"2026-06-01T10:00", "2026-06-03T10:00 latest date", "2026-06-02T10:00 newest",
          "!2026-06-04T10:00 newest"}},
        {UTC,
         {.within = 3'600'000},
         {"2026-06-15T11:00", "2026-06-15T11:00:00.001 within", "!2026-06-15T11:30 within",
          "!2026-06-14T11:30", "2030-01-01T00:00 within"}},
        // A day of 23 hours, and a day of 25.
        {BERLIN,
         {.daily = 2},
         {"2026-03-28T22:59:59.999", "2026-03-28T23:00", "2026-03-29T21:59:59.999 daily",
          "2026-03-29T22:00 daily"}},
        {BERLIN,
         {.daily = 3},
         {"2026-10-24T21:59:59.999 daily", "2026-10-24T22:00", "2026-10-25T22:59:59.999 daily",
          "2026-10-25T23:00 daily"}},
        // The year begins five hours after UTC's, in the middle of a week.
        {NEW_YORK,
         {.daily = 9, .weekly = 9, .monthly = 9},
         {"2026-01-01T04:59:59.999 daily,monthly", "2026-01-01T05:00",
          "2026-01-02T04:59:59.999 daily,weekly,monthly"}},
        // A week begins on Monday, and belongs to the year of its Thursday.
        {UTC,
         {.weekly = 9},
         {"2021-01-03T23:59:59.999 weekly", "2021-01-04T00:00 weekly", "2024-12-29T23:59:59.999 weekly",
          "2024-12-30T00:00", "2025-01-05T23:59:59.999 weekly", "2025-12-29T00:00 weekly"}},
        {UTC,
         {.monthly = 2},
         {"2024-06-30T23:59:59.999", "2025-06-30T23:59:59.999 monthly", "2026-06-01T00:00 monthly"}},
        // Dates that are not in the order of the numbers. Of equal dates, the higher number counts.
        {UTC,
         {.daily = 1},
         {"2026-06-03T10:00", "2026-06-03T12:00", "2026-06-03T12:00 daily", "2026-06-03T11:00",
          "2026-06-02T12:00 newest"}},
        {UTC,
         {.newest = 1, .daily = 2},
         {"2026-06-03T10:00 daily", "2026-06-01T10:00", "2026-06-02T10:00 newest,daily"}},
        {UTC,
         {.daily = 1, .monthly = 2},
         {"2030-01-01T00:00 daily,monthly", "2026-06-14T10:00 monthly", "2026-06-13T10:00 newest"}},
        // Backups without a usable date do not count as a day's. One date is in microseconds by mistake.
        {UTC,
         {.daily = 1},
         {"?2026-06-04T10:00 unreadable", "!2026-06-04T10:00", " no date", "1780000000000000 no date",
          "2026-06-03T10:00 daily", "!", "? unreadable"}},
    };
    for (const auto &[zone, retention, expected] : cases) {
        g_setenv("TZ", zone, TRUE);
        std::vector<RatedBackup> backups;
        std::vector<std::string> kept;
        for (const std::string &backup : expected) {
            const size_t mark = backup.find_first_of("!?") == 0 ? 1 : 0;
            const std::string date = backup.substr(mark, backup.find(' ') - mark);
            using enum RatedBackup::State;
            backups.push_back({mark == 0 ? good : backup[0] == '!' ? damaged : unreadable, parse(date)});
            kept.push_back(backup.substr(0, mark) + date);
        }
        const auto rules = apply_retention(retention, backups, *parse("2026-06-15T12:00"));
        for (size_t i = 0; i < rules.size(); i++)
            kept[i] += (rules[i].empty() ? "" : " ") + join(rules[i], ",");
        EXPECT_EQ(kept, expected) << zone;
    }
    g_unsetenv("TZ");
}

} // namespace

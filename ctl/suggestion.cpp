#include "cli.h"

#include <algorithm>

#include <glib.h>

/// How many letters have to be changed, put in, left out, or swapped with the next, to come from one word to
/// the other.
static size_t distance(const std::string &one, const std::string &other)
{
    std::vector<std::vector<size_t>> best(one.size() + 1, std::vector<size_t>(other.size() + 1));
    for (size_t i = 0; i <= one.size(); i++)
        for (size_t j = 0; j <= other.size(); j++) {
            if (i == 0 || j == 0) {
                best[i][j] = i + j;
                continue;
            }
            const size_t change = one[i - 1] == other[j - 1] ? 0 : 1;
            best[i][j] = std::min({best[i - 1][j] + 1, best[i][j - 1] + 1, best[i - 1][j - 1] + change});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                best[i][j] = std::min(best[i][j], best[i - 2][j - 2] + 1);
        }
    return best[one.size()][other.size()];
}

/// A word that was left unfinished is as near as one with a mistake in it.
static size_t distance_to(const std::string &known, const std::string &word)
{
    g_autofree gchar *lower = g_ascii_strdown(word.c_str(), -1);
    const std::string typed = lower;
    const bool is_unfinished = typed.size() > 1 && known.starts_with(typed);
    return is_unfinished ? 1 : distance(known, typed);
}

std::string did_you_mean(const std::string &typed, const std::vector<std::string> &known)
{
    const auto nearest =
        std::min_element(known.begin(), known.end(), [&](const auto &one, const auto &other) {
            return distance_to(one, typed) < distance_to(other, typed);
        });
    if (nearest == known.end() || distance_to(*nearest, typed) > std::max(nearest->size() / 3, size_t{1}))
        return "";
    return "; did you mean " + *nearest + "?";
}

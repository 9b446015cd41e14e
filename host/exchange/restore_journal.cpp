#include "restore_journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <glib.h>

#include "contact.h"
#include "errors.h"
#include "paths.h"

static constexpr char WHAT_TO_DO[] = "; see that this file can be written, and restore again";

RestoreJournal::RestoreJournal(const ExchangeReport &undecided)
{
    const std::filesystem::path path = state_root() / LAST_RESTORE;
    const std::string line = encode_report(undecided);
    try {
        replace_file(path, line);
        file = open_file(path, O_WRONLY);
    } catch (const HostError &error) {
        throw PlatformError(std::string("nothing was changed, since it could not be undone: ") +
                            error.what() + WHAT_TO_DO);
    }
    size = static_cast<off_t>(line.size());
}

void RestoreJournal::note(const Change &change, const std::string &line)
{
    if (append(line))
        return;
    const std::string where = (state_root() / LAST_RESTORE).string();
    if (change.outcome == Change::Outcome::pending)
        throw PlatformError("a change was not made, since it can't be noted in " + where + WHAT_TO_DO);
    backlog += line;
    g_printerr("liborvanta-cloud-svc: %s does not tell what came of a change\n", where.c_str());
}

void RestoreJournal::finish(const std::string &line, bool has_changes)
{
    backlog.clear(); // the report has all of it
    if (!append(line) || (has_changes && fdatasync(file.get()) != 0))
        g_printerr("liborvanta-cloud-svc: %s lacks the result\n",
                   (state_root() / LAST_RESTORE).string().c_str());
}

/// Appends the lines that did not fit, too, lest one is missing between others. What is written of a line
/// that does not fit has no end, which tells that it does not count; the next one is written over it.
bool RestoreJournal::append(const std::string &line)
{
    const std::string text = backlog + line;
    if (!write_at(file, size, text))
        return false;
    size += static_cast<off_t>(text.size());
    backlog.clear();
    return true;
}

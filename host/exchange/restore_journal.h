#pragma once

#include <string>

#include <sys/types.h>

#include "files.h"
#include "report.h"

/// The report that a restore keeps as it goes, so that it can be undone whenever its process was killed: each
/// change is in it before it is made.
class RestoreJournal
{
public:
    /// Begins a journal in place of that of the restore before.
    ///
    /// @throws PlatformError when it can't be kept; the one before is then still there
    explicit RestoreJournal(const ExchangeReport &undecided);

    /// Keeps a change, as its line in a report.
    ///
    /// @throws PlatformError when a pending change can't be kept, and so must not be made
    void note(const Change &change, const std::string &line);

    /// Keeps the result, as a report's line.
    ///
    /// @param has_changes else there is nothing that would have to be undone after a power cut
    void finish(const std::string &line, bool has_changes);

private:
    bool append(const std::string &line);

    Descriptor file;
    off_t size = 0;      ///< of its whole lines
    std::string backlog; ///< lines that did not fit yet
};

#include "check.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "report.h"

Report *const report = make_shared_memory<Report>();

namespace
{

/// Ends a check when it is thrown; the report has the result.
struct Ended {
};

} // namespace

static void set_text(char (&text)[Report::SIZE], const std::string &value)
{
    snprintf(text, Report::SIZE, "%s", value.c_str());
}

void note(const char *call)
{
    if (report->verdict == Report::Verdict::none)
        set_text(report->call, call);
}

/// Keeps the first result.
static void end(Report::Verdict verdict, const std::string &expected, const std::string &got)
{
    if (report->verdict != Report::Verdict::none)
        return;
    report->verdict = verdict;
    set_text(report->expected, expected);
    set_text(report->got, got);
}

void report_failure(const std::string &expected, const std::string &got)
{
    end(Report::Verdict::failed, expected, got);
}

std::string show_text(const std::string &text)
{
    static constexpr size_t SHOWN = 100;
    const std::string rest = text.size() > SHOWN ? "... (" + std::to_string(text.size()) + " bytes)" : "";
    return "\"" + text.substr(0, SHOWN) + "\"" + rest;
}

void Differences::compare(const std::string &name, const std::string &saved, const std::string &found)
{
    if (saved == found)
        return;
    const std::string comma = names.empty() ? "" : ", ";
    names += comma + name;
    expected += comma + saved;
    got += comma + found;
}

void Differences::end() const
{
    if (names.empty())
        return;
    note(names.c_str());
    fail(expected, got);
}

void fail(const std::string &expected, const std::string &got)
{
    report_failure(expected, got);
    throw Ended();
}

void skip(const std::string &reason)
{
    end(Report::Verdict::skipped, "", reason);
    throw Ended();
}

bool run_to_end(const std::function<void()> &work)
{
    try {
        work();
        return true;
    } catch (const Ended &) {
    } catch (const std::exception &error) {
        report_failure("no exception", error.what());
    }
    return false;
}

/// The exit status of a process that came to its end. A library that calls exit() gives another one.
static constexpr int DONE = 77;

pid_t start_apart(const std::function<void()> &work)
{
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error(std::string("fork: ") + strerror(errno));
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        run_to_end(work);
        _exit(DONE);
    }
    return child;
}

void report_end(int status)
{
    if (WIFSIGNALED(status))
        report_failure("a return", std::string("death by SIG") + sigabbrev_np(WTERMSIG(status)));
    else if (WEXITSTATUS(status) != DONE)
        report_failure("a return", "exit(" + std::to_string(WEXITSTATUS(status)) + ")");
}

void end_if_reported()
{
    if (report->verdict != Report::Verdict::none)
        throw Ended();
}

void end_as(int status)
{
    report_end(status);
    end_if_reported();
}

void run_apart(const std::function<void()> &work)
{
    int status = 0;
    waitpid(start_apart(work), &status, 0);
    end_as(status);
}

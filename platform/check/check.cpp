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

/// Thrown to end a check. The result is in the report.
struct CheckEnded {
};

} // namespace

static void set_text(char (&text)[Report::SIZE], const std::string &value)
{
    snprintf(text, Report::SIZE, "%s", value.c_str());
}

void note_call(const char *call)
{
    if (report->verdict == Report::Verdict::none)
        set_text(report->call, call);
}

/// Sets the check's result, unless it has one already.
static void set_result(Report::Verdict verdict, const std::string &expected, const std::string &got)
{
    if (report->verdict != Report::Verdict::none)
        return;
    report->verdict = verdict;
    set_text(report->expected, expected);
    set_text(report->got, got);
}

void report_failure(const std::string &expected, const std::string &got)
{
    set_result(Report::Verdict::failed, expected, got);
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

void Differences::fail_if_any() const
{
    if (names.empty())
        return;
    note_call(names.c_str());
    fail(expected, got);
}

void fail(const std::string &expected, const std::string &got)
{
    report_failure(expected, got);
    throw CheckEnded();
}

void skip(const std::string &reason)
{
    set_result(Report::Verdict::skipped, "", reason);
    throw CheckEnded();
}

bool run_to_end(const std::function<void()> &work)
{
    try {
        work();
        return true;
    } catch (const CheckEnded &) {
    } catch (const std::exception &error) {
        report_failure("no exception", error.what());
    }
    return false;
}

/// Exit status of a child process whose function has returned. A library's own call of exit() is unlikely to
/// use this number.
static constexpr int EXIT_FINISHED = 77;

pid_t start_process(const std::function<void()> &work)
{
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error(std::string("fork: ") + strerror(errno));
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        run_to_end(work);
        _exit(EXIT_FINISHED);
    }
    return child;
}

void report_exit_status(int status)
{
    if (WIFSIGNALED(status))
        report_failure("a return", std::string("killed by SIG") + sigabbrev_np(WTERMSIG(status)));
    else if (WEXITSTATUS(status) != EXIT_FINISHED)
        report_failure("a return", "exit(" + std::to_string(WEXITSTATUS(status)) + ")");
}

void end_if_reported()
{
    if (report->verdict != Report::Verdict::none)
        throw CheckEnded();
}

void end_if_process_failed(int status)
{
    report_exit_status(status);
    end_if_reported();
}

void run_in_process(const std::function<void()> &work)
{
    int status = 0;
    waitpid(start_process(work), &status, 0);
    end_if_process_failed(status);
}

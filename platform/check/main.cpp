// ime-backup-check: runs the checks, and prints their results in TAP, the Test Anything Protocol.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <fnmatch.h>
#include <getopt.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"
#include "report.h"

static constexpr int EXIT_USAGE = 2;
static constexpr int EXIT_CANNOT_RUN = 3;
static constexpr std::chrono::seconds TIME_LIMIT(10);

using Clock = std::chrono::steady_clock;

static constexpr char HELP[] =
    "Usage: ime-backup-check [OPTION]...\n"
    "Checks that the libraries of this device's platform keep the promises that the IME\n"
    "backup service relies on. Puts back what it changes. Prints TAP for prove(1).\n"
    "\n"
    "  -l, --list          list the checks without running them\n"
    "  -o, --only PATTERN  run only checks whose description contains PATTERN, in which\n"
    "                      *, ? and [...] are wildcards; may be repeated\n"
    "  -r, --read-only     omit checks that change something or run an exchange\n"
    "  -k, --keep-going    continue after a failed check (the default)\n"
    "  -h, --help          show this help\n"
    "  -V, --version       show the version\n"
    "\n"
    "Exit status: 0 all checks passed or were skipped, 1 a check failed, 2 usage error,\n"
    "3 the checks could not be run.\n";

namespace
{

struct SelectedCheck {
    const Library *library;
    const Check *check;

    std::string description() const { return std::string(library->name) + ": " + check->promise; }
};

struct Options {
    std::vector<std::string> patterns;
    bool list_only = false;
    bool read_only = false;
};

} // namespace

// Running a check.

/// Returns SIGCHLD and, on demand, the signals that end the program after it has put back the device. Signals
/// that were ignored at the start stay ignored.
static sigset_t make_signal_set(bool with_termination)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        if (with_termination && sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
            sigaddset(&set, signal);
    }
    return set;
}

/// The signal that asked the program to end, or 0.
static int interruption = 0;

/// Waits for a signal until the deadline.
///
/// @return the signal, or -1 at the deadline
static int wait_for_signal(sigset_t signals, Clock::time_point deadline)
{
    const auto left = std::max(deadline - Clock::now(), Clock::duration());
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timespec time = {seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
    return sigtimedwait(&signals, nullptr, &time);
}

/// File with the output of the function that run_limited() ran last.
static int log_file = -1;

/// Kills a process group and waits for its end: until then, a killed process may still write.
static void kill_group(pid_t group)
{
    kill(-group, SIGKILL);
    while (waitpid(-group, nullptr, 0) > 0) {
    }
}

/// Runs a function in a new process group, and kills the group at the time limit.
static void run_limited(void (*work)(), bool can_be_interrupted)
{
    *report = {};
    close(log_file);
    log_file = memfd_create("log", MFD_CLOEXEC);
    const pid_t child = start_process([work] {
        for (const int file : {STDOUT_FILENO, STDERR_FILENO})
            dup2(log_file, file);
        setpgid(0, 0); // Ctrl-C must only reach the process that puts the device back
        const sigset_t all = make_signal_set(true);
        sigprocmask(SIG_UNBLOCK, &all, nullptr);
        work();
    });
    setpgid(child, child);

    const Clock::time_point deadline = Clock::now() + TIME_LIMIT;
    const sigset_t signals = make_signal_set(can_be_interrupted);
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        const int signal = wait_for_signal(signals, deadline);
        if (signal == SIGCHLD || (signal < 0 && errno == EINTR))
            continue;
        kill_group(child);
        if (signal < 0)
            report_failure("a return", "no return in " + std::to_string(TIME_LIMIT.count()) + " seconds");
        else
            interruption = signal;
        return;
    }
    kill_group(child); // processes that the child left running
    report_exit_status(status);
}

// Printing.

/// Returns the text in quotation marks, on one line.
static std::string quote(const std::string &text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        char escaped[5];
        snprintf(escaped, sizeof escaped, byte < ' ' || byte == 0x7f ? "\\x%02x" : "%c", byte);
        quoted += c == '"' || c == '\\' ? std::string("\\") + c : escaped;
    }
    return quoted + "\"";
}

static void print_failure(const Report &failure, const char *means, const std::string &log)
{
    printf("  ---\n  call: %s\n  expected: %s\n  got: %s\n  means: %s\n  ...\n", quote(failure.call).c_str(),
           quote(failure.expected).c_str(), quote(failure.got).c_str(), quote(means).c_str());
    printf("%s", log.c_str());
}

/// Returns the end of the check's output as TAP comments.
static std::string read_log()
{
    char text[1000];
    const off_t begin = lseek(log_file, 0, SEEK_END) - static_cast<off_t>(sizeof text);
    const ssize_t size = pread(log_file, text, sizeof text, std::max<off_t>(begin, 0));
    std::istringstream lines(std::string(text, static_cast<size_t>(std::max<ssize_t>(size, 0))));
    std::string comments;
    for (std::string line; std::getline(lines, line);)
        comments += "# " + quote(line) + "\n";
    return comments;
}

/// Puts back what a library's checks change. Prints the settings that can't be put back.
///
/// @return true if everything is put back
static bool put_back(const Library &library)
{
    run_limited(library.put_back, false);
    if (report->verdict == Report::Verdict::none)
        return true;
    printf("# %s: not put back: %s should be %s but is %s\n", library.name, quote(report->call).c_str(),
           quote(report->expected).c_str(), quote(report->got).c_str());
    return false;
}

/// Runs a check and prints its result.
///
/// @param save_result  the result of saving the device's state; if saving failed or was skipped, checks that
///                     change something do not run
/// @return true if the check passed or was skipped
static bool run_check(const SelectedCheck &selected, size_t number, const Report &save_result)
{
    const bool changes = selected.check->access == Check::changes;
    Report result = save_result;
    std::string log;
    bool is_put_back = true;
    if (!changes || save_result.verdict == Report::Verdict::none) {
        run_limited(selected.check->run, true);
        result = *report;
        log = read_log();
        is_put_back = !changes || selected.library->put_back == nullptr || put_back(*selected.library);
        if (interruption != 0)
            return false;
    }

    const bool failed = result.verdict == Report::Verdict::failed || !is_put_back;
    printf("%s %zu - %s", failed ? "not ok" : "ok", number, selected.description().c_str());
    if (!failed && result.verdict == Report::Verdict::skipped)
        printf(" # SKIP %s", result.got);
    printf("\n");
    if (failed)
        print_failure(result.verdict == Report::Verdict::failed ? result : *report, selected.check->means,
                      log);
    return !failed;
}

// The program.

static int run_checks(const std::vector<SelectedCheck> &checks)
{
    // Two instances at once would see each other's changes.
    flock(open("/proc/self/exe", O_RDONLY | O_CLOEXEC), LOCK_EX);
    // Lets kill_group() wait for grandchildren.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const sigset_t blocked = make_signal_set(true);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    // Perl's harness may not know versions after 13. The output is valid in both versions.
    printf("TAP version %d\n1..%zu\n", getenv("HARNESS_ACTIVE") == nullptr ? 14 : 13, checks.size());

    bool passed = true;
    Report save_result = {};
    const Library *library = nullptr;
    for (size_t i = 0; i < checks.size(); i++) {
        if (checks[i].library != library) {
            library = checks[i].library;
            *report = {};
            if (library->save != nullptr)
                run_limited(library->save, true);
            save_result = *report;
        }
        if (interruption == 0)
            passed = run_check(checks[i], i + 1, save_result) && passed;
        if (interruption != 0) {
            printf("Bail out! Interrupted by SIG%s\n", sigabbrev_np(interruption));
            fflush(stdout);
            std::signal(interruption, SIG_DFL);
            raise(interruption);
            sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
        }
    }
    return passed ? EXIT_SUCCESS : EXIT_FAILURE;
}

static std::vector<SelectedCheck> select_checks(const Options &options)
{
    std::vector<SelectedCheck> checks;
    for (const Library *library :
         {&DLOG, &APP_CONTROL, &APPCORE_AGENT, &VCONF, &SCIM, &ISF_CONTROL, &ORVANTA_CLOUD})
        for (const Check &check : library->checks) {
            const SelectedCheck selected = {library, &check};
            const auto matches = [&](const std::string &pattern) {
                return fnmatch(("*" + pattern + "*").c_str(), selected.description().c_str(), 0) == 0;
            };
            if ((options.patterns.empty() || std::ranges::any_of(options.patterns, matches)) &&
                (!options.read_only || check.access == Check::reads))
                checks.push_back(selected);
        }
    return checks;
}

/// @return the exit status if the program should exit now, otherwise -1
static int parse_options(int argc, char **argv, Options &options)
{
    static const option LONG_OPTIONS[] = {{"list", no_argument, nullptr, 'l'},
                                          {"only", required_argument, nullptr, 'o'},
                                          {"read-only", no_argument, nullptr, 'r'},
                                          {"keep-going", no_argument, nullptr, 'k'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {"version", no_argument, nullptr, 'V'},
                                          {}};
    for (int letter; (letter = getopt_long(argc, argv, "lo:rkhV", LONG_OPTIONS, nullptr)) != -1;) {
        switch (letter) {
        case 'l':
            options.list_only = true;
            break;
        case 'o':
            options.patterns.emplace_back(optarg);
            break;
        case 'r':
            options.read_only = true;
            break;
        case 'k':
            break;
        case 'h':
            printf("%s", HELP);
            return EXIT_SUCCESS;
        case 'V':
            printf("%s\n", IME_BACKUP_VERSION);
            return EXIT_SUCCESS;
        default:
            return EXIT_USAGE;
        }
    }
    if (optind == argc)
        return -1;
    fprintf(stderr, "ime-backup-check: unexpected argument \"%s\"\n", argv[optind]);
    return EXIT_USAGE;
}

static int run(int argc, char **argv)
{
    Options options;
    if (const int status = parse_options(argc, argv, options); status >= 0) {
        if (status == EXIT_USAGE)
            fprintf(stderr, "See \"ime-backup-check --help\".\n");
        return status;
    }
    const std::vector<SelectedCheck> checks = select_checks(options);
    if (checks.empty()) {
        fprintf(stderr, "ime-backup-check: no check matches; \"ime-backup-check --list\" lists them\n");
        return EXIT_USAGE;
    }
    if (!options.list_only)
        return run_checks(checks);
    for (const SelectedCheck &selected : checks)
        printf("%s\n", selected.description().c_str());
    return EXIT_SUCCESS;
}

int main(int argc, char **argv)
try {
    const int status = run(argc, argv);
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return status;
    fprintf(stderr, "ime-backup-check: can't write to standard output\n");
    return EXIT_CANNOT_RUN;
} catch (const std::exception &error) {
    fprintf(stderr, "ime-backup-check: %s\n", error.what());
    return EXIT_CANNOT_RUN;
}

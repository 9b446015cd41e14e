#include "queue.h"

#include <utility>

#include <unistd.h>

#include "account.h"
#include "paths.h"
#include "process.h"
#include "shared_names.h"
#include "text.h"

static constexpr guint LOCK_RETRY_MS = 20;

static void append(int file, const std::string &line)
{
    if (write(file, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        g_printerr("liborvanta-cloud-svc: the exchange's report is incomplete\n");
}

/// Writes an exchange's result to standard error and to the report file. A report that can't be written does
/// not change the result.
static void send_report(const Exchange &exchange)
{
    const ExchangeReport &report = exchange.report();
    if (report.result != ExchangeReport::Result::succeeded)
        g_printerr("liborvanta-cloud-svc: %s failed: %s\n", report.operation.c_str(),
                   escaped(report.reason).c_str());
    if (const auto file = find_report_file(); file)
        append(*file, exchange.encoded_report());
}

void ExchangeQueue::add(Direction direction, const Callbacks &callbacks)
{
    exchanges.emplace_back(direction, callbacks);
    schedule(0);
}

Exchange *ExchangeQueue::find(Direction direction, Answer answer)
{
    return exchanges.empty() || !exchanges.front().awaits(direction, answer) ? nullptr : &exchanges.front();
}

bool ExchangeQueue::is_in_callback() const
{
    return !exchanges.empty() && exchanges.front().is_in_callback();
}

void ExchangeQueue::close()
{
    while (!exchanges.empty())
        finish(ExchangeReport::Result::undecided, "the service ended before the exchange was over");
    finished.clear();
    if (source != 0)
        g_source_remove(source);
    source = 0;
}

void ExchangeQueue::schedule(guint milliseconds)
{
    if (source != 0)
        return;
    source =
        milliseconds == 0 ? g_idle_add(on_iteration, this) : g_timeout_add(milliseconds, on_iteration, this);
}

gboolean ExchangeQueue::on_iteration(void *queue)
{
    // The service may close the library in a callback.
    const auto self = static_cast<ExchangeQueue *>(queue)->shared_from_this();
    self->run_iteration();
    return G_SOURCE_REMOVE;
}

/// Runs one step. An exception ends the exchange, and its message is the reason for the failure.
void ExchangeQueue::run_iteration()
{
    source = 0;
    if (exchanges.empty()) {
        complete();
        return;
    }
    guint pause = 0;
    try {
        if (!take_turn())
            pause = LOCK_RETRY_MS;
        else if (exchanges.front().run_step())
            finish(ExchangeReport::Result::succeeded);
    } catch (const InterruptedError &) { // the main loop ends, which closes the queue
        return;
    } catch (const NoBackupError &error) {
        finish(ExchangeReport::Result::no_backup, error.what());
    } catch (const DamagedError &error) {
        finish(ExchangeReport::Result::damaged, error.what());
    } catch (const DaemonError &error) {
        finish(ExchangeReport::Result::no_daemon, error.what());
    } catch (const KeyboardError &error) {
        finish(ExchangeReport::Result::no_keyboard, error.what());
    } catch (const PlatformError &error) {
        finish(ExchangeReport::Result::no_platform, error.what());
    } catch (const TimeoutError &error) {
        finish(ExchangeReport::Result::timed_out, error.what());
    } catch (const std::exception &error) {
        finish(ExchangeReport::Result::failed, error.what());
    } catch (...) {
        finish(ExchangeReport::Result::failed, "the service threw an unknown exception");
    }
    schedule(pause);
}

/// Tries to lock #EXCHANGE_LOCK, and begins the first exchange when it succeeds.
///
/// @return true while this queue holds the lock
bool ExchangeQueue::take_turn()
{
    if (has_turn)
        return true;
    if (!turn)
        turn.emplace(state_root() / EXCHANGE_LOCK);
    has_turn = turn->try_acquire();
    if (!has_turn && time_left() == 0)
        throw TimeoutError("another exchange did not finish in time");
    if (has_turn) {
        account().start([this](size_t number, const Change &change) { on_change(number, change); });
        exchanges.front().begin();
    }
    return has_turn;
}

/// Notes a change in the history and in the report file at once, so that they have it even if this process is
/// killed.
void ExchangeQueue::on_change(size_t number, const Change &change)
{
    if (change.outcome == Change::Outcome::pending)
        exchanges.front().note(change);
    if (const auto file = find_report_file(); file)
        append(*file, encode_change(number, change));
}

/// Ends the first exchange with this result, and releases the lock.
void ExchangeQueue::finish(ExchangeReport::Result result, const std::string &reason)
{
    Exchange &exchange = exchanges.front();
    exchange.finish(result, reason);
    send_report(exchange);
    account().finish();
    turn.reset();
    has_turn = false;
    finished.push_back(std::move(exchange));
    exchanges.pop_front();
}

/// Calls the completed callbacks. The service exits in its completed callback, so none is called while
/// another exchange waits.
void ExchangeQueue::complete()
{
    while (!finished.empty()) {
        const Exchange exchange = std::move(finished.front());
        finished.pop_front();
        exchange.complete();
    }
}

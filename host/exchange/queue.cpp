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

/// Losing the report is harmless: it informs of a result, and never changes it.
static void deliver(const Exchange &exchange)
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
        decide(ExchangeReport::Result::undecided, "the service ended before the exchange was over");
    decided.clear();
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
    self->run();
    return G_SOURCE_REMOVE;
}

/// Runs one iteration. Whatever is thrown in one ends here, as the reason of a failure.
void ExchangeQueue::run()
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
            decide(ExchangeReport::Result::succeeded);
    } catch (const InterruptedError &) { // the main loop ends, which closes the queue
        return;
    } catch (const NoBackupError &error) {
        decide(ExchangeReport::Result::no_backup, error.what());
    } catch (const DamagedError &error) {
        decide(ExchangeReport::Result::damaged, error.what());
    } catch (const DaemonError &error) {
        decide(ExchangeReport::Result::no_daemon, error.what());
    } catch (const KeyboardError &error) {
        decide(ExchangeReport::Result::no_keyboard, error.what());
    } catch (const PlatformError &error) {
        decide(ExchangeReport::Result::no_platform, error.what());
    } catch (const TimeoutError &error) {
        decide(ExchangeReport::Result::timed_out, error.what());
    } catch (const std::exception &error) {
        decide(ExchangeReport::Result::failed, error.what());
    } catch (...) {
        decide(ExchangeReport::Result::failed, "the service threw what is no exception");
    }
    schedule(pause);
}

/// Exchanges of one state root take turns.
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
        account().start([this](size_t number, const Change &change) { tell(number, change); });
        exchanges.front().begin();
    }
    return has_turn;
}

/// Tells of a change where it has to be known whatever comes.
void ExchangeQueue::tell(size_t number, const Change &change)
{
    if (change.outcome == Change::Outcome::pending)
        exchanges.front().note(change);
    if (const auto file = find_report_file(); file)
        append(*file, encode_change(number, change));
}

/// Ends the first exchange with this result, and its turn with it.
void ExchangeQueue::decide(ExchangeReport::Result result, const std::string &reason)
{
    Exchange &exchange = exchanges.front();
    exchange.decide(result, reason);
    deliver(exchange);
    account().finish();
    turn.reset();
    has_turn = false;
    decided.push_back(std::move(exchange));
    exchanges.pop_front();
}

/// A service ends itself once it is told that an exchange is completed, so it is told of none while another
/// waits.
void ExchangeQueue::complete()
{
    while (!decided.empty()) {
        const Exchange exchange = std::move(decided.front());
        decided.pop_front();
        exchange.complete();
    }
}

#pragma once

#include <deque>
#include <memory>
#include <optional>

#include <glib.h>

#include "exchange.h"
#include "files.h"

/// The exchanges that wait for their turn, carried out from the main loop one step an iteration. It is the
/// one part of the library that the main loop calls.
class ExchangeQueue : public std::enable_shared_from_this<ExchangeQueue>
{
public:
    void add(Direction direction, const Callbacks &callbacks);

    /// The exchange that waits for this answer, if there is one.
    Exchange *find(Direction direction, Answer answer);

    bool is_in_callback() const;

    /// Gives up what is under way. The service is told nothing more.
    void close();

private:
    static gboolean on_iteration(void *queue);
    void run();
    void schedule(guint milliseconds);
    bool take_turn();
    void tell(size_t number, const Change &change);
    void decide(ExchangeReport::Result result, const std::string &reason = "");
    void complete();

    std::deque<Exchange> exchanges; ///< the first is under way
    std::deque<Exchange> decided;   ///< those whose result the service has not been told
    std::optional<FileLock> turn;
    bool has_turn = false;
    guint source = 0;
};

#pragma once

#include <deque>
#include <memory>
#include <optional>

#include <glib.h>

#include "exchange.h"
#include "files.h"

/// The exchanges to run, in order. The main loop runs one step in each iteration.
class ExchangeQueue : public std::enable_shared_from_this<ExchangeQueue>
{
public:
    void add(Direction direction, const Callbacks &callbacks);

    /// Returns the exchange that expects this answer, or null.
    Exchange *find(Direction direction, Answer answer);

    bool is_in_callback() const;

    /// Aborts all exchanges. The service gets no further callbacks.
    void close();

private:
    static gboolean on_iteration(void *queue);
    void run_iteration();
    void schedule(guint milliseconds);
    bool take_turn();
    void on_change(size_t number, const Change &change);
    void finish(ExchangeReport::Result result, const std::string &reason = "");
    void complete();

    std::deque<Exchange> exchanges; ///< the first one runs, the others wait
    std::deque<Exchange> finished;  ///< their completed callback has not run yet
    std::optional<FileLock> turn;
    bool has_turn = false;
    guint source = 0;
};

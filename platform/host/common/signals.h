#pragma once

#include <functional>

#include <glib.h>

/// Takes the signals that ask this process to end, and has its main loop call a function for each, for as
/// long as the object is there. There is one at a time. GLib would start a thread for that.
class TerminationSignals
{
public:
    explicit TerminationSignals(std::function<void()> on_signal);
    TerminationSignals(const TerminationSignals &) = delete;
    TerminationSignals &operator=(const TerminationSignals &) = delete;
    ~TerminationSignals();

private:
    static gboolean on_word(int file, GIOCondition, void *signals);

    const std::function<void()> on_signal;
    guint source;
};

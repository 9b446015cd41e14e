#pragma once

#include <csignal>
#include <functional>

#include <glib.h>

/// The signals that ask a process to end.
inline constexpr int TERMINATION_SIGNALS[] = {SIGINT, SIGTERM};

/// Holds them back for as long as it is there, so that none comes between two ways of taking them.
class HeldSignals
{
public:
    HeldSignals();
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;
    ~HeldSignals();

private:
    sigset_t before = {};
};

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

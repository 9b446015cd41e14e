#pragma once

/// The first thing that a program of the host does. Nobody but its owner can read what it makes from then on,
/// and no file that it opens takes the place of a standard stream that it was started without.
void prepare_process();

/// Names the process that started this one, which is to end with it.
inline constexpr char CLIENT_VARIABLE[] = "IME_BACKUP_CLIENT";

/// Has this process get SIGTERM once the one that the variable names, if there is one, is gone.
void end_with_client();

/// Runs in a new process, which then gets a signal when the one that started it is killed.
///
/// @param signal its number, as a pointer
void end_with_parent(void *signal);

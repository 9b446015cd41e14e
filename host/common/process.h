#pragma once

/// The first thing that a program of the host does. Nobody but its owner can read what it makes from then on,
/// and no file that it opens takes the place of a standard stream that it was started without.
void prepare_process();

#pragma once

/// Starts the threads that end the process after a termination signal: they write the "going down" line,
/// wait until no started program is running, release the lock and end the process by the same signal. Call
/// it before `shutdownHandler` is installed. Throws `std::system_error` if the threads cannot be started.
void startShutdownThreads();

/// As a signal handler, on any thread (async-signal-safe): hands the signal to the shutdown threads; in a
/// forked child that has not become a program yet, ends the child. With 0, at the end of a run: writes the
/// "going down" line and releases the lock; does not return if a signal is already ending the process. The
/// line is written once per process.
void shutdownHandler(int signum);

#pragma once

/// Starts the threads that end the process once a termination signal has arrived: they write the
/// "going down" line, wait until no started program is running, release the lock and end the process
/// by the same signal. To be called by the main thread before `shutdownHandler` is installed; throws
/// `std::system_error` when the threads cannot be started.
void startShutdownThreads();

/// As the handler of a termination signal, on any thread (async-signal-safe): hands the signal over to the
/// shutdown threads. In a forked child that is no program yet it ends the child. With 0, at the end of a run:
/// writes the "going down" line and releases the lock; does not return if a signal is ending the process
/// already. A process writes that line once.
void shutdownHandler(int signum);

#pragma once

/// Starts the threads that end the process once a termination signal has arrived: they write the
/// "going down" line, wait until no started program is running, release the lock and end the process
/// by the same signal. To be called by the main thread before `shutdownHandler` is installed; throws
/// `std::system_error` when the threads cannot be started.
void startShutdownThreads();

/// As the handler of a termination signal (async-signal-safe): on the main thread hands the signal over to
/// the shutdown threads, on any other passes it on to the main thread; in a forked child that is no program
/// yet ends the child. With 0, at the end of a run: writes the "going down" line and releases the
/// lock, unless a signal is ending the process already; then it does not return.
void shutdownHandler(int signum);

#pragma once

#include <array>
#include <csignal>

/// The signals of a crash.
inline constexpr std::array faultSignals{SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS, SIGTRAP};

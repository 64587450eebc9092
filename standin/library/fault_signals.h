#pragma once

#include <array>
#include <csignal>

/// What the system sends to a program that has done something impossible.
inline constexpr std::array faultSignals{SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS, SIGTRAP};

#pragma once

#include <stdexcept>

/// "one more instance of zeloinstall is running.": no fault of this one.
class AnotherInstance : public std::runtime_error {
 public:
  AnotherInstance();
};

/// Takes the lock that only one instance can hold. Throws `AnotherInstance`, after a line that says so,
/// when another one holds it.
void checkSingleInstance();

/// Releases the lock if it is held, from whichever thread comes first; any other waits until it is
/// released. A second release could hit the lock of the next instance.
void releaseSingleInstance();

#pragma once

#include <stdexcept>

/// "one more instance of zeloinstall is running.": not an error of this instance.
class AnotherInstance : public std::runtime_error {
 public:
  AnotherInstance();
};

/// Takes the lock that only one instance can hold. If another one holds it, logs that and throws
/// `AnotherInstance`.
void checkSingleInstance();

/// Releases the lock if it is held. Any thread may call this: the first releases, the others wait until that
/// is done. A second release could hit the next instance's lock.
void releaseSingleInstance();

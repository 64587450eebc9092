#pragma once

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

using Texts = std::vector<std::string>;

/// The text of the `Exception` that `action` throws, "" if it throws none. Any other fails the test.
template <typename Exception = std::runtime_error, typename Action>
std::string failureOf(Action action) {
  try {
    action();
    return {};
  } catch (const Exception& error) {
    return error.what();
  }
}

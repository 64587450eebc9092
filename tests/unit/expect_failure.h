#pragma once

#include <gtest/gtest.h>

#include <string>

/// The `what()` text of the exception of type `Exception` that `action` throws; fails the test when it
/// throws another or none.
template <typename Exception, typename Action>
std::string failureOf(Action action) {
  try {
    action();
  } catch (const Exception& error) {
    return error.what();
  } catch (const std::exception& error) {
    ADD_FAILURE() << "another exception: " << error.what();
    return {};
  }
  ADD_FAILURE() << "nothing thrown";
  return {};
}

#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <string>

namespace zelo {

/// Owns one JSON document.
class JSONWrapper {
 public:
  /// An empty object.
  JSONWrapper();

  /// Parses a document. Throws `std::runtime_error` "invalid json " and the whole text.
  explicit JSONWrapper(const std::string& text);

  JSONWrapper(const JSONWrapper&) = delete;
  JSONWrapper& operator=(const JSONWrapper&) = delete;
  virtual ~JSONWrapper() = default;

  /// A copy of a string member of the top-level object. Throws `std::runtime_error` "key ", the name and
  /// " not found" if it is missing or not a string.
  [[nodiscard]] std::string getString(const std::string& name) const;

  /// Appends a string member, even if there is one of that name.
  void addString(const std::string& name, const std::string& value);

  /// The document as text without white space.
  [[nodiscard]] std::string toString() const;

 private:
  std::unique_ptr<cJSON, decltype(&cJSON_Delete)> root;
};

}  // namespace zelo

#include "main/zelo_exception.h"

namespace zelo {

ZeloException::ZeloException(const std::string& code, const std::string& message) : code_(code) {
  fullMessage_.reserve(message.size() + 16);
  fullMessage_.append("zelo exception: ").append(message).append(". code=").append(code);
}

const char* ZeloException::what() const noexcept {
  return fullMessage_.c_str();
}

std::string ZeloException::getCode() const {
  return code_;
}

}  // namespace zelo

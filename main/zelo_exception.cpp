#include "main/zelo_exception.h"

namespace zelo {

ZeloException::ZeloException(const std::string& errorCode, const std::string& message) : code(errorCode) {
  fullMessage.reserve(message.size() + 16);
  fullMessage.append("zelo exception: ").append(message).append(". code=").append(errorCode);
}

const char* ZeloException::what() const noexcept {
  return fullMessage.c_str();
}

std::string ZeloException::getCode() const {
  return code;
}

}  // namespace zelo

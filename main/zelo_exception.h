#pragma once

#include <exception>
#include <string>

namespace zelo {

/// The codes that the user sees. "00" is a failure like the others; success is not reported.
inline constexpr const char* ERROR_CODE_VALIDATION = "00";
inline constexpr const char* ERROR_CODE_EXTRACTION = "01";
inline constexpr const char* ERROR_CODE_DOWNLOAD = "02";
inline constexpr const char* ERROR_CODE_INSTALLER = "03";
inline constexpr const char* ERROR_CODE_UNKNOWN = "99";

/// A failure that the user is told. Not a `std::runtime_error`, which the stages catch.
class ZeloException : public std::exception {
 public:
  /// `errorCode` is one of the codes above. Neither text is checked.
  ZeloException(const std::string& errorCode, const std::string& message);

  /// "zelo exception: ", the message, ". code=" and the code.
  [[nodiscard]] const char* what() const noexcept override;

  /// The code, which is all that the user is told.
  [[nodiscard]] virtual std::string getCode() const;

 private:
  std::string code;
  std::string fullMessage;
};

}  // namespace zelo

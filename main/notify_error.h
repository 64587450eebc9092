#pragma once

#include "main/zelo_exception.h"

namespace zelo {

/// Logs the failure and makes the UI shell show its code. Throws `std::runtime_error` if one of the bus's
/// tools fails; then the user may not have been told.
void notifyError(const ZeloException& error);

}  // namespace zelo

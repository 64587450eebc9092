#pragma once

#include "main/zelo_exception.h"

namespace zelo {

/// Writes the failure to the log and has the UI shell show its code. Throws `std::runtime_error` when
/// one of the bus's tools fails; the user may then not have been told.
void notifyError(const ZeloException& error);

}  // namespace zelo

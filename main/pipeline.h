#pragma once

namespace zelo {

/// Makes the one installation attempt; if it fails, tells the user. Throws `std::runtime_error` if that
/// fails too. Exceptions that are neither `ZeloException` nor `std::runtime_error` pass through unreported.
void runPipeline();

}  // namespace zelo

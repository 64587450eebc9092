#pragma once

namespace zelo {

/// Makes the one installation attempt and reports its failure, if it fails, to the user. Throws
/// `std::runtime_error` when the report fails; exceptions that are neither `ZeloException` nor
/// `std::runtime_error` pass through unreported.
void runPipeline();

}  // namespace zelo

#pragma once

#include <string>

namespace zelo {

/// The directory for all files of this run. Made before `main` runs, in main/before_main.cpp; never removed.
extern const std::string g_work_directory;

}  // namespace zelo

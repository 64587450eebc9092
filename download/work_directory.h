#pragma once

#include <string>

namespace zelo {

/// The directory that holds all files of this run; made before `main` runs, in main/before_main.cpp, and
/// left in place.
extern const std::string g_work_directory;

}  // namespace zelo

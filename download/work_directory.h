#pragma once

#include <string>

namespace zelo {

/// The directory that holds all files of this run; made before `main` runs and left behind.
extern const std::string g_work_directory;

}  // namespace zelo

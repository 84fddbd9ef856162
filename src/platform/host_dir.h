// Where the host application lives.
#pragma once

#include <string>

namespace brakwell::platform {

// The directory that holds the running executable (the directory of /proc/self/exe), without
// a trailing slash; the empty text when it cannot be found.
std::string host_application_directory();

}  // namespace brakwell::platform

#pragma once

// How the memory fabric's library secures the links of this process.

#include <string>

namespace vyn::tessel {

/// Takes the setting from the process's configuration, or, while it has none, from the one in `home` (empty:
/// the environment's home), and leaves it where the library finds it. A configuration that cannot be read
/// lets no link be made. Without any configuration the setting stays as it is. Called before the library is
/// initialised.
void SecureLinks(const std::string& home);

}  // namespace vyn::tessel

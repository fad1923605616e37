#pragma once

#include <string>

namespace kivcli {

/**
 * Makes the application data folder that kiv and kiv-capture share the SDK's: `chosen` when not empty (their
 * --data DIR, or KIV_DATA_DIR), else "kiv" in the user's data folder ($XDG_DATA_HOME/kiv, or
 * ~/.local/share/kiv), whichever tool runs. So a capture reaches the reports made with kiv, and the other way
 * round.
 */
void useDataFolder(const std::string& chosen);

}  // namespace kivcli

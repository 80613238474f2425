// Where a Daskel installation keeps things. Each location comes from an environment variable
// with a fixed default (different as root and otherwise), so tests and the demo can run a
// whole installation inside one temporary directory without root. Read on every call.
#pragma once

#include <string>
#include <vector>

namespace daskel::platform {

std::string runtimeDirectory();          // DASKEL_RUNTIME_DIR
std::vector<std::string> extensionsPath();     // DASKEL_EXTENSIONS_PATH (colon-separated)
std::vector<std::string> applicationsPath();   // DASKEL_APPLICATIONS_PATH
std::string groupContainersDirectory();  // DASKEL_GROUP_CONTAINERS_DIR
std::string stateDirectory();            // DASKEL_STATE_DIR
std::string notificationsDirectory();    // <runtime dir>/notifications
int extensionIdleSeconds();              // DASKEL_EXTENSION_IDLE_SECONDS (default 30)

}  // namespace daskel::platform

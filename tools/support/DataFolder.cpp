#include "DataFolder.hpp"

#include <filesystem>

#include "ZuFileManager/ZuFileManager.hpp"

namespace kivcli {

void useDataFolder(const std::string& chosen) {
  zu::ZuFileManager::setApplicationDataDirectory(chosen.empty()
                                                     ? zu::ZuFileManager::userDataDirectory() + "/kiv"
                                                     : std::filesystem::absolute(chosen).string());
}

}  // namespace kivcli

#include "PrivateFolder.h"

#include <tavrin/SxException.h>

#include <cstdlib>
#include <filesystem>

PrivateFolder::PrivateFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "tavrin-XXXXXX").string();
    if (!::mkdtemp(name.data())) {
        throw SxException("Cannot make a temporary folder", "src/client/PrivateFolder", __LINE__);
    }
    path = name + "/";
}

PrivateFolder::~PrivateFolder() {
    std::error_code ignored; // what stays, the system removes
    std::filesystem::remove_all(path.str(), ignored);
}

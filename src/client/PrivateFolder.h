#pragma once

#include <tavrin/SxString.h>

/// A folder of its own where the system tidies up, removed at the end with all that it holds.
class PrivateFolder {
public:
    PrivateFolder();
    ~PrivateFolder();
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    SxString path; ///< with its trailing slash
};

#pragma once

/// Where things lie on the drive of an application.
namespace ZqDriveLayout {
constexpr const char* READY_FILE = "gxprefetch.info"; ///< in the root; there as long as the drive can be read
constexpr const char* PROTECTED_DIR = "TAVRIN-protected/"; ///< what redirections are relative to
constexpr const char* APP_DIR = "TAVRIN-protected/app/";   ///< the application's own files
constexpr const char* DRIVE = "{{ZQDRIVE}}/";              ///< stands for the root of the drive in commands
} // namespace ZqDriveLayout

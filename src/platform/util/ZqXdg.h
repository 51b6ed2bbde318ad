#pragma once

#include <string>

/// A folder of the user after the XDG Base Directory rules: the value of the environment variable `variable`
/// if it is an absolute path, else `belowHome` in the home folder. Empty where there is no home folder. No
/// trailing slash. Safe from any thread as long as none changes the environment.
std::string zqXdgFolder(const char* variable, const std::string& belowHome);

/// The name of the user that runs the program; the user id in decimal where it has no name.
std::string zqUserName();

#pragma once

#include <string>
#include <vector>

/// What is mounted, from the kernel's table.
namespace MountTable {

/// The mount points below `folder`, the folder itself left out, in the order in which they were made.
std::vector<std::string> below(const std::string& folder);

} // namespace MountTable

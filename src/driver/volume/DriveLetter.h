#pragma once

#include "SxString.h"

#include <string>

/// The drive letter of a disk: the link `dosdevices/x:` of a machine root, which leads to the folder where
/// the volume is mounted.
class DriveLetter {
public:
    ~DriveLetter() { remove(); }

    /// Takes the first free letter from D on. Raises where there is none, or the link can't be made.
    void take(const SxString& root, const SxString& target);
    /// Removes the link, if it is still ours. Harmless where none was taken.
    void remove();
    /// Letter and colon; empty where none was taken.
    SxString get() const { return drive; }

    /// Removes all links of the root that lead below `folder`.
    static void removeBelow(const SxString& root, const SxString& folder);

private:
    std::string link, target;
    SxString drive;
};

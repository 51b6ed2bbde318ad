#pragma once

#include "SxList.h"
#include "SxString.h"

#include <string>

/// The drive letter of a disk: the link `dosdevices/x:` of a machine root, which leads to the folder where
/// the volume is mounted.
class DriveLetter {
public:
    ~DriveLetter() { remove(); }

    /// Takes the first free letter from D on. Raises where there is none, or the link can't be made.
    void take(const SxString& root, const SxString& target);
    /// Takes over a link that leads there, of a service that has ended; false where there is none.
    bool takeOver(const SxString& root, const SxString& target);
    /// Removes the link, if it is still ours. Harmless where none was taken.
    void remove();
    /// Letter and colon; empty where none was taken.
    SxString get() const { return drive; }

    /// Letter and colon of the root's link that leads there; empty where there is none.
    static SxString find(const SxString& root, const SxString& target);
    /// Removes all links of the root that lead below `folder`, but those to the targets in `kept`.
    static void removeBelow(const SxString& root, const SxString& folder, const SxList<SxString>& kept);

private:
    void keep(char letter, const std::string& path, const SxString& to);

    std::string link, target;
    SxString drive;
};

#pragma once

#include "ZqLauncherRecord.h"

/// The registry entries of a mounted image. Noted in the record before they are made, with what stood in
/// their places, so that a value that the player had comes back. Where several mounted images write one
/// value, it comes back after the last of them. One thread; the record outlives this.
class ZqRegistryChanges {
public:
    explicit ZqRegistryChanges(ZqLauncherRecord* record_) : record(record_) {}

    /// Makes the entries for `image`, a path as the record has it; raises where they can't all be made.
    void make(const SxString& image, const SxList<ZqRegistry::Item>& list, const SxString& mntPoint);
    /// Takes back what is noted of the image, or raises, and then it stays noted. The record is to be saved
    /// after it.
    void undo(const SxString& image);

private:
    void note(const SxString& image, SxList<ZqRegistry::State> former, SxList<ZqRegistry::State> written);

    ZqLauncherRecord* const record;
};

#pragma once

#include "SxString.h"

#include <optional>

/// A small file that is the user's alone: nobody else reads it, and what somebody else may have written in it
/// isn't believed. Safe from any thread.
class ZqPrivateFile {
public:
    /// Longest wait for another client that changes the file, in milliseconds.
    static constexpr int64 LOCK_MS = 5000;

    /// What it holds; nothing where there is none. Raises where another user owns it or may write it, and
    /// where it is larger than SxFileIO::MAX_TEXT.
    static std::optional<SxString> read(const SxString& file);
    /// Replaces it, for good once this returns, and makes its folders. Modes 0600 and 0700.
    static void write(const SxString& file, const SxString& text);
    /// Removes it, for good once this returns; nothing where there is none.
    static void remove(const SxString& file);
    /// Makes the folder that it lies in and those above, with mode 0700.
    static void makeFolder(const SxString& file);
};

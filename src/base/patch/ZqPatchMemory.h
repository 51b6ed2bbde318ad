#pragma once

/// How the tool that makes a difference of two files uses memory. No file holds it.
class ZqPatchMemory {
public:
    /// Every value but `Streaming` means `InMemory`.
    enum Type : int {
        InMemory = 0, ///< both files are held in memory: smaller differences
        Streaming = 2 ///< both are read piece by piece: memory doesn't grow with the files
    };
};

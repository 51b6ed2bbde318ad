#pragma once

/// How the tool that makes a difference of two files uses memory. No file holds it.
class ZqPatchMemory {
public:
    /// Every value but `Streaming` means `InMemory`.
    enum Type : int {
        InMemory =
            0, ///< smallest streams; takes the new file's size and 5 times the old one's (from 2 GB on 9)
        Streaming = 2 ///< files are read piece by piece: quick, little memory, larger streams
    };
};

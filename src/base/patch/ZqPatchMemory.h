#pragma once

/// How a difference is made.
class ZqPatchMemory {
public:
    enum Type {
        Default = 0, ///< in memory
        InMemory =
            1, ///< smallest streams; takes the new file's size and 5 times the old one's (from 2 GB on 9)
        Streaming = 2 ///< files are read piece by piece: quick, little memory, larger streams
    };
};

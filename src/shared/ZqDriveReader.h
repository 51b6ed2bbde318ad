#pragma once

#include "SxFileIO.h"

#include <string>

/// Reads a drive's RAW image, wherever its bytes come from. One thread.
class ZqDriveReader {
public:
    virtual ~ZqDriveReader() = default;
    ZqDriveReader(const ZqDriveReader&) = delete;
    ZqDriveReader& operator=(const ZqDriveReader&) = delete;

    /// What it is called in the texts of failures.
    const SxString& getName() const { return name; }
    /// Bytes of the RAW image.
    uint64 getSize() const { return size; }
    /// Reads `n` bytes at `offset`; raises where the image ends before.
    std::string read(uint64 offset, uint64 n);
    /// The number of `nBytes` bytes, least byte first, at `at` in `bytes`.
    static uint64 number(const std::string& bytes, size_t at, size_t nBytes);

protected:
    explicit ZqDriveReader(const SxString& name_) : name(name_) {}

    /// Reads `n` bytes at `offset`, which the image has.
    virtual void fetch(uint64 offset, char* bytes, uint64 n) = 0;

    uint64 size = 0;

private:
    const SxString name;
    std::string near; ///< the block that was read last for a few bytes
    uint64 nearOffset = 0;
};

/// Reads a RAW image whose blocks lie somewhere each. One thread.
class ZqBlockReader : public ZqDriveReader {
protected:
    using ZqDriveReader::ZqDriveReader;

    /// Reads `n` bytes of a block, from byte `inBlock` on. Raises.
    virtual void fetchBlock(uint64 rawIdx, uint64 inBlock, char* bytes, uint64 n) = 0;

private:
    void fetch(uint64 offset, char* bytes, uint64 n) final;
};

/// Reads a RAW image that is a file. One thread.
class ZqRawReader : public ZqDriveReader {
public:
    explicit ZqRawReader(const SxString& path);

protected:
    void fetch(uint64 offset, char* bytes, uint64 n) override;

private:
    SxFileIO file;
};

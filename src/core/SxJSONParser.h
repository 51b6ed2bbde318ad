#pragma once

#include "SxSymbol.h"

/// Reader of JSON texts (RFC 8259, UTF-8). Refuses what a careful reader should: anything after the value, a
/// key that is there twice, texts with a NUL, bytes that aren't UTF-8, more than SxSymbol::MAX_DEPTH arrays
/// and objects inside each other, more than MAX_ELEMENTS elements. A failure names the path and the line and
/// column (in bytes, from 1). Keeps what it read last where a read fails. One thread at a time.
class SxJSONParser {
public:
    /// Largest number of elements of a text, which bounds the memory that a hostile file takes.
    static constexpr int64 MAX_ELEMENTS = 2000000;

    /// Reads a file of at most SxFileIO::MAX_TEXT bytes. The number isn't used.
    void readFile(const SxString& path, int n = 1);
    /// Reads `text`; failures name it as `path`. The number isn't used.
    void readString(const SxString& text, const SxString& path, int n = 1);
    /// The element that holds all others.
    const SxParserKit::SxSymbol& getRootSymbol() const noexcept { return root; }
    const SxParserKit::SxSymbol& getAst() const noexcept { return root; }

    /// A text as JSON writes it, with its quotes and escapes. Raises where it isn't UTF-8 or holds a NUL.
    static SxString quote(const SxString& text);

private:
    SxParserKit::SxSymbol root;
};

#pragma once

#include "SxSymbol.h"
#include "ZqLoadProfilePoint.h"

/// What the JSON records of the library have in common.
class ZqRecordFile {
public:
    /// Reads `file`, validates it against the schema of that name and checks that its `version` is 2. Raises
    /// the plain failure; the record adds its own level.
    static SxParserKit::SxSymbol read(const SxString& file, const SxString& schemaName);
    /// The same of a text; failures name it `file`.
    static SxParserKit::SxSymbol parse(const SxString& text, const SxString& file,
                                       const SxString& schemaName);
    /// The same of a file of another program, which has no `version` of ours.
    static SxParserKit::SxSymbol parseForeign(const SxString& text, const SxString& file,
                                              const SxString& schemaName);
    /// The path of the schema of that name. Raises where there is none.
    static SxString requireSchema(const SxString& schemaName);
    /// The prefix to use: `argument`, or `own` where it is empty. Raises where both are.
    static SxString choosePrefix(const SxString& argument, const SxString& own);
    /// A number that must not be negative.
    static uint64 toUnsigned(const SxParserKit::SxSymbol& number);
    /// The load profile that a list has, and such a list under `key`.
    static SxList<ZqLoadProfilePoint> toProfile(const SxParserKit::SxSymbol& list);
    static void append(SxParserKit::SxSymbol* to, const char* key, const SxList<ZqLoadProfilePoint>& profile);
    /// Writes the tree as the whole of `file`, atomically; makes the folder.
    static void write(const SxParserKit::SxSymbol& root, const SxString& file, int permission = 0644);
    /// The same with a text.
    static void writeText(const SxString& text, const SxString& file, int permission = 0644);

    // The optional keys: the field stays where the key is absent.
    static void get(const SxParserKit::SxSymbol& object, const char* key, SxString* field);
    static void get(const SxParserKit::SxSymbol& object, const char* key, int64* field);
    static void get(const SxParserKit::SxSymbol& object, const char* key, uint64* field);
    static void get(const SxParserKit::SxSymbol& object, const char* key, double* field);
    static void get(const SxParserKit::SxSymbol& object, const char* key, bool* field);
    static void get(const SxParserKit::SxSymbol& object, const char* key, SxList<SxString>* field);
};

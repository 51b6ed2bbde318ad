#pragma once

#include "SxSymbol.h"

/// A JSON schema (draft-07), ready to check trees. Safe from any thread once it is made.
class SxSchema {
public:
    /// Raises where `tree` isn't a schema.
    explicit SxSchema(const SxParserKit::SxSymbol& tree);

    /// Raises on the first violation, with one sentence that names the place and the fault.
    void validate(const SxParserKit::SxSymbol& tree) const;

private:
    struct Compiled;

    SxParserKit::SxSymbol schemaTree;
    SxConstPtr<Compiled> compiled;
};

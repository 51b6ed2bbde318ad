#pragma once

#include "SxString.h"
#include "ZqCell.h"

#include <limits>
#include <memory>
#include <vector>

/// A key that records have, and the column that takes its value.
struct ZqRecordKey {
    const char* section; ///< the object in the record that holds it; empty for the record itself
    const char* name;
    size_t column;
    double factor = 0; ///< the value is in another unit, and this times as large in the column's; 0 for none
    int64 least = 0;   ///< of a number; with a factor of the product
};

/// Reads records as JSON, each a text of its own, and takes the values of known keys out of them. Other keys
/// are passed over. It takes at most 16 MiB of memory, whatever it is given. One thread.
class ZqRecordParser {
public:
    /// Bytes of a record. Real ones have a few thousand.
    static constexpr size_t MAX_RECORD = 1 << 20;
    /// Bytes that have to follow a record in memory; what they hold doesn't matter.
    static constexpr size_t PADDING = 64;
    /// Bytes of a text in a column.
    static constexpr size_t MAX_TEXT = 1024;

    ZqRecordParser(const std::vector<ZqColumn>& columns_, const std::vector<ZqRecordKey>& keys_);
    ~ZqRecordParser();

    /// Reads a record, followed by PADDING bytes. `cells` get one for each column; their texts hold until the
    /// next call. Of a column that several keys give, the largest value counts. Gives what is wrong with the
    /// record, an empty text where nothing is.
    SxString read(std::string_view record, std::vector<ZqCell>* cells);

private:
    struct State;
    const std::unique_ptr<State> state;
};

#pragma once

#include "ZqRecordParser.h"

#include <vector>

/// What is kept of a run, and under which keys documents have it: the record of a run, `runtime.json`, and
/// the documents of a statistics service. Paths, tokens, names of programs and what a machine is aren't kept.
namespace ZqFleetColumns {

/// Places of the columns that more is done with than to keep them.
enum Place : size_t { Key = 0, Id = 1, Guid = 2, Time0 = 3, Version = 4 };

/// In the order of the table `runs`, and of a Parquet file.
const std::vector<ZqColumn>& all();
const std::vector<ZqRecordKey>& keys();
/// Their names, each in quotes and followed by a comma but for the last.
SxString names();
/// What makes the table `runs`.
SxString definition();

} // namespace ZqFleetColumns

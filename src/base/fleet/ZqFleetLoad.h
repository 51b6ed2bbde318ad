#pragma once

#include "ZqDuckDb.h"
#include "ZqRecordFiles.h"
#include "ZqRecordParser.h"

#include <functional>

/// Reads the documents of files into a table with a row for each: several threads take pieces of the files in
/// turn. One object for each load, one thread.
class ZqFleetLoad {
public:
    struct Result {
        int64 nTaken = 0, nBad = 0;
        std::vector<ZqRecordFault> faults; ///< the first ones, in the order of files and lines
    };

    ZqFleetLoad(ZqDuckDb* database_, const SxString& table_, std::vector<SxString> paths)
        : database(database_),
          table(table_),
          files(std::move(paths)) {}

    /// Reads all. `nRead` is told the bytes that were read, by any thread; where `isStopped` says so, it
    /// raises with the tag STOPPED. Raises what the database raises.
    Result run(const std::function<bool()>& isStopped, const std::function<void(uint64)>& nRead);

    /// Reads one document. Gives what is wrong with it, an empty text where nothing is; then `cells` hold its
    /// row. `keyRoom` holds the text of the row's key.
    static SxString read(ZqRecordParser* parser, std::string_view document, std::vector<ZqCell>* cells,
                         std::string* keyRoom);

private:
    class Worker;

    ZqDuckDb* const database;
    const SxString table;
    ZqRecordFiles files;
};

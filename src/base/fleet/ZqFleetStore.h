#pragma once

#include "ZqDuckDb.h"
#include "ZqFleetFigures.h"

/// The runs of a fleet in a database: documents become rows, rows of one run become one, and figures are made
/// of them. Raises what the database raises. One thread, but for stop().
class ZqFleetStore {
public:
    struct Settings {
        SxString scratch; ///< folder of this one's own, for the database and what else it needs
        SxString kept;    ///< a database that runs are kept in, and that exists; empty for none
    };

    explicit ZqFleetStore(const Settings& settings);

    /// What documents are added to.
    ZqDuckDb* getDatabase() { return &database; }
    /// Name of the table that has a row for each document, and after join() for each run.
    static constexpr const char* TABLE = "runs";
    /// Makes one row of all that belong to one run, those that are kept included.
    void join();
    /// Puts the runs into the kept database, all or none of them.
    void keep();
    /// The figures, and the number of groups; the counts of what was read stay.
    void count(ZqFleetFigures* figures);
    /// Writes all runs as a Parquet file in the scratch folder, and gives its name.
    SxString writeParquet();
    /// As ZqDuckDb::stop().
    void stop() { database.stop(); }
    /// The database's file.
    static SxString fileIn(const SxString& scratch);

private:
    void requireKept();
    void takeKept();
    void joinNameless();
    void joinSeveral(int64 nSeveral);
    ZqFleetCourse readCourse(const SxString& from, const SxList<SxString>& keys);

    const bool hasKept;
    const SxString counted; ///< the table that has all runs
    const SxString scratch;
    ZqDuckDb database;
};

#pragma once

#include "SxList.h"
#include "SxString.h"
#include "ZqCell.h"

#include <memory>
#include <vector>

/// A database of DuckDB in a file. Its library is loaded when the first one is opened, from the folder of the
/// external tools, so that the client starts without it. A database reaches no network and no file but its
/// own and those that are named when it is opened, whatever statements it is given, and nothing takes that
/// back. Numbers and texts of records come by an Appender or as values of a query, and never as part of a
/// statement. One thread, but for stop() and the appenders.
class ZqDuckDb {
public:
    struct Settings {
        SxString file;  ///< made where there is none
        SxString other; ///< a second database, which statements call `other`; empty for none
        SxString
            scratch; ///< folder for what doesn't fit into memory, and that statements may write files into
        int64 memoryMiB = 384; ///< for what the database keeps in memory
        int nThreads = 2;
    };

    /// A value of a result.
    struct Value {
        bool isSet = false;
        int64 whole = 0;
        double real = 0;
        SxString text;
    };
    using Rows = std::vector<std::vector<Value>>;

    class Appender;

    /// Raises where the library is missing or another one than this build is for, and where the file is none
    /// of a database.
    explicit ZqDuckDb(const Settings& settings);
    ~ZqDuckDb();
    ZqDuckDb(const ZqDuckDb&) = delete;
    ZqDuckDb& operator=(const ZqDuckDb&) = delete;

    /// Raises where the library is missing, or another one than this build is for.
    static void requireLibrary();

    /// Runs one statement.
    void run(const SxString& statement) { query(statement); }
    /// Runs one statement, with `values` as its $1, $2 and so on, and gives its rows. Their columns are
    /// texts, doubles, booleans (as a whole number) and whole numbers of up to 64 bits; another type raises.
    Rows query(const SxString& statement, const SxList<SxString>& values = {});
    /// Ends the statement that runs, which raises with the tag STOPPED, and all that follow. One that is just
    /// beginning may not see it, so who waits for the end asks again. Any thread.
    void stop();
    /// A text as a statement has it, for the few places that take no value.
    static SxString quoted(const SxString& text);

private:
    struct State;
    const std::unique_ptr<State> state;
};

/// Rows on their way into a table. Each appender is for a thread of its own, and what it adds is in the table
/// once finish() has returned, or not at all.
class ZqDuckDb::Appender {
public:
    /// `columns` are all of the table's, in their order.
    Appender(ZqDuckDb* database, const SxString& table, const std::vector<ZqColumn>& columns);
    ~Appender();
    Appender(const Appender&) = delete;
    Appender& operator=(const Appender&) = delete;

    /// Copies a row, with a cell for each column.
    void add(const std::vector<ZqCell>& cells);
    void finish();

private:
    struct State;
    const std::unique_ptr<State> state;
};

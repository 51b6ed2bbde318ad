#include "ZqFleetStore.h"

#include "SxException.h"
#include "SxOs.h"
#include "ZqFleetColumns.h"
#include "ZqImageFolder.h"

#include <array>

namespace {

constexpr const char* UNIT = "src/base/fleet/ZqFleetStore";
/// What a first frame or a start in seconds may have at most to be told in milliseconds.
constexpr const char* MOST_SECONDS = "9000000000000";
/// Runs whose rows are made one at a time.
constexpr int64 MOST_JOINED = 200'000;

struct LinkClass {
    double below; ///< megabits per second; 0 for no limit
    const char* name;
};
constexpr std::array<LinkClass, 6> LINKS = {{{10, "< 10 Mbit/s"},
                                             {25, "10-25 Mbit/s"},
                                             {50, "25-50 Mbit/s"},
                                             {100, "50-100 Mbit/s"},
                                             {300, "100-300 Mbit/s"},
                                             {0, ">= 300 Mbit/s"}}};

/// The number of a run's class, as a text; empty where its speed isn't known.
SxString linkClass() {
    SxString text = "CASE WHEN speed IS NULL THEN ''";
    for (size_t i = 0; i < LINKS.size(); ++i) {
        text += LINKS[i].below > 0 ? " WHEN speed < " + SxString(LINKS[i].below) + " THEN '" + i + "'"
                                   : " ELSE '" + SxString(i) + "' END";
    }
    return text;
}

/// What runs write where they know no exit code, and where the application was ended (ZqCoreAppGuard).
constexpr int NO_CODE = -1, STOPPED_CODE = static_cast<int>(0xC000013A);

/// Each run with the figures that groups are told by. A time isn't one where the application never started,
/// and not one of 0 s either where only whole seconds are known and it may not have. An exit code isn't one
/// where it stands for none, or for the end that a player has put to it.
SxString figuresOf(const SxString& table) {
    const SxString most = MOST_SECONDS;
    return "SELECT *, CASE WHEN startMs >= 0 THEN startMs WHEN startMs IS NULL AND runTime > 0 AND NOT "
           "coalesce(startErr, false) AND timeToStart < " +
           most +
           " THEN timeToStart * 1000 END AS startAt, CASE WHEN firstFrameMs >= 0 THEN firstFrameMs WHEN "
           "timeToReady > 0 AND timeToReady < " +
           most +
           " THEN timeToReady * 1000 END AS frameAt, CASE WHEN avgSpeed > 0.000001 THEN avgSpeed END AS "
           "speed, CASE WHEN exitCode NOT IN (" +
           SxString(NO_CODE) + ", " + STOPPED_CODE + ") THEN exitCode END AS code FROM " + table;
}

/// The columns that tell a group from others: two of them, so that all ways of grouping look alike.
std::array<SxString, 2> keysOf(ZqFleetBy by) {
    const SxString build = "coalesce(build, '')", order = "coalesce(blockOrder, '')";
    switch (by) {
    case ZqFleetBy::BuildAndOrder:
        break;
    case ZqFleetBy::Build:
        return {build, "''"};
    case ZqFleetBy::Order:
        return {order, "''"};
    case ZqFleetBy::Link:
        return {linkClass(), "''"};
    case ZqFleetBy::System:
        return {"coalesce(winVer, '')", "''"};
    }
    return {build, order};
}

constexpr std::array<const char*, 5> SPREADS = {"startAt", "frameAt", "nUnderflows", "speed", "preloadSize"};
constexpr std::array<const char*, 5> SUMS = {"brought", "earlyUsed", "earlyUnused", "bytesRead", "late"};
constexpr std::array<const char*, 6> COUNTS = {"count(code)",
                                               "count(*) FILTER (code <> 0)",
                                               "count(*) FILTER (startErr)",
                                               "count(*) FILTER (endErr)",
                                               "count(*) FILTER (stopped)",
                                               "count(stopped)"};

/// Figures of groups in two steps: lists of quantiles, which are made in one pass over their values, and the
/// items of these, since a list is no value of a result.
struct Selection {
    SxString lists, items;

    Selection();
    void add(const SxString& list, const SxString& name, const SxString& item);
};

void Selection::add(const SxString& list, const SxString& name, const SxString& item) {
    lists += ", " + list + " AS " + name;
    items += ", " + item;
}

/// The order is that in which readGroup() takes them.
Selection::Selection() {
    add("count(*)", "n", "n");
    for (const char* each : SPREADS) {
        const SxString column(each), quantiles = "q_" + column;
        add("count(" + column + ")", "n_" + column, "n_" + column);
        add("quantile_disc(" + column + ", [0.5, 0.9, 0.99])", quantiles,
            quantiles + "[1]::DOUBLE, " + quantiles + "[2]::DOUBLE, " + quantiles + "[3]::DOUBLE");
    }
    add("count(brought)", "nJudged", "nJudged");
    for (const char* each : SUMS) {
        const SxString name = SxString("s_") + each;
        add(SxString("coalesce(sum(") + each + ")::DOUBLE, 0)", name, name);
    }
    for (size_t i = 0; i < COUNTS.size(); ++i) {
        const SxString name = SxString("c_") + i;
        add(COUNTS[i], name, name);
    }
}

/// Takes one value after the other out of a row.
class Reader {
public:
    explicit Reader(const std::vector<ZqDuckDb::Value>& row_) : row(row_) {}
    const SxString& text() { return row[at++].text; }
    int64 whole() { return row[at++].whole; }
    double real() { return row[at++].real; }

private:
    const std::vector<ZqDuckDb::Value>& row;
    size_t at = 0;
};

ZqFleetGroup readGroup(Reader* row) {
    ZqFleetGroup group;
    group.nRuns = row->whole();
    for (ZqFleetSpread* spread :
         {&group.start, &group.frame, &group.underflows, &group.speed, &group.prefix}) {
        spread->n = row->whole();
        spread->median = row->real();
        spread->ninety = row->real();
        spread->ninetyNine = row->real();
    }
    group.nJudged = row->whole();
    for (double* sum : {&group.brought, &group.earlyUsed, &group.earlyUnused, &group.read, &group.late})
        *sum = row->real();
    for (int64* count : {&group.nExits, &group.nNonZero, &group.nStartErr, &group.nEndErr, &group.nStopped,
                         &group.nStopKnown})
        *count = row->whole();
    return group;
}

void setKey(ZqFleetGroup* group, ZqFleetBy by, const SxString& first, const SxString& second) {
    switch (by) {
    case ZqFleetBy::BuildAndOrder:
        group->order = second;
        [[fallthrough]];
    case ZqFleetBy::Build:
        group->build = first;
        break;
    case ZqFleetBy::Order:
        group->order = first;
        break;
    case ZqFleetBy::Link:
        if (!first.isEmpty()) group->link = LINKS[static_cast<size_t>(first.toInt())].name;
        break;
    case ZqFleetBy::System:
        group->system = first;
        break;
    }
}

} // namespace

ZqFleetStore::ZqFleetStore(const Settings& settings)
    : hasKept(!settings.kept.isEmpty()),
      counted(hasKept ? "other.runs" : TABLE),
      scratch(ZqImageFolder::prefix(settings.scratch)),
      database({fileIn(settings.scratch), settings.kept, settings.scratch}) {
    if (hasKept) requireKept();
    database.run(SxString("CREATE TABLE ") + TABLE + " " + ZqFleetColumns::definition());
}

SxString ZqFleetStore::fileIn(const SxString& scratch) {
    return ZqImageFolder::prefix(scratch) + "fleet.duckdb";
}

/// Another database, or one of another version of this program, isn't added to.
void ZqFleetStore::requireKept() {
    const ZqDuckDb::Rows rows = database.query(
        "SELECT c.column_name || ' ' || c.data_type FROM duckdb_columns() c JOIN duckdb_tables() t USING "
        "(database_name, schema_name, table_name) WHERE database_name = 'other' AND schema_name = 'main' AND "
        "table_name = 'runs' ORDER BY c.column_index");
    SxString found;
    for (const auto& row : rows)
        found += (found.isEmpty() ? "" : ", ") + row[0].text;
    if ("(" + found + ")" == ZqFleetColumns::definition().substitute("\"", "")) return;
    throw SxException(
        "The database isn't one that runs are kept in, or is of another version of this program", UNIT,
        __LINE__);
}

// One row for each run.

/// A `runtime.json` has no id. Where a run with the same application and begin has one, it is that run.
void ZqFleetStore::joinNameless() {
    database.run("CREATE TEMP TABLE named AS SELECT guid, time0, min(id) AS id, min(key) AS key FROM runs "
                 "WHERE id IS NOT NULL "
                 "AND (guid, time0) IN (SELECT guid, time0 FROM runs WHERE id IS NULL) GROUP BY guid, time0");
    database.run("UPDATE runs SET id = named.id, key = named.key FROM named WHERE runs.id IS NULL AND "
                 "runs.guid = named.guid AND runs.time0 = named.time0");
    database.run("DROP TABLE named");
}

/// Takes the kept rows that may belong to runs of which something came now.
void ZqFleetStore::takeKept() {
    database.run(
        "CREATE TEMP TABLE taken AS SELECT * FROM other.runs AS kept WHERE kept.key IN (SELECT key "
        "FROM runs) OR (kept.guid, kept.time0) IN (SELECT guid, time0 FROM runs WHERE id IS NULL) OR "
        "(kept.id IS NULL AND (kept.guid, kept.time0) IN (SELECT guid, time0 FROM runs))");
    database.run("INSERT INTO runs SELECT * FROM taken");
}

void ZqFleetStore::join() {
    if (hasKept) takeKept();
    joinNameless();
    database.run("CREATE TEMP TABLE several AS SELECT key FROM runs GROUP BY key HAVING count(*) > 1");
    const int64 nSeveral = database.query("SELECT count(*) FROM several").front().front().whole;
    if (nSeveral > 0) joinSeveral(nSeveral);
    database.run("DROP TABLE several");
}

/// Of two values the larger one counts, so that the result doesn't depend on an order: figures of a run grow,
/// and what isn't there is smaller than all that is.
void ZqFleetStore::joinSeveral(int64 nSeveral) {
    SxString largest = "key";
    for (const ZqColumn& column : ZqFleetColumns::all()) {
        const SxString name = SxString("\"") + column.name + "\"";
        if (&column != &ZqFleetColumns::all().front()) largest += ", max(" + name + ") AS " + name;
    }
    database.run("CREATE TEMP TABLE joined AS SELECT * FROM runs LIMIT 0");
    // All of it at once may take more memory than the database has.
    const int64 nSlices = nSeveral / MOST_JOINED + 1;
    for (int64 i = 0; i < nSlices; ++i) {
        const SxString slice = "hash(key) % " + SxString(nSlices) + " = " + i;
        database.run("INSERT INTO joined SELECT " + largest + " FROM runs WHERE " + slice +
                     " AND key IN (SELECT key FROM several WHERE " + slice + ") GROUP BY key");
    }
    database.run("DELETE FROM runs WHERE key IN (SELECT key FROM several)");
    database.run("INSERT INTO runs SELECT * FROM joined");
    database.run("DROP TABLE joined");
}

void ZqFleetStore::keep() {
    if (!hasKept) return;
    database.run("BEGIN TRANSACTION");
    database.run("DELETE FROM other.runs WHERE key IN (SELECT key FROM taken)");
    database.run("INSERT INTO other.runs SELECT * FROM runs");
    database.run("COMMIT");
    // Else the runs stay in a second file beside the store, which might be forgotten when that is copied.
    database.run("CHECKPOINT other");
}

// Figures.

void ZqFleetStore::count(ZqFleetFigures* figures) {
    const Selection selection;
    const auto keys = keysOf(figures->by);
    const SxString runs = "(" + figuresOf(counted) + ")";
    const ZqDuckDb::Rows all =
        database.query("SELECT coalesce(first, 0), coalesce(last, 0)" + selection.items +
                       " FROM (SELECT "
                       "min(time0) FILTER (time0 > 0) AS first, max(time0) AS last" +
                       selection.lists + " FROM " + runs + ")");
    Reader total(all.front());
    figures->firstMs = total.whole();
    figures->lastMs = total.whole();
    figures->all = readGroup(&total);
    const bool isByLink = figures->by == ZqFleetBy::Link;
    const ZqDuckDb::Rows rows = database.query(
        "SELECT key1, key2, count(*) OVER ()" + selection.items + " FROM (SELECT " + keys[0] + " AS key1, " +
        keys[1] + " AS key2" + selection.lists + " FROM " + runs + " GROUP BY key1, key2) ORDER BY " +
        (isByLink ? "key1" : "n DESC, key1, key2") + " LIMIT " + ZqFleetFigures::MOST_GROUPS);
    for (const auto& values : rows) {
        Reader row(values);
        const SxString first = row.text(), second = row.text();
        figures->nGroups = row.whole();
        figures->groups.push_back(readGroup(&row));
        setKey(&figures->groups.back(), figures->by, first, second);
        if (figures->courses.size() == ZqFleetFigures::MOST_COURSES) continue;
        figures->courses.push_back(
            readCourse("(SELECT * FROM " + runs + " WHERE " + keys[0] + " = $1 AND " + keys[1] + " = $2)",
                       {first, second}));
        figures->courses.back().group = figures->groups.size() - 1;
    }
}

ZqFleetCourse ZqFleetStore::readCourse(const SxString& from, const SxList<SxString>& keys) {
    const SxString shares = "[i / 100.0 FOR i IN range(0, 101)]";
    ZqFleetCourse course;
    const auto read = [&](const SxString& column, std::vector<double>* values) {
        for (const auto& row : database.query(
                 "SELECT unnest(quantile_disc(" + column + ", " + shares + "))::DOUBLE FROM " + from, keys))
            if (row[0].isSet) values->push_back(row[0].real);
    };
    read("startAt", &course.start);
    read("frameAt", &course.frame);
    return course;
}

SxString ZqFleetStore::writeParquet() {
    SxString file = scratch + "runs.parquet";
    database.run("COPY (SELECT * EXCLUDE (key) FROM " + counted + ") TO " +
                 ZqDuckDb::quoted(SxString(SxOs::hostPath(file))) +
                 " (FORMAT parquet, COMPRESSION zstd, USE_TMP_FILE false)");
    return file;
}

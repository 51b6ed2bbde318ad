#include "ZqDuckDb.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMutex.h"
#include "ZqSysEnv.h"

#include <atomic>

#ifdef TAVRIN_HAS_DUCKDB

#include <cstring>
#include <dlfcn.h>
#include <duckdb.h>
#include <map>

namespace {

constexpr const char* UNIT = "src/platform/store/ZqDuckDb";
/// The one that scripts/fetch-duckdb.sh fetches. Another may lack a setting that closes a way out.
constexpr const char* VERSION = "v1.5.6";
/// An appender hands on its rows when it has so many: a piece of the table is twice as large, and waits in
/// memory in the form that it has on the disk.
constexpr idx_t MOST_PENDING = 61'440;

#define ZQ_DUCKDB_FUNCTIONS(F)                                                                               \
    F(append_data_chunk)                                                                                     \
    F(appender_close)                                                                                        \
    F(appender_create_ext)                                                                                   \
    F(appender_destroy)                                                                                      \
    F(appender_flush)                                                                                        \
    F(appender_error)                                                                                        \
    F(bind_varchar_length)                                                                                   \
    F(close)                                                                                                 \
    F(column_count)                                                                                          \
    F(column_type)                                                                                           \
    F(connect)                                                                                               \
    F(create_config)                                                                                         \
    F(create_data_chunk)                                                                                     \
    F(create_logical_type)                                                                                   \
    F(data_chunk_get_size)                                                                                   \
    F(data_chunk_get_vector)                                                                                 \
    F(data_chunk_reset)                                                                                      \
    F(data_chunk_set_size)                                                                                   \
    F(destroy_config)                                                                                        \
    F(destroy_data_chunk)                                                                                    \
    F(destroy_logical_type)                                                                                  \
    F(destroy_prepare)                                                                                       \
    F(destroy_result)                                                                                        \
    F(disconnect)                                                                                            \
    F(execute_prepared)                                                                                      \
    F(fetch_chunk)                                                                                           \
    F(free)                                                                                                  \
    F(interrupt)                                                                                             \
    F(library_version)                                                                                       \
    F(open_ext)                                                                                              \
    F(prepare)                                                                                               \
    F(query)                                                                                                 \
    F(prepare_error)                                                                                         \
    F(result_error)                                                                                          \
    F(set_config)                                                                                            \
    F(validity_row_is_valid)                                                                                 \
    F(validity_set_row_invalid)                                                                              \
    F(vector_assign_string_element_len)                                                                      \
    F(vector_ensure_validity_writable)                                                                       \
    F(vector_get_data)                                                                                       \
    F(vector_get_validity)                                                                                   \
    F(vector_size)

struct Library {
// NOLINTNEXTLINE(bugprone-macro-parentheses): a name can't have any
#define ZQ_DUCKDB_MEMBER(name) decltype(&::duckdb_##name) name = nullptr;
    ZQ_DUCKDB_FUNCTIONS(ZQ_DUCKDB_MEMBER)
#undef ZQ_DUCKDB_MEMBER
};

template<class Function>
void findFunction(void* handle, const char* name, Function* function) {
    void* const symbol = ::dlsym(handle, name);
    if (!symbol) throw SxException(SxString("it has no function '") + name + "'", UNIT, __LINE__);
    static_assert(sizeof symbol == sizeof *function);
    std::memcpy(function, &symbol, sizeof symbol);
}

Library load(const SxString& path) {
    if (!SxFSAction::test_f(path)) {
        throw SxException("'" + path +
                              "' isn't there; scripts/fetch-duckdb.sh fetches it into a source tree, and an "
                              "installation has it where the build had it",
                          UNIT, __LINE__);
    }
    // It stays loaded: it has threads of its own.
    void* const handle = ::dlopen(SxOs::hostPath(path).c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) throw SxException(SxString(::dlerror()), UNIT, __LINE__);
    Library library;
#define ZQ_DUCKDB_FIND(name) findFunction(handle, "duckdb_" #name, &library.name);
    ZQ_DUCKDB_FUNCTIONS(ZQ_DUCKDB_FIND)
#undef ZQ_DUCKDB_FIND
    const SxString version = library.library_version();
    if (!(version == VERSION)) {
        throw SxException("'" + path + "' is version " + version + ", and this program is for " + VERSION +
                              "; scripts/fetch-duckdb.sh fetches that",
                          UNIT, __LINE__);
    }
    return library;
}

const Library& loadedLibrary() {
    static SxMutex mutex;
    static std::map<SxString, Library> loaded;
    const SxString path = ZqSysEnv::getRTERootDir() + "/libduckdb.so";
    SxMutexBlock lock(&mutex);
    const auto found = loaded.find(path);
    if (found != loaded.end()) return found->second;
    try {
        return loaded.emplace(path, load(path)).first->second;
    } catch (const SxException& e) {
        throw SxException(e, "Statistics of a fleet need DuckDB's library, which can't be loaded", UNIT,
                          __LINE__);
    }
}

duckdb_type typeOf(ZqColumn::Type type) {
    switch (type) {
    case ZqColumn::Text:
        return DUCKDB_TYPE_VARCHAR;
    case ZqColumn::Whole:
        return DUCKDB_TYPE_BIGINT;
    case ZqColumn::Real:
        return DUCKDB_TYPE_DOUBLE;
    case ZqColumn::Flag:
        break;
    }
    return DUCKDB_TYPE_BOOLEAN;
}

/// The first line: what follows shows the statement and where in it the fault is.
SxString firstLine(const char* text) {
    return SxString(text ? text : "for a reason that it doesn't tell").left("\n");
}

ZqDuckDb::Value valueAt(duckdb_vector vector, const Library& duck, duckdb_type type, idx_t row) {
    ZqDuckDb::Value value;
    uint64_t* const validity = duck.vector_get_validity(vector);
    if (validity && !duck.validity_row_is_valid(validity, row)) return value;
    value.isSet = true;
    void* const data = duck.vector_get_data(vector);
    switch (type) {
    case DUCKDB_TYPE_VARCHAR: {
        const duckdb_string_t& text = static_cast<duckdb_string_t*>(data)[row];
        const uint32_t length = text.value.inlined.length;
        value.text = SxString(std::string(
            length <= sizeof text.value.inlined.inlined ? text.value.inlined.inlined : text.value.pointer.ptr,
            length));
        break;
    }
    case DUCKDB_TYPE_BIGINT:
        value.whole = static_cast<int64_t*>(data)[row];
        break;
    case DUCKDB_TYPE_INTEGER:
        value.whole = static_cast<int32_t*>(data)[row];
        break;
    case DUCKDB_TYPE_DOUBLE:
        value.real = static_cast<double*>(data)[row];
        break;
    case DUCKDB_TYPE_BOOLEAN:
        value.whole = static_cast<bool*>(data)[row];
        break;
    default:
        throw SxException("a column of the result has another type", UNIT, __LINE__);
    }
    return value;
}

} // namespace

struct ZqDuckDb::State {
    const Library& duck = loadedLibrary();
    duckdb_database database = nullptr;
    duckdb_connection connection = nullptr;
    std::atomic<bool> isStopped = false;

    ~State() {
        if (connection) duck.disconnect(&connection);
        if (database) duck.close(&database);
    }

    void open(const Settings& settings);
    Rows execute(duckdb_prepared_statement statement) const;
    [[noreturn]] void fail(const SxString& text, int line) const;
};

void ZqDuckDb::State::fail(const SxString& text, int line) const {
    const SxException failure(text, UNIT, line);
    throw isStopped ? failure.tagged(SxException::STOPPED) : failure;
}

void ZqDuckDb::State::open(const Settings& settings) {
    const std::pair<const char*, SxString> options[] = {
        {"threads", settings.nThreads},
        {"max_memory", SxString(settings.memoryMiB) + "MiB"},
        {"temp_directory", SxOs::hostPath(settings.scratch)},
        {"preserve_insertion_order", "false"},
        {"autoinstall_known_extensions", "false"},
        {"autoload_known_extensions", "false"},
        {"allow_community_extensions", "false"},
        {"allow_persistent_secrets", "false"},
    };
    duckdb_config config = nullptr;
    if (duck.create_config(&config) != DuckDBSuccess) fail("it has no settings", __LINE__);
    const char* refused = nullptr;
    for (const auto& [name, value] : options) {
        if (duck.set_config(config, name, value.ascii()) != DuckDBSuccess) refused = name;
    }
    char* error = nullptr;
    const duckdb_state opened =
        refused ? DuckDBError
                : duck.open_ext(SxOs::hostPath(settings.file).c_str(), &database, config, &error);
    duck.destroy_config(&config);
    const SxString why =
        refused ? SxString("it doesn't know the setting '") + refused + "'" : firstLine(error);
    if (error) duck.free(error);
    if (opened != DuckDBSuccess) fail(why, __LINE__);
    if (duck.connect(database, &connection) != DuckDBSuccess) fail("it takes no connection", __LINE__);
}

ZqDuckDb::Rows ZqDuckDb::State::execute(duckdb_prepared_statement statement) const {
    struct Result {
        const Library& duck;
        duckdb_result result = {};
        ~Result() { duck.destroy_result(&result); }
    } all{duck};
    if (duck.execute_prepared(statement, &all.result) != DuckDBSuccess)
        fail(firstLine(duck.result_error(&all.result)), __LINE__);
    struct Chunk {
        const Library& duck;
        duckdb_data_chunk chunk = nullptr;
        ~Chunk() {
            if (chunk) duck.destroy_data_chunk(&chunk);
        }
    };
    Rows rows;
    const idx_t nColumns = duck.column_count(&all.result);
    while (true) {
        const Chunk piece{duck, duck.fetch_chunk(all.result)};
        if (!piece.chunk) break;
        const size_t first = rows.size();
        rows.resize(first + duck.data_chunk_get_size(piece.chunk));
        for (idx_t column = 0; column < nColumns; ++column) {
            auto* const vector = duck.data_chunk_get_vector(piece.chunk, column);
            const duckdb_type type = duck.column_type(&all.result, column);
            for (size_t row = first; row < rows.size(); ++row)
                rows[row].push_back(valueAt(vector, duck, type, row - first));
        }
    }
    return rows;
}

void ZqDuckDb::requireLibrary() {
    loadedLibrary();
}

ZqDuckDb::ZqDuckDb(const Settings& settings) : state(std::make_unique<State>()) {
    try {
        state->open(settings);
        if (!settings.other.isEmpty())
            run("ATTACH " + quoted(SxString(SxOs::hostPath(settings.other))) + " AS other");
        // What the settings of a file name may be reached for ever, so the order matters: what is allowed,
        // then the ban on all else, then the lock on both.
        run("SET allowed_directories = [" + quoted(SxString(SxOs::hostPath(settings.scratch))) + "]");
        run("SET enable_external_access = false");
        run("SET lock_configuration = true");
    } catch (const SxException& e) {
        const SxString& file = settings.other.isEmpty() ? settings.file : settings.other;
        throw SxException(e, "Database '" + file + "' can't be opened", UNIT, __LINE__);
    }
}

ZqDuckDb::~ZqDuckDb() = default;

ZqDuckDb::Rows ZqDuckDb::query(const SxString& statement, const SxList<SxString>& values) {
    const Library& duck = state->duck;
    if (state->isStopped) state->fail("stopped", __LINE__);
    struct Prepared {
        const Library& duck;
        duckdb_prepared_statement statement = nullptr;
        ~Prepared() { duck.destroy_prepare(&statement); }
    } prepared{duck};
    // It prepares one statement and no list of them.
    if (duck.prepare(state->connection, statement.ascii(), &prepared.statement) != DuckDBSuccess)
        state->fail(firstLine(duck.prepare_error(prepared.statement)), __LINE__);
    idx_t place = 0;
    for (const SxString& value : values) {
        const std::string_view text = value;
        if (duck.bind_varchar_length(prepared.statement, ++place, text.data(), text.size()) != DuckDBSuccess)
            state->fail("a value can't be given", __LINE__);
    }
    return state->execute(prepared.statement);
}

void ZqDuckDb::stop() {
    state->isStopped = true;
    state->duck.interrupt(state->connection);
}

SxString ZqDuckDb::quoted(const SxString& text) {
    return "'" + text.substitute("'", "''") + "'";
}

// Rows that are added.

struct ZqDuckDb::Appender::State {
    const Library& duck;
    std::vector<ZqColumn> columns;
    duckdb_connection connection = nullptr;
    duckdb_appender appender = nullptr;
    duckdb_data_chunk chunk = nullptr;
    std::vector<duckdb_vector> vectors;
    std::vector<void*> data;
    std::vector<uint64_t*> validity;
    idx_t nRows = 0, capacity = 0, nPending = 0;

    explicit State(const Library& duck_) : duck(duck_) {}
    ~State() {
        if (chunk) duck.destroy_data_chunk(&chunk);
        if (appender) duck.appender_destroy(&appender);
        if (connection) duck.disconnect(&connection);
    }
    void makeChunk();
    void begin();
    void flush();
    void run(const char* statement);
    [[noreturn]] void fail(int line) {
        throw SxException(firstLine(duck.appender_error(appender)), UNIT, line);
    }
};

void ZqDuckDb::Appender::State::makeChunk() {
    std::vector<duckdb_logical_type> types;
    for (const ZqColumn& column : columns)
        types.push_back(duck.create_logical_type(typeOf(column.type)));
    chunk = duck.create_data_chunk(types.data(), types.size());
    for (duckdb_logical_type& type : types)
        duck.destroy_logical_type(&type);
    capacity = duck.vector_size();
    vectors.resize(columns.size());
    data.resize(columns.size());
    validity.resize(columns.size());
}

void ZqDuckDb::Appender::State::begin() {
    for (size_t i = 0; i < columns.size(); ++i) {
        vectors[i] = duck.data_chunk_get_vector(chunk, i);
        duck.vector_ensure_validity_writable(vectors[i]);
        data[i] = duck.vector_get_data(vectors[i]);
        validity[i] = duck.vector_get_validity(vectors[i]);
    }
    nRows = 0;
}

void ZqDuckDb::Appender::State::run(const char* statement) {
    duckdb_result result = {};
    const bool isDone = duck.query(connection, statement, &result) == DuckDBSuccess;
    const SxString why = isDone ? SxString() : firstLine(duck.result_error(&result));
    duck.destroy_result(&result);
    if (!isDone) throw SxException(why, UNIT, __LINE__);
}

void ZqDuckDb::Appender::State::flush() {
    if (nRows == 0) return;
    duck.data_chunk_set_size(chunk, nRows);
    if (duck.append_data_chunk(appender, chunk) != DuckDBSuccess) fail(__LINE__);
    duck.data_chunk_reset(chunk);
    nPending += nRows;
    if (nPending >= MOST_PENDING) {
        if (duck.appender_flush(appender) != DuckDBSuccess) fail(__LINE__);
        nPending = 0;
    }
    begin();
}

ZqDuckDb::Appender::Appender(ZqDuckDb* database, const SxString& table, const std::vector<ZqColumn>& columns)
    : state(std::make_unique<State>(database->state->duck)) {
    const Library& duck = state->duck;
    state->columns = columns;
    if (duck.connect(database->state->database, &state->connection) != DuckDBSuccess)
        throw SxException("The database takes no further connection", UNIT, __LINE__);
    state->run("BEGIN TRANSACTION");
    if (duck.appender_create_ext(state->connection, nullptr, nullptr, table.ascii(), &state->appender) !=
        DuckDBSuccess)
        state->fail(__LINE__);
    state->makeChunk();
    state->begin();
}

ZqDuckDb::Appender::~Appender() = default;

void ZqDuckDb::Appender::add(const std::vector<ZqCell>& cells) {
    State& to = *state;
    const idx_t row = to.nRows;
    for (size_t i = 0; i < to.columns.size(); ++i) {
        const ZqCell& cell = cells[i];
        if (!cell.isSet) {
            to.duck.validity_set_row_invalid(to.validity[i], row);
            continue;
        }
        switch (to.columns[i].type) {
        case ZqColumn::Text:
            to.duck.vector_assign_string_element_len(to.vectors[i], row, cell.text.data(), cell.text.size());
            break;
        case ZqColumn::Whole:
            static_cast<int64_t*>(to.data[i])[row] = cell.whole;
            break;
        case ZqColumn::Real:
            static_cast<double*>(to.data[i])[row] = cell.real;
            break;
        case ZqColumn::Flag:
            static_cast<bool*>(to.data[i])[row] = cell.whole != 0;
            break;
        }
    }
    if (++to.nRows == to.capacity) to.flush();
}

void ZqDuckDb::Appender::finish() {
    state->flush();
    if (state->duck.appender_close(state->appender) != DuckDBSuccess) state->fail(__LINE__);
    state->run("COMMIT");
}

#else

// Built without the header, which scripts/fetch-duckdb.sh fetches.

struct ZqDuckDb::State {};
struct ZqDuckDb::Appender::State {};

void ZqDuckDb::requireLibrary() {
    throw SxException(
        "Statistics of a fleet are not built in: this program was built without DuckDB's header; "
        "run scripts/fetch-duckdb.sh in its sources and build it again",
        "src/platform/store/ZqDuckDb", __LINE__);
}
ZqDuckDb::ZqDuckDb(const Settings&) {
    requireLibrary();
}
ZqDuckDb::~ZqDuckDb() = default;
ZqDuckDb::Rows ZqDuckDb::query(const SxString&, const SxList<SxString>&) {
    return {};
}
void ZqDuckDb::stop() {
}
SxString ZqDuckDb::quoted(const SxString& text) {
    return text;
}
ZqDuckDb::Appender::Appender(ZqDuckDb*, const SxString&, const std::vector<ZqColumn>&) {
}
ZqDuckDb::Appender::~Appender() = default;
void ZqDuckDb::Appender::add(const std::vector<ZqCell>&) {
}
void ZqDuckDb::Appender::finish() {
}

#endif

# What the library itself stands on. Tests and benchmarks look for theirs in their own folders.

find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(LibArchive REQUIRED)
# 7.87: a request whose name is being resolved can be given up at once.
find_package(CURL 7.87 REQUIRED)
find_package(spdlog REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(tsl-robin-map REQUIRED)
find_package(tsl-ordered-map REQUIRED)
find_package(CLI11 REQUIRED)

find_package(PkgConfig REQUIRED)
pkg_check_modules(TAVRIN_ZSTD REQUIRED IMPORTED_TARGET libzstd)
pkg_check_modules(TAVRIN_HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
pkg_check_modules(TAVRIN_XCB REQUIRED IMPORTED_TARGET xcb xcb-ewmh xcb-icccm xcb-randr)
pkg_check_modules(TAVRIN_PCI REQUIRED IMPORTED_TARGET libpci)
pkg_check_modules(TAVRIN_SIMDJSON REQUIRED IMPORTED_TARGET simdjson)
pkg_check_modules(TAVRIN_SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(TAVRIN_FUSE REQUIRED IMPORTED_TARGET fuse3)

find_path(TAVRIN_VALIJSON_INCLUDE_DIR valijson/validator.hpp REQUIRED)
# Its headers alone, so that no program needs its library at run time.
find_path(TAVRIN_TOML_INCLUDE_DIR toml++/toml.h REQUIRED)

# Where scripts/fetch-duckdb.sh has put it; all else is built without it.
set(TAVRIN_DUCKDB "${PROJECT_SOURCE_DIR}/build/duckdb" CACHE PATH "Folder of DuckDB's library and header")

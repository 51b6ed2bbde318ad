include(CMakePackageConfigHelpers)

set(tavrin_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/Tavrin")
get_property(tavrin_headers GLOBAL PROPERTY TAVRIN_HEADERS)

install(TARGETS tavrin EXPORT TavrinTargets ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT dev)
install(FILES ${tavrin_headers} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tavrin" COMPONENT dev)
install(EXPORT TavrinTargets NAMESPACE tavrin:: DESTINATION "${tavrin_package_dir}" COMPONENT dev)

configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/TavrinConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/TavrinConfig.cmake"
    INSTALL_DESTINATION "${tavrin_package_dir}"
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/TavrinConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/TavrinConfig.cmake" "${PROJECT_BINARY_DIR}/TavrinConfigVersion.cmake"
    DESTINATION "${tavrin_package_dir}" COMPONENT dev)

# Relative to the file itself, so that it holds for whatever prefix the installation gets.
file(RELATIVE_PATH tavrin_pc_prefix
    "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" tavrin_pc_prefix "${tavrin_pc_prefix}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/tavrin.pc.in" "${PROJECT_BINARY_DIR}/tavrin.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/tavrin.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT dev)

install(DIRECTORY "${PROJECT_SOURCE_DIR}/schemas/" DESTINATION "${CMAKE_INSTALL_DATADIR}/tavrin/schemas"
    COMPONENT runtime FILES_MATCHING PATTERN "*.json")
if(TARGET tavrin-client)
    install(TARGETS tavrin-client RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT runtime)
endif()
# Below this folder of /usr and of /usr/local the system's device manager looks for rules.
# A build that isn't installed has no such rule: there, what a prober reads looks like an application's reads.
install(FILES "${CMAKE_CURRENT_LIST_DIR}/59-tavrin.rules" DESTINATION "lib/udev/rules.d" COMPONENT runtime)
# Where the client looks for the external tools: beside its own folder.
install(TARGETS zqdd RUNTIME DESTINATION "lib/tavrin" COMPONENT runtime)

# The tools for patches, where scripts/build-patch-tools.sh has made them. That may be after this build was configured,
# so the links beside the built client are made in any case; where they lead nowhere, the library says that the tools
# are missing.
set(TAVRIN_PATCH_TOOLS "${PROJECT_SOURCE_DIR}/build/patch-tools" CACHE PATH "Folder of hdiffz and hpatchz")
file(MAKE_DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
foreach(tool hdiffz hpatchz)
    file(CREATE_LINK "${TAVRIN_PATCH_TOOLS}/${tool}" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${tool}" SYMBOLIC)
    install(PROGRAMS "${TAVRIN_PATCH_TOOLS}/${tool}" DESTINATION "lib/tavrin" COMPONENT runtime OPTIONAL)
endforeach()
install(FILES "${TAVRIN_PATCH_TOOLS}/LICENSE" DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/tavrin"
    COMPONENT runtime RENAME LICENSE.hdiffz OPTIONAL)

# The same for the library that the statistics of a fleet are made with.
file(CREATE_LINK "${TAVRIN_DUCKDB}/libduckdb.so" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/libduckdb.so" SYMBOLIC)
install(FILES "${TAVRIN_DUCKDB}/libduckdb.so" DESTINATION "lib/tavrin" COMPONENT runtime OPTIONAL)
install(FILES "${TAVRIN_DUCKDB}/LICENSE" DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/tavrin"
    COMPONENT runtime RENAME LICENSE.duckdb OPTIONAL)

# Two Debian packages: the client with the schema files, and what a program needs to build on the library.

if(NOT PROJECT_IS_TOP_LEVEL)
    return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavrin)
set(CPACK_PACKAGE_VENDOR "The TAVRIN developers")
set(CPACK_PACKAGE_CONTACT "The TAVRIN developers <maintainers@tavrin.invalid>")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME tavrin)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION games)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "erofs-utils")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "e2fsprogs, squashfs-tools")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}: the client")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtavrin-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "tavrin (= ${PROJECT_VERSION}), libssl-dev, libarchive-dev, libzstd-dev, libcurl4-openssl-dev, libcpp-httplib-dev, libxcb1-dev, libxcb-ewmh-dev, libxcb-icccm4-dev, libxcb-randr0-dev, libpci-dev, libsimdjson-dev, libsystemd-dev, libspdlog-dev, robin-map-dev, libtsl-ordered-map-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "${PROJECT_DESCRIPTION}: library, headers and build files")

include(CPack)

# Layers of the library. Each is an object library that sees its own folders and those of the layers below it,
# so that an arrow in the wrong direction fails to compile.

# tavrin_add_layer(NAME PATTERN [LAYER...]): sources and headers that match PATTERN (relative, without the
# suffix) become the layer tavrin_NAME on top of the named layers. A layer without sources is left out.
function(tavrin_add_layer name pattern)
    file(GLOB sources CONFIGURE_DEPENDS "${pattern}.cpp")
    file(GLOB headers CONFIGURE_DEPENDS "${pattern}.h")
    set(folders "")
    foreach(file IN LISTS sources headers)
        cmake_path(GET file PARENT_PATH folder)
        list(APPEND folders "${folder}")
    endforeach()
    list(REMOVE_DUPLICATES folders)
    foreach(lower IN LISTS ARGN)
        get_property(lower_folders GLOBAL PROPERTY "TAVRIN_FOLDERS_${lower}")
        list(APPEND folders ${lower_folders})
    endforeach()

    set_property(GLOBAL PROPERTY "TAVRIN_FOLDERS_${name}" "${folders}")
    set_property(GLOBAL APPEND PROPERTY TAVRIN_HEADERS ${headers})
    if(sources)
        add_library(tavrin_${name} OBJECT ${sources} ${headers})
        target_include_directories(tavrin_${name} PRIVATE ${folders})
        target_link_libraries(tavrin_${name} PRIVATE tavrin_compiler)
        set_property(GLOBAL APPEND PROPERTY TAVRIN_OBJECTS $<TARGET_OBJECTS:tavrin_${name}>)
    endif()
endfunction()

# tavrin_link_layer(NAME LIBRARY...): what the layer's sources compile against, if the layer has any.
function(tavrin_link_layer name)
    if(TARGET tavrin_${name})
        target_link_libraries(tavrin_${name} PRIVATE ${ARGN})
    endif()
endfunction()

# tavrin_flatten_headers(FOLDER HEADER...): makes FOLDER hold one symbolic link for each header and nothing
# else, the same picture that an installation gives.
function(tavrin_flatten_headers folder)
    set(wanted "")
    foreach(header IN LISTS ARGN)
        cmake_path(GET header FILENAME filename)
        if(filename IN_LIST wanted)
            message(FATAL_ERROR "Two headers are called ${filename}; headers are installed into one folder.")
        endif()
        list(APPEND wanted "${filename}")
    endforeach()

    file(MAKE_DIRECTORY "${folder}")
    file(GLOB present RELATIVE "${folder}" "${folder}/*")
    foreach(filename IN LISTS present)
        if(NOT filename IN_LIST wanted)
            file(REMOVE "${folder}/${filename}")
        endif()
    endforeach()
    foreach(header IN LISTS ARGN)
        cmake_path(GET header FILENAME filename)
        file(CREATE_LINK "${header}" "${folder}/${filename}" SYMBOLIC)
    endforeach()
endfunction()

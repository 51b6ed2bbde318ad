# The rooms of src, by src/rooms.txt. Each is an object library that sees its own folder and those of the rooms
# below it, so that an arrow in the wrong direction fails to compile.

# tavrin_read_rooms(FILE): sets TAVRIN_ROOMS, in the file's order, and for each room TAVRIN_BELOW_<room>: all
# rooms that it may know, itself first.
macro(tavrin_read_rooms file)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
    file(STRINGS "${file}" lines REGEX "^[^#]")
    set(TAVRIN_ROOMS "")
    foreach(line IN LISTS lines)
        string(REGEX MATCHALL "[^: ]+" names "${line}")
        list(POP_FRONT names room)
        set(TAVRIN_BELOW_${room} "${room}")
        foreach(name IN LISTS names)
            set(known ${TAVRIN_ROOMS})
            list(FILTER known INCLUDE REGEX "^${name}(/|$)")
            if(NOT known)
                message(FATAL_ERROR "${file}: ${room} may know ${name}, which stands nowhere above it")
            endif()
            foreach(lower IN LISTS known)
                list(APPEND TAVRIN_BELOW_${room} ${TAVRIN_BELOW_${lower}})
            endforeach()
        endforeach()
        list(REMOVE_DUPLICATES TAVRIN_BELOW_${room})
        list(APPEND TAVRIN_ROOMS "${room}")
    endforeach()
endmacro()

# tavrin_folders_of(VARIABLE ROOM...): the folders of these rooms.
function(tavrin_folders_of variable)
    list(TRANSFORM ARGN PREPEND "${PROJECT_SOURCE_DIR}/src/")
    set(${variable} "${ARGN}" PARENT_SCOPE)
endfunction()

# tavrin_rooms_of(VARIABLE LAYER): the rooms of one layer.
function(tavrin_rooms_of variable layer)
    set(rooms ${TAVRIN_ROOMS})
    list(FILTER rooms INCLUDE REGEX "^${layer}(/|$)")
    set(${variable} "${rooms}" PARENT_SCOPE)
endfunction()

# One precompiled header of the standard library serves all rooms: a unit compiles in about 0.6 of the time. It has
# no header of the project, so that none comes into sight of a room by it.
file(CONFIGURE OUTPUT precompiled.cpp CONTENT "// Carries the precompiled header of the rooms.\n")
add_library(tavrin_room_precompiled OBJECT "${CMAKE_CURRENT_BINARY_DIR}/precompiled.cpp")
target_link_libraries(tavrin_room_precompiled PRIVATE tavrin_compiler Threads::Threads)
target_precompile_headers(tavrin_room_precompiled PRIVATE
    <algorithm> <atomic> <chrono> <condition_variable> <deque> <functional> <map> <memory> <mutex> <optional>
    <string> <thread> <vector>)
# By way of a precompiled header g++ 12 sees faults in copies of std::string that it doesn't see otherwise, since
# there are none; clang's builds look at bounds, too. Linked last, so that these follow -Wall.
add_library(tavrin_room_warnings INTERFACE)
target_compile_options(tavrin_room_warnings INTERFACE
    "$<$<CXX_COMPILER_ID:GNU>:-Wno-array-bounds;-Wno-stringop-overflow;-Wno-stringop-overread;-Wno-restrict>")

# tavrin_add_room(ROOM [LIBRARY...]): the room's sources become the object library room_<room>, with "_" for
# each "/", which compiles against these libraries. VARIABLE takes its name; it is empty where the room has
# headers alone.
function(tavrin_add_room variable room)
    set(${variable} "" PARENT_SCOPE)
    file(GLOB sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/${room}/*.cpp")
    file(GLOB headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/${room}/*.h")
    list(FILTER sources EXCLUDE REGEX "/main\\.cpp$")
    if(sources)
        string(REPLACE "/" "_" target "room_${room}")
        tavrin_folders_of(folders ${TAVRIN_BELOW_${room}})
        add_library(${target} OBJECT ${sources} ${headers})
        target_include_directories(${target} PRIVATE ${folders})
        target_link_libraries(${target} PRIVATE tavrin_compiler tsl::robin_map tsl::ordered_map ${ARGN}
            tavrin_room_warnings)
        target_precompile_headers(${target} REUSE_FROM tavrin_room_precompiled)
        set(${variable} "${target}" PARENT_SCOPE)
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

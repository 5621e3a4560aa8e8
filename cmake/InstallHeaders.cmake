# Runs when a library is installed: its public headers, and those of its private ones that a public one includes,
# however indirectly, since a template needs them. A header is private when it is in a folder internal/.
#
# root         of the source tree, which includes are relative to
# folder       of the library, below it
# destination  of the headers, which go below it as they are below the root; relative to the prefix, or absolute
cmake_policy(PUSH)
cmake_policy(VERSION 3.22)
if(NOT IS_ABSOLUTE "${destination}")
    set(destination "${CMAKE_INSTALL_PREFIX}/${destination}")
endif()
file(GLOB_RECURSE headers RELATIVE "${root}" "${root}/${folder}/*.h")
set(wanted ${headers})
list(FILTER wanted EXCLUDE REGEX "/internal/")
set(left ${wanted})
while(left)
    list(POP_FRONT left header)
    file(STRINGS "${root}/${header}" includes REGEX "^#include \"${folder}/.*/?internal/")
    foreach(include IN LISTS includes)
        string(REGEX REPLACE "^#include \"(.*)\".*" "\\1" include "${include}")
        if(NOT include IN_LIST wanted)
            list(APPEND wanted "${include}")
            list(APPEND left "${include}")
        endif()
    endforeach()
endwhile()
foreach(header IN LISTS wanted)
    get_filename_component(below "${header}" DIRECTORY)
    file(INSTALL "${root}/${header}" DESTINATION "${destination}/${below}")
endforeach()
cmake_policy(POP)

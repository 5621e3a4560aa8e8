# What all our targets share.

# mox_compile(target): the language, visibility and warnings of our own sources.
function(mox_compile target)
    target_compile_features(${target} PUBLIC cxx_std_20)
    set_target_properties(${target} PROPERTIES
        CXX_EXTENSIONS OFF
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
    if(MOX_WARNINGS)
        target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Werror)
    endif()
endfunction()

# Programs go on working with a later version as long as this stays what it is: the major version, and before the first
# major version, which promises nothing yet, the minor one, too.
set(MOX_COMPATIBLE_VERSION ${PROJECT_VERSION_MAJOR})
if(PROJECT_VERSION_MAJOR EQUAL 0)
    set(MOX_COMPATIBLE_VERSION 0.${PROJECT_VERSION_MINOR})
endif()

# mox_library(target Namespace [OUTPUT name] [EXPORT name] [LINK targets...]): the library of the current folder, with
# the alias Namespace::target, its install rules and its export set, which is named after the namespace unless told.
function(mox_library target namespace)
    cmake_parse_arguments(PARSE_ARGV 2 arg "" "OUTPUT;EXPORT" "LINK")
    if(NOT arg_EXPORT)
        set(arg_EXPORT ${namespace}Targets)
    endif()
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS *.cpp)

    if(NOT sources)  # nothing to compile here yet
        add_library(${target} INTERFACE)
        add_library(${namespace}::${target} ALIAS ${target})
        target_link_libraries(${target} INTERFACE ${arg_LINK})
        if(MOX_INSTALL)
            install(TARGETS ${target} EXPORT ${arg_EXPORT})
            install(EXPORT ${arg_EXPORT} NAMESPACE ${namespace}::
                DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/Mox")
        endif()
        return()
    endif()

    add_library(${target} ${sources})
    add_library(${namespace}::${target} ALIAS ${target})
    mox_compile(${target})
    target_link_libraries(${target} PUBLIC ${arg_LINK})
    target_include_directories(${target} PUBLIC
        "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>" "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
    set_target_properties(${target} PROPERTIES
        POSITION_INDEPENDENT_CODE ON
        DEFINE_SYMBOL ""  # no source asks; without it shared and static compile alike, once through ccache
        VERSION ${PROJECT_VERSION}
        SOVERSION ${MOX_COMPATIBLE_VERSION}
        INSTALL_RPATH "$ORIGIN")
    if(arg_OUTPUT)
        set_target_properties(${target} PROPERTIES OUTPUT_NAME ${arg_OUTPUT})
    endif()

    # Every module registers its types in a static initialiser that nothing refers to. Left to itself the linker takes
    # from an archive only the objects that something refers to, and (by default on Debian and others) drops a shared
    # library whose symbols nobody uses: the types would be missing at run time. So whoever links us gets all of it.
    set(file "$<TARGET_FILE:${namespace}::${target}>")
    if(BUILD_SHARED_LIBS)
        target_link_options(${target} INTERFACE "LINKER:--push-state,--no-as-needed,${file},--pop-state")
    else()
        target_link_options(${target} INTERFACE "LINKER:--whole-archive,${file},--no-whole-archive")
    endif()

    if(MOX_INSTALL)
        install(TARGETS ${target} EXPORT ${arg_EXPORT}
            RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}"
            LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
            ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
        get_filename_component(folder "${CMAKE_CURRENT_SOURCE_DIR}" NAME)
        install(CODE "
            set(root \"${PROJECT_SOURCE_DIR}\")
            set(folder ${folder})
            set(destination \"${CMAKE_INSTALL_INCLUDEDIR}\")
            include(\"${PROJECT_SOURCE_DIR}/cmake/InstallHeaders.cmake\")")
        install(EXPORT ${arg_EXPORT} NAMESPACE ${namespace}::
            DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/Mox")
    endif()
endfunction()

# mox_one_by_one(target): its sources are compiled one by one also where CMAKE_UNITY_BUILD merges those of the libraries.
# The names that each of them keeps to itself need not differ then.
function(mox_one_by_one target)
    set_target_properties(${target} PROPERTIES UNITY_BUILD OFF)
endfunction()

# mox_precompile(target headers...): precompiles headers of others, which the sources of the target include.
function(mox_precompile target)
    target_precompile_headers(${target} PRIVATE ${ARGN})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(${target} PRIVATE -fpch-preprocess)  # lets ccache see through the precompiled header
    endif()
endfunction()

# mox_executable(target sources... [LINK targets...])
function(mox_executable target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LINK")
    add_executable(${target} ${arg_UNPARSED_ARGUMENTS})
    mox_compile(${target})
    mox_one_by_one(${target})
    target_link_libraries(${target} PRIVATE ${arg_LINK})
endfunction()

# mox_find(package option): a package that only the part behind that option needs.
macro(mox_find package option)
    find_package(${package} QUIET)
    if(NOT ${package}_FOUND)
        message(FATAL_ERROR
            "${option}=ON needs ${package}, which was not found. On Debian and Ubuntu scripts/setup installs it; "
            "the libraries themselves build without it (-D${option}=OFF).")
    endif()
endmacro()

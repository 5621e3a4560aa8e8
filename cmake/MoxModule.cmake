# mox_add_module(): for those who build Mox as part of theirs, and installed for those who find_package it.

# mox_add_module(NAME SOURCES... [STATIC] [LINK TARGETS...] [HEADERS FILES...] [PACKAGE PACKAGE])
#
# Makes the library NAME of sources with modules of their own (VEL_MODULE). Whoever links it has its types in the
# registry at run time, also a program that calls nothing in it, which the linker would otherwise build without the
# library.
#
# It is a shared library where Mox is shared; else, with STATIC, and with BUILD_SHARED_LIBS set to OFF, a static one.
# Both are C++20 and hide what is not marked VEL_API.
#
#     STATIC     a static library, though Mox is shared
#     LINK       what it and its users link, Mox::mox if nothing is told
#     HEADERS    headers to be installed, with their folders, relative to this one: Weather/Station.h
#     PACKAGE    install rules: `cmake --install` puts the library, the headers and a CMake package of that name in place,
#                with which users say find_package(PACKAGE) and link PACKAGE::NAME. Several modules may share a package.
#
# Without PACKAGE nothing is installed; install(TARGETS NAME EXPORT ...) works as for any library.
function(mox_add_module name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "STATIC" "PACKAGE" "LINK;HEADERS")
    if(NOT arg_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "mox_add_module(${name}): the sources are missing")
    endif()
    if(arg_HEADERS AND NOT arg_PACKAGE)
        message(FATAL_ERROR "mox_add_module(${name}): HEADERS are installed with a PACKAGE, which is missing")
    endif()
    if(NOT arg_LINK)
        set(arg_LINK Mox::mox)
    endif()
    set(kind SHARED)
    get_target_property(kind_of_mox Vel::vel TYPE)
    if(arg_STATIC OR kind_of_mox STREQUAL "STATIC_LIBRARY" OR (DEFINED BUILD_SHARED_LIBS AND NOT BUILD_SHARED_LIBS))
        set(kind STATIC)
    endif()

    add_library(${name} ${kind} ${arg_UNPARSED_ARGUMENTS})
    target_compile_features(${name} PUBLIC cxx_std_20)
    set_target_properties(${name} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON)
    target_link_libraries(${name} PUBLIC ${arg_LINK})
    target_include_directories(${name} PUBLIC "$<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>")

    # The name of the target is marked as one, so that it becomes the one that users know when the target is exported.
    set(file "$<TARGET_FILE:$<TARGET_NAME:${name}>>")
    if(kind STREQUAL "SHARED")
        target_link_options(${name} INTERFACE "LINKER:--push-state,--no-as-needed,${file},--pop-state")
        # What is missing, such as a type that VEL_MODULE does not list, is told here, and not when the library is
        # loaded; but not with a sanitizer, whose functions are in the program.
        get_directory_property(options COMPILE_OPTIONS)
        if(NOT "${CMAKE_CXX_FLAGS} ${options}" MATCHES "-fsanitize")
            target_link_options(${name} PRIVATE "LINKER:-z,defs")
        endif()
    else()
        target_link_options(${name} INTERFACE "LINKER:--whole-archive,${file},--no-whole-archive")
    endif()
    if(arg_PACKAGE)
        _mox_install_module(${name} ${arg_PACKAGE} "${arg_HEADERS}")
    endif()
endfunction()

function(_mox_install_module name package headers)
    get_target_property(mox_is_installed Vel::vel IMPORTED)
    if(NOT mox_is_installed AND NOT MOX_INSTALL)
        message(FATAL_ERROR "mox_add_module(${name} ... PACKAGE ${package}) installs what needs Mox, which is a part of "
            "this build and not installed with it: set(MOX_INSTALL ON) before add_subdirectory")
    endif()
    include(GNUInstallDirs)
    if(NOT DEFINED CMAKE_INSTALL_RPATH)  # else the project has its own opinion
        set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN" INSTALL_RPATH_USE_LINK_PATH ON)
    endif()
    target_include_directories(${name} PUBLIC "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
    install(TARGETS ${name} EXPORT ${package}Targets
        RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}"
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
    foreach(header IN LISTS headers)
        get_filename_component(folder "${header}" DIRECTORY)
        install(FILES "${header}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${folder}")
    endforeach()

    get_property(known GLOBAL PROPERTY _mox_package_${package})
    if(known)
        return()
    endif()
    set_property(GLOBAL PROPERTY _mox_package_${package} ON)
    set(config "${CMAKE_CURRENT_BINARY_DIR}/${package}Config.cmake")
    file(WRITE "${config}" "include(CMakeFindDependencyMacro)\nfind_dependency(Mox)\n"
        "include(\"\${CMAKE_CURRENT_LIST_DIR}/${package}Targets.cmake\")\n")
    install(FILES "${config}" DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/${package}")
    install(EXPORT ${package}Targets NAMESPACE ${package}:: DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake/${package}")
endfunction()

# Faster builds for whoever asked for them.

if(MOX_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    find_program(MOX_CCACHE_PROGRAM ccache)
    mark_as_advanced(MOX_CCACHE_PROGRAM)
    if(MOX_CCACHE_PROGRAM)
        # Without this sloppiness ccache refuses everything that uses a precompiled header. A compiler is known by its
        # content and not by the time of its file, so that machines with the same one can share a cache.
        set(CMAKE_CXX_COMPILER_LAUNCHER
            env "CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime"
            "CCACHE_COMPILERCHECK=content" "${MOX_CCACHE_PROGRAM}")
    endif()
endif()

if(MOX_FAST_LINKER)
    find_program(MOX_LINKER_PROGRAM NAMES ld.mold ld.lld)
    mark_as_advanced(MOX_LINKER_PROGRAM)
    if(MOX_LINKER_PROGRAM)
        get_filename_component(linker "${MOX_LINKER_PROGRAM}" NAME)
        string(REPLACE "ld." "" linker "${linker}")
        add_link_options("-fuse-ld=${linker}")
    endif()
endif()

# What every shared library of this project has in common.

# lx_shared_library(<name> <source>...): a versioned shared library, the alias lxbase::<name>,
# symbols hidden unless exported. What it shows to others is said with lx_public_headers.
function(lx_shared_library name)
    add_library(${name} SHARED ${ARGN})
    add_library(lxbase::${name} ALIAS ${name})
    lx_hide_symbols(${name})
    set_target_properties(${name} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR})
endfunction()

# lx_public_headers(<target> BASE <include root> FILES <header>...): the headers that users of the
# target include. Installs them and the target, as part of the package lxbase; each is compiled by
# itself in the target all_verify_interface_header_sets.
function(lx_public_headers target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "BASE" "FILES")
    get_target_property(type ${target} TYPE)
    if(type STREQUAL INTERFACE_LIBRARY)
        set(scope INTERFACE)
    else()
        set(scope PUBLIC)
        # finds its neighbours beside itself, wherever the installation is moved to
        set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
    endif()
    target_sources(${target} ${scope} FILE_SET HEADERS BASE_DIRS ${arg_BASE} FILES ${arg_FILES})
    set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
    install(TARGETS ${target} EXPORT lxbaseTargets
        RUNTIME COMPONENT runtime
        LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE COMPONENT development
        FILE_SET HEADERS COMPONENT development)
endfunction()

function(lx_hide_symbols name)
    set_target_properties(${name} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON)
endfunction()

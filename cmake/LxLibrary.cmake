# What every shared library of this project has in common.

# lx_shared_library(<name> <source>...): a versioned shared library, the alias lxbase::<name>,
# symbols hidden unless exported. The folder of the caller is its include root.
function(lx_shared_library name)
    add_library(${name} SHARED ${ARGN})
    add_library(lxbase::${name} ALIAS ${name})
    lx_hide_symbols(${name})
    set_target_properties(${name} PROPERTIES
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR})
    target_include_directories(${name} PUBLIC
        $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endfunction()

function(lx_hide_symbols name)
    set_target_properties(${name} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON)
endfunction()

# The installed package: CMake package and pkg-config file, both relocatable, and Debian packages.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/lxbase)
install(EXPORT lxbaseTargets NAMESPACE lxbase:: DESTINATION ${package_dir} COMPONENT development)
set(client_plugin_dir ${CMAKE_INSTALL_LIBDIR}/lxclient/plugins)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/lxbaseConfig.cmake.in lxbaseConfig.cmake
    INSTALL_DESTINATION ${package_dir}
    PATH_VARS client_plugin_dir)
write_basic_package_version_file(lxbaseConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/lxbaseConfig.cmake
    ${PROJECT_BINARY_DIR}/lxbaseConfigVersion.cmake
    DESTINATION ${package_dir} COMPONENT development)

# pkg-config: paths relative to the file itself; siblings that are not ours bring files of their own
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pc_to_prefix /${pc_dir} /)
set(pc_libs -llxbase)
foreach(sibling IN ITEMS lxevent lxmsg lxutils)
    if(NOT sibling IN_LIST LXBASE_EXTERNAL_SIBLINGS)
        string(APPEND pc_libs " -l${sibling}")
    endif()
endforeach()
list(JOIN LXBASE_EXTERNAL_SIBLINGS " " pc_external)
configure_file(${CMAKE_CURRENT_LIST_DIR}/lxbase.pc.in lxbase.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/lxbase.pc DESTINATION ${pc_dir} COMPONENT development)

# What a plugin author copies.
install(DIRECTORY
    ${PROJECT_SOURCE_DIR}/examples/plugin-template ${PROJECT_SOURCE_DIR}/examples/window-template
    DESTINATION ${CMAKE_INSTALL_DATADIR}/lxbase COMPONENT development)

# The documentation with what it refers to, in folders as in the tree, so that its links lead
# somewhere; what lies elsewhere once it is installed, the README's links follow.
set(docs ${CMAKE_INSTALL_DATADIR}/doc/liblxbase-dev)
file(RELATIVE_PATH docs_to_prefix /${docs} /)
set(headers ${docs_to_prefix}${CMAKE_INSTALL_INCLUDEDIR})
set(templates ${docs_to_prefix}${CMAKE_INSTALL_DATADIR}/lxbase)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS README.md)
file(READ README.md readme)
string(REPLACE "](shell/" "](${headers}/" readme "${readme}")
string(REPLACE "](client)" "](${headers}/lxclient)" readme "${readme}")
string(REPLACE "](examples/plugin-template)" "](${templates}/plugin-template)" readme "${readme}")
string(REPLACE "](examples/window-template)" "](${templates}/window-template)" readme "${readme}")
file(WRITE ${PROJECT_BINARY_DIR}/README.md "${readme}")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples
    DESTINATION ${docs} COMPONENT development
    FILES_MATCHING PATTERN "*.md" PATTERN "*.json" PATTERN "*.png" PATTERN "*.yml" PATTERN "main.cpp"
    REGEX "/08-spread-alert/.*"
    REGEX "/own-siblings/.*"
    PATTERN plugin-template EXCLUDE
    PATTERN window-template EXCLUDE)
install(FILES ${PROJECT_SOURCE_DIR}/bench/results.md DESTINATION ${docs}/bench COMPONENT development)
install(FILES
    ${PROJECT_BINARY_DIR}/README.md
    ${PROJECT_SOURCE_DIR}/CHANGELOG.md
    ${PROJECT_SOURCE_DIR}/CONTRIBUTING.md
    DESTINATION ${docs} COMPONENT development)

# Debian packages, one per component, with dependencies worked out from the binaries. Best made from
# a build that was configured for /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "The lxbase maintainers <maintainers@lxbase.invalid>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
foreach(library IN ITEMS lxbase lxevent lxmsg lxobserve lxutils) # where the client's needs are looked up
    if(TARGET ${library} AND NOT library IN_LIST LXBASE_EXTERNAL_SIBLINGS)
        get_target_property(folder ${library} BINARY_DIR)
        list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${folder})
    endif()
endforeach()
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME liblxbase${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "${PROJECT_DESCRIPTION}: shared libraries")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME liblxbase-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "qtbase5-dev (>= 5.15), libtbb-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "${PROJECT_DESCRIPTION}: headers, CMake package, plugin template")

if(LXBASE_BUILD_CLIENT)
    list(APPEND CPACK_COMPONENTS_ALL client)
    set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME lxclient)
    set(CPACK_DEBIAN_CLIENT_PACKAGE_SECTION misc)
    set(CPACK_DEBIAN_CLIENT_PACKAGE_DEPENDS libqt5sql5-sqlite) # loaded at run time, for the journal
    set(CPACK_COMPONENT_CLIENT_DEPENDS runtime)
    set(CPACK_COMPONENT_CLIENT_DESCRIPTION
        "${PROJECT_DESCRIPTION}: the reference client and its plugins")
endif()
include(CPack)

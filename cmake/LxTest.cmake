# How the tests of the bus are built.

# lx_add_unit_test(<name> <source>...): a Qt Test program of the objects of the bus, the test support
# and the clock that the test drives, run by ctest.
function(lx_add_unit_test name)
    add_executable(${name} ${ARGN})
    set_target_properties(${name} PROPERTIES AUTOMOC ON)
    target_link_libraries(${name} PRIVATE lxbase_objects lxtest_support lxtest_clock Qt5::Test)
    add_test(NAME ${name} COMMAND ${name})
endfunction()

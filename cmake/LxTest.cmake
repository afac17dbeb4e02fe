# How the tests of the bus are built.

# lx_add_unit_test(<name> [BOTH_IDLE_POLICIES] <source>...): a Qt Test program of the objects of the
# bus, the test support and the clock that the test drives, run by ctest; with BOTH_IDLE_POLICIES
# twice, as <name>.poll and <name>.park.
function(lx_add_unit_test name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "BOTH_IDLE_POLICIES" "" "")
    add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
    set_target_properties(${name} PROPERTIES AUTOMOC ON)
    target_link_libraries(${name} PRIVATE lxbase_objects lxtest_support lxtest_clock Qt5::Test)
    if(arg_BOTH_IDLE_POLICIES)
        foreach(policy poll park)
            add_test(NAME ${name}.${policy} COMMAND ${name})
            set_tests_properties(${name}.${policy} PROPERTIES ENVIRONMENT LXTEST_IDLE=${policy})
        endforeach()
    else()
        add_test(NAME ${name} COMMAND ${name})
    endif()
endfunction()

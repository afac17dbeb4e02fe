# Read by the tsan preset right after project(): puts the library that teaches ThreadSanitizer the
# synchronisation of Qt before Qt in every target of the build.
find_package(Qt5 5.15 REQUIRED COMPONENTS Core)
enable_testing()
add_subdirectory(tests/tsan)
link_libraries($<BUILD_INTERFACE:lxtsan_qt>)

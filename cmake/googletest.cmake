# GoogleTest from Debian's sources, so that every preset, cross and sanitizer builds included, has its own.
set(OVANI_GOOGLETEST_DIR "/usr/src/googletest" CACHE PATH "GoogleTest sources (Debian package googletest)")
set(INSTALL_GTEST OFF CACHE INTERNAL "")
block()
    set(CMAKE_INTERPROCEDURAL_OPTIMIZATION OFF) # its policies would warn
    add_subdirectory("${OVANI_GOOGLETEST_DIR}" "${CMAKE_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL SYSTEM)
endblock()
target_compile_options(gtest PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>) # as in CMakeLists.txt
include(GoogleTest)

# ovani_add_gtest(NAME name SOURCES ... LIBRARIES ...): one test program, each of its tests known to ctest.
# In a sanitizer or cross build every test's name begins with the build's: asan.Suite.Case, arm.Suite.Case.
set(OVANI_TEST_PREFIX "")
if(CMAKE_CROSSCOMPILING)
    set(OVANI_TEST_PREFIX "arm.")
elseif(OVANI_SANITIZE MATCHES "address")
    set(OVANI_TEST_PREFIX "asan.")
elseif(OVANI_SANITIZE MATCHES "thread")
    set(OVANI_TEST_PREFIX "tsan.")
endif()

function(ovani_add_gtest)
    cmake_parse_arguments(ARG "" "NAME" "SOURCES;LIBRARIES" ${ARGN})
    add_executable(${ARG_NAME} ${ARG_SOURCES})
    target_link_libraries(${ARG_NAME} PRIVATE ovani_flags ${ARG_LIBRARIES} GTest::gmock GTest::gtest_main)
    gtest_discover_tests(${ARG_NAME} TEST_PREFIX "${OVANI_TEST_PREFIX}" DISCOVERY_TIMEOUT 60
                         PROPERTIES TIMEOUT 120)
endfunction()

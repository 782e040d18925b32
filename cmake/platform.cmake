# Target `ovani_platform`: what fulfils the headers in platform/, platform/host or a gateway's own libraries.
#
# External libraries are named in link order, by path or as the linker's -l takes them; include directories hold
# headers ("platform/zk_sys_mgr.h") that take the place of ours where the gateway's records are laid out otherwise.

set(OVANI_PLATFORM "host" CACHE STRING "what the daemon runs on: platform/host (host) or other libraries (external)")
set_property(CACHE OVANI_PLATFORM PROPERTY STRINGS host external)
set(OVANI_PLATFORM_LIBRARIES "" CACHE STRING "external: the libraries, in link order")
set(OVANI_PLATFORM_LIBRARY_DIRS "" CACHE STRING "external: where those are that are not named by path")
set(OVANI_PLATFORM_INCLUDE_DIRS "" CACHE STRING "external: headers to prefer to those of platform/")

add_library(ovani_platform INTERFACE)
if(OVANI_PLATFORM STREQUAL "host")
    target_link_libraries(ovani_platform INTERFACE ovani_platform_host)
elseif(OVANI_PLATFORM STREQUAL "external")
    if(NOT OVANI_PLATFORM_LIBRARIES)
        message(FATAL_ERROR "OVANI_PLATFORM=external needs OVANI_PLATFORM_LIBRARIES")
    endif()
    message(STATUS "platform: ${OVANI_PLATFORM_LIBRARIES}; no benchmarks, which look into platform/host")
    set(OVANI_BENCH OFF)
    target_link_directories(ovani_platform INTERFACE ${OVANI_PLATFORM_LIBRARY_DIRS})
    # They call the bus, so it comes behind them.
    target_link_libraries(ovani_platform INTERFACE ${OVANI_PLATFORM_LIBRARIES} ovani_bus Threads::Threads)
else()
    message(FATAL_ERROR "OVANI_PLATFORM is \"${OVANI_PLATFORM}\"; there are host and external")
endif()
add_subdirectory(platform/host)

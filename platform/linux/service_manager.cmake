# The service manager, a room of its own beside the platform's, as it alone needs systemd's library. Where that is
# missing, every service operation fails as not supported.
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
    pkg_check_modules(ZU_SYSTEMD QUIET IMPORTED_TARGET libsystemd)
endif()
option(ZU_SERVICE_CONTROL "Build with service control where systemd's library is there" ON)
if(ZU_SERVICE_CONTROL AND ZU_SYSTEMD_FOUND)
    set(zu_service_sources service_manager.cpp service_bus.cpp service_state.cpp service_dispatcher.cpp
        service_notify.cpp)
    set(zu_service_depends PkgConfig::ZU_SYSTEMD)
else()
    message(STATUS "Built without service control, which needs libsystemd")
    set(zu_service_sources service_manager_none.cpp)
    set(zu_service_depends "")
endif()
list(APPEND zu_service_sources service_error.cpp service_unit.cpp service_volume.cpp)
list(TRANSFORM zu_service_sources PREPEND "${CMAKE_CURRENT_LIST_DIR}/")

# The unit that a service registers for itself is the packaged one, with another program in it.
set(zu_unit_source "${PROJECT_SOURCE_DIR}/packaging/zuGevSvc.service.in")
set(zu_generated "${PROJECT_BINARY_DIR}/generated")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${zu_unit_source}")
set(ZU_SERVICE_PROGRAM zuGevSvc)
file(READ "${zu_unit_source}" zu_unit)
string(CONFIGURE "${zu_unit}" zu_unit @ONLY)
configure_file("${CMAKE_CURRENT_LIST_DIR}/service_unit_template.h.in"
               "${zu_generated}/platform/linux/service_unit_template.h" @ONLY)

zu_room(platform_service SOURCES ${zu_service_sources} DEPENDS zu::platform PRIVATE_DEPENDS ${zu_service_depends})
target_include_directories(zu_platform_service PRIVATE "${zu_generated}")

# The service manager, a room of its own beside the platform's, as it alone needs systemd's library. Where that is
# missing, every service operation fails as not supported.
option(ZU_SERVICE_CONTROL "Build with service control where systemd's library is there" ON)
if(ZU_SERVICE_CONTROL)
    find_package(PkgConfig QUIET)
    if(PkgConfig_FOUND)
        pkg_check_modules(ZU_SYSTEMD QUIET IMPORTED_TARGET GLOBAL libsystemd)
    endif()
endif()

# The unit that a service registers for itself is the packaged one, with another program in it.
set(zu_unit_source "${PROJECT_SOURCE_DIR}/packaging/zuGevSvc.service.in")
set(zu_generated "${PROJECT_BINARY_DIR}/generated")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${zu_unit_source}")
set(ZU_SERVICE_PROGRAM zuGevSvc)
file(READ "${zu_unit_source}" zu_unit)
string(CONFIGURE "${zu_unit}" zu_unit @ONLY)
configure_file("${CMAKE_CURRENT_LIST_DIR}/service_unit_template.h.in"
               "${zu_generated}/platform/linux/service_unit_template.h" @ONLY)

# zu_service_room(NAME SOURCES ... DEPENDS ...): one of the two builds.
function(zu_service_room name)
    cmake_parse_arguments(arg "" "" "SOURCES;DEPENDS" ${ARGN})
    list(APPEND arg_SOURCES service_error.cpp service_unit.cpp service_volume.cpp)
    list(TRANSFORM arg_SOURCES PREPEND "linux/")
    zu_room(${name} SOURCES ${arg_SOURCES} DEPENDS zu::platform PRIVATE_DEPENDS ${arg_DEPENDS})
    target_include_directories(zu_${name} PRIVATE "${zu_generated}")
endfunction()

zu_service_room(platform_service_none SOURCES service_manager_none.cpp service_state.cpp)
if(TARGET PkgConfig::ZU_SYSTEMD)
    zu_service_room(platform_service
        SOURCES service_manager.cpp service_register.cpp service_bus.cpp service_state.cpp service_dispatcher.cpp service_notify.cpp
        DEPENDS PkgConfig::ZU_SYSTEMD)
else()
    message(STATUS "Built without service control, which needs libsystemd")
    add_library(zu::platform_service ALIAS zu_platform_service_none)
endif()

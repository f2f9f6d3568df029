# The service manager's wrapper, a room of its own so that tests can put a scripted service manager under it. A program
# links zu::platform_service beside it.
zu_room(winsvc SOURCES "${CMAKE_CURRENT_LIST_DIR}/WinSvc.cpp" DEPENDS zu::logging zu::platform)

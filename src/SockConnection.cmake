# The camera's UDP endpoint and the camera link over it, as a library of their own, so that their tests need nothing else
# of the daemon. Included by whoever needs zu::sockconnection.
if(NOT TARGET zu_sockconnection)
    zu_room(sockconnection
        SOURCES "${CMAKE_CURRENT_LIST_DIR}/SockConnection.cpp" "${CMAKE_CURRENT_LIST_DIR}/SockControl.cpp"
        DEPENDS zu::gevtlbase zu::logging zu::platform)
endif()

# The Debian packages: `cpack -G DEB` in the build folder, or scripts/package.
set(CPACK_GENERATOR DEB)
set(CPACK_SOURCE_GENERATOR "")
set(CPACK_PACKAGE_NAME zugevsvc)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR ORTOLAN)
set(CPACK_PACKAGE_CONTACT "ORTOLAN maintainers <maintainers@ortolan.example>")
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/packages")
set(CPACK_COMPONENTS_ALL daemon tools client features dev featuresdev)
set(CPACK_COMPONENTS_GROUPING IGNORE)
# The prefix is that of the packages, whatever this build folder installs to by hand.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Sanitized and other test builds need libraries of their own, which no package shall claim to find.
set(zu_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

# A description's first line is the synopsis.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_COMPONENT_DAEMON_DESCRIPTION
"machine-wide service that holds GigE Vision cameras
It takes control of cameras on behalf of the programs of this machine, keeps
their heartbeat, and carries out register and memory accesses for them. This
package contains the service, and a log service that writes its log to the
journal.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"command-line client and simulated camera for GigE Vision
gevctl finds cameras, reads and writes their registers and memory and watches
links through the GigE Vision service. gevsim is a simulated camera with
scripted faults, for trials without hardware.")
set(CPACK_COMPONENT_CLIENT_DESCRIPTION
"client library of the GigE Vision service
The C++ library by which programs use the cameras that the GigE Vision
service of their machine holds.")
set(CPACK_COMPONENT_FEATURES_DESCRIPTION
"camera features by name for the GigE Vision service
The C++ library by which programs read and set a camera's features by the
names of its GenICam description. gevctl loads it for its command feature.")
set(CPACK_COMPONENT_DEV_DESCRIPTION
"client library of the GigE Vision service - development files
Headers, CMake package configuration, pkg-config file and an example for
programs that use the cameras of the GigE Vision service.")
set(CPACK_COMPONENT_FEATURESDEV_DESCRIPTION
"camera features by name for the GigE Vision service - development files
Headers, CMake package configuration, pkg-config file and an example for
programs that read and set a camera's features by name.")

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME zugevsvc)
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "systemd (>= 247), init-system-helpers (>= 1.54)")
set(CPACK_DEBIAN_DAEMON_PACKAGE_RECOMMENDS "dbus")
set(CPACK_DEBIAN_DAEMON_PACKAGE_SUGGESTS "zugevsvc-tools")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zugevsvc-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "zugevsvc, libzugevfeatures${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME libzugevclient${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_CLIENT_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_CLIENT_PACKAGE_RECOMMENDS "zugevsvc")
set(CPACK_DEBIAN_FEATURES_PACKAGE_NAME libzugevfeatures${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_FEATURES_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzugevclient-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libzugevclient${PROJECT_VERSION_MAJOR} (= ${zu_version})")
set(CPACK_DEBIAN_FEATURESDEV_PACKAGE_NAME libzugevfeatures-dev)
set(CPACK_DEBIAN_FEATURESDEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_FEATURESDEV_PACKAGE_DEPENDS
    "libzugevfeatures${PROJECT_VERSION_MAJOR} (= ${zu_version}), libzugevclient-dev (= ${zu_version})")

# Changelog and copyright, which every package carries.
set(zu_doc "${CMAKE_CURRENT_BINARY_DIR}/debian")
configure_file(debian/changelog.in "${zu_doc}/changelog.Debian" @ONLY)
execute_process(COMMAND "${ZU_GZIP}" -9n -c "${zu_doc}/changelog.Debian"
    OUTPUT_FILE "${zu_doc}/changelog.Debian.gz" COMMAND_ERROR_IS_FATAL ANY)
foreach(component daemon tools client features dev featuresdev)
    string(TOUPPER ${component} upper)
    set(name ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    install(FILES "${zu_doc}/changelog.Debian.gz" debian/copyright
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
endforeach()

set(zu_scripts "${CMAKE_CURRENT_SOURCE_DIR}/debian")
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA
    "${zu_scripts}/postinst" "${zu_scripts}/prerm" "${zu_scripts}/postrm" "${zu_scripts}/conffiles")
file(WRITE "${zu_doc}/triggers" "activate-noawait ldconfig\n")
foreach(library client features)
    string(TOUPPER ${library} upper)
    set(name libzugev${library})
    file(WRITE "${zu_doc}/${library}/shlibs"
        "${name} ${PROJECT_VERSION_MAJOR} ${name}${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION})\n")
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA "${zu_doc}/${library}/shlibs" "${zu_doc}/triggers")
endforeach()

include(CPack)

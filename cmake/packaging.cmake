# Installation, the camera's service definitions, the static-runtime link and the Debian
# packages. Included at the end of the top CMakeLists.txt; refers to targets only.
#
# Install tree (relative to CMAKE_INSTALL_PREFIX; the presets use /usr, the camera's layout):
#   bin/korvel-server, bin/korvel-app
#   lib/systemd/system/korvel-server.service        (KORVEL_SYSTEMD_UNITDIR)
#   etc/init.d/S90korvel-server                     (BusyBox-style, for cameras without systemd;
#                                                    /etc/init.d when the prefix ends in /usr)
include(GNUInstallDirs)

set(KORVEL_VERSION 0.1.0)
set(KORVEL_SYSTEMD_UNITDIR "lib/systemd/system" CACHE STRING
    "Where the systemd unit goes, relative to the prefix")

if(KORVEL_STATIC_RUNTIME)
    target_link_options(korvel-server PRIVATE -static-libstdc++ -static-libgcc)
    target_link_options(korvel-app PRIVATE -static-libstdc++ -static-libgcc)
endif()

install(TARGETS korvel-server korvel-app RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Both service definitions start the server where this configuration installs it.
set(KORVEL_SERVER_PATH "${CMAKE_INSTALL_FULL_BINDIR}/korvel-server")
configure_file(${CMAKE_SOURCE_DIR}/packaging/korvel-server.service.in
    ${CMAKE_BINARY_DIR}/packaging/korvel-server.service @ONLY)
configure_file(${CMAKE_SOURCE_DIR}/packaging/korvel-server.init.in
    ${CMAKE_BINARY_DIR}/packaging/S90korvel-server @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/packaging/korvel-server.service
    DESTINATION ${KORVEL_SYSTEMD_UNITDIR})
# /etc sits beside /usr, not inside it. Decided when installing, so that --prefix and DESTDIR
# (and cpack's staging) keep everything inside the tree they were given.
install(CODE "
    get_filename_component(korvel_prefix \"\${CMAKE_INSTALL_PREFIX}\" ABSOLUTE)
    if(korvel_prefix MATCHES \"/usr$\")
        string(REGEX REPLACE \"usr$\" \"etc\" korvel_etc \"\${korvel_prefix}\")
    else()
        set(korvel_etc \"\${korvel_prefix}/etc\")
    endif()
    file(INSTALL DESTINATION \"\${korvel_etc}/init.d\" TYPE PROGRAM
         FILES \"${CMAKE_BINARY_DIR}/packaging/S90korvel-server\")
")

# The install tree, checked: everything in place, the unit accepted by systemd-analyze verify,
# the init script parsed by sh.
if(KORVEL_TESTS)
    add_test(NAME install_tree_and_service
        COMMAND ${CMAKE_COMMAND} -DBUILD_DIR=${CMAKE_BINARY_DIR}
            -DPREFIX=${CMAKE_INSTALL_PREFIX} -DBINDIR=${CMAKE_INSTALL_BINDIR}
            -DUNITDIR=${KORVEL_SYSTEMD_UNITDIR}
            -P ${CMAKE_SOURCE_DIR}/cmake/check-install.cmake)
    set_tests_properties(install_tree_and_service PROPERTIES
        LABELS packaging TIMEOUT 120 SKIP_REGULAR_EXPRESSION "SKIPPED:")
endif()

# cpack -G DEB: korvel_<version>_<arch>.deb of the install tree, binaries stripped.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(KORVEL_DEB_ARCH arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    set(KORVEL_DEB_ARCH amd64)
else()
    set(KORVEL_DEB_ARCH ${CMAKE_SYSTEM_PROCESSOR})
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvel)
set(CPACK_PACKAGE_VERSION ${KORVEL_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "the camera's media-file server for the phone app")
set(CPACK_PACKAGE_CONTACT "korvel developers")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${KORVEL_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
# Listed rather than left to CPACK_DEBIAN_PACKAGE_SHLIBDEPS: dpkg-shlibdeps reads the host's
# architecture and dpkg's records, which a cross build (or a vendor's sysroot) does not match.
# These are what DEB_HOST_ARCH=arm64 dpkg-shlibdeps -O says of both binaries (Debian 12).
if(KORVEL_STATIC_RUNTIME)
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.36), libcjson1 (>= 1.7.13)")
else()
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libcjson1 (>= 1.7.13), \
libdeflate0 (>= 1.0), libgcc-s1 (>= 3.0), libstdc++6 (>= 12)")
endif()
include(CPack)

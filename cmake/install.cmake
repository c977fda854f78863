# What cmake --install puts where, in three components: runtime (what an operator runs), receiver (what a screen
# needs besides) and development (what a component's developer builds with). packaging/ has the files that exist for the installed system alone.
include(CMakePackageConfigHelpers)

set(PCCAST_PACKAGING ${PROJECT_SOURCE_DIR}/packaging)
set(PCCAST_CMAKE_FOLDER ${CMAKE_INSTALL_LIBDIR}/cmake/pccast)
set(PCCAST_PKGCONFIG_FOLDER ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(PCCAST_SAMPLES_FOLDER ${CMAKE_INSTALL_DATADIR}/pccast/samples)

# ---- runtime
install(TARGETS pccast_program diagpccast pccast_feed
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

# The libraries; the links without a version are for linking only.
install(TARGETS pccast qxapi qxapi_ktn vexa_pgl EXPORT pccast-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)

# The links bear the names in the requests of diagpccast, which plays none of them.
foreach(name sample.asf sample.nsc sample.ts CASTFILE.asf CASTFILE2.asf)
    install(FILES ${PROJECT_SOURCE_DIR}/samples/${name}
        DESTINATION ${PCCAST_SAMPLES_FOLDER} COMPONENT runtime)
endforeach()

# For tshark and Wireshark, which load it when told to, or from a plug-in folder.
install(FILES ${PROJECT_SOURCE_DIR}/dissector/pccast.lua
    DESTINATION ${CMAKE_INSTALL_DATADIR}/pccast COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/cli/completion/pccast.bash RENAME pccast
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/cli/completion/_pccast
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/cli/completion/pccast.fish
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT runtime)
install(FILES ${PCCAST_PACKAGING}/pccast.service DESTINATION lib/systemd/system COMPONENT runtime)
install(FILES ${PCCAST_PACKAGING}/pccast.sysusers RENAME pccast.conf
    DESTINATION lib/sysusers.d COMPONENT runtime)
# The pages name the version in their first line.
foreach(page diagpccast.1 pccast.1 pccast-feed.1 pccast.3)
    configure_file(${PCCAST_PACKAGING}/man/${page} ${PROJECT_BINARY_DIR}/packaging/man/${page} @ONLY)
endforeach()
install(FILES
    ${PROJECT_BINARY_DIR}/packaging/man/diagpccast.1
    ${PROJECT_BINARY_DIR}/packaging/man/pccast.1
    ${PROJECT_BINARY_DIR}/packaging/man/pccast-feed.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
install(FILES
    ${PROJECT_SOURCE_DIR}/README.md
    ${PROJECT_SOURCE_DIR}/CHANGELOG.md
    ${PROJECT_SOURCE_DIR}/SECURITY.md
    ${PROJECT_SOURCE_DIR}/LICENSE
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
# The receiver is the program of the runtime. What a screen needs besides is the unit, and the player, which the
# Debian package asks for.
install(FILES ${PCCAST_PACKAGING}/pccast-tune.service DESTINATION lib/systemd/user COMPONENT receiver)
install(PROGRAMS ${PROJECT_SOURCE_DIR}/examples/receiver.py
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pccast-receiver/examples COMPONENT receiver)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT runtime)

# ---- development
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/pccast
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/framework/include/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pccast-framework COMPONENT development)

install(EXPORT pccast-targets NAMESPACE pccast::
    DESTINATION ${PCCAST_CMAKE_FOLDER} COMPONENT development)
configure_package_config_file(${PCCAST_PACKAGING}/pccast-config.cmake.in
    ${PROJECT_BINARY_DIR}/packaging/pccast-config.cmake INSTALL_DESTINATION ${PCCAST_CMAKE_FOLDER})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/pccast-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/packaging/pccast-config.cmake
    ${PROJECT_BINARY_DIR}/packaging/pccast-config-version.cmake
    DESTINATION ${PCCAST_CMAKE_FOLDER} COMPONENT development)

# The prefix is found from where the file stands, so that an installed tree can be moved.
file(RELATIVE_PATH PCCAST_PREFIX_FROM_PKGCONFIG /${PCCAST_PKGCONFIG_FOLDER} /)
string(REGEX REPLACE "/$" "" PCCAST_PREFIX_FROM_PKGCONFIG ${PCCAST_PREFIX_FROM_PKGCONFIG})
configure_file(${PCCAST_PACKAGING}/pccast.pc.in ${PROJECT_BINARY_DIR}/packaging/pccast.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/pccast.pc
    DESTINATION ${PCCAST_PKGCONFIG_FOLDER} COMPONENT development)

install(FILES ${PROJECT_BINARY_DIR}/packaging/man/pccast.3
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/examples/component.c ${PROJECT_SOURCE_DIR}/examples/CMakeLists.txt
    DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT development)

include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)

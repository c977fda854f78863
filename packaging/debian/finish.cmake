# Run by CPack on each component's staged files before they are packed. Nothing here changes the build.

file(GLOB_RECURSE paths LIST_DIRECTORIES FALSE ${CPACK_TEMPORARY_DIRECTORY}/*)
foreach(path ${paths})
    if(IS_SYMLINK ${path})
        continue()
    endif()
    # The libraries are where the loader looks for them anyway.
    if(path MATCHES "/usr/bin/|\\.so\\.")
        file(RPATH_REMOVE FILE ${path})
    endif()
    # Programs are to be run, all else to be read.
    if(NOT path MATCHES "/usr/bin/")
        file(CHMOD ${path} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    endif()
    if(path MATCHES "/share/man/")
        execute_process(COMMAND gzip -9nf ${path} COMMAND_ERROR_IS_FATAL ANY)
    endif()
endforeach()

# Every package has its licence and its changelog, and the changelog begins with the version that is packed.
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^pccast \\(${CPACK_PACKAGE_VERSION}\\) ")
    message(FATAL_ERROR "packaging/debian/changelog has no entry of ${CPACK_PACKAGE_VERSION} on top: ${newest}")
endif()
foreach(component runtime receiver development)
    if(component STREQUAL runtime)
        set(package pccast)
    elseif(component STREQUAL receiver)
        set(package pccast-receiver)
    else()
        set(package pccast-dev)
    endif()
    set(root ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share/doc/${package})
    # A checkout may be writable for the group.
    file(COPY ${CMAKE_CURRENT_LIST_DIR}/copyright ${CMAKE_CURRENT_LIST_DIR}/changelog DESTINATION ${root}
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    execute_process(COMMAND gzip -9nf ${root}/changelog COMMAND_ERROR_IS_FATAL ANY)
endforeach()

set(overrides ${CPACK_TEMPORARY_DIRECTORY}/runtime/usr/share/lintian/overrides)
file(MAKE_DIRECTORY ${overrides})
file(COPY_FILE ${CMAKE_CURRENT_LIST_DIR}/lintian-overrides ${overrides}/pccast)
file(CHMOD ${overrides}/pccast PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

# Run by cpack on the folders to be packed, one for each package: adds what only a Debian package has, and makes it as
# policy asks.
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} prefix)
    set(package ${CPACK_DEBIAN_${prefix}_PACKAGE_NAME})
    set(folder ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}/usr)
    set(doc ${folder}/share/doc/${package})

    file(COPY ${CMAKE_CURRENT_LIST_DIR}/copyright ${CMAKE_CURRENT_LIST_DIR}/changelog.Debian DESTINATION ${doc})
    file(READ ${CMAKE_CURRENT_LIST_DIR}/overrides overrides)
    file(WRITE ${folder}/share/lintian/overrides/${package} "${overrides}")

    # cpack strips programs and shared libraries only, and makes folders by the user's umask.
    file(GLOB_RECURSE archives ${folder}/lib/*.a)
    if(archives)
        set(strip strip --strip-debug --remove-section=.comment --enable-deterministic-archives)
        execute_process(COMMAND ${strip} ${archives} COMMAND_ERROR_IS_FATAL ANY)
    endif()
    execute_process(COMMAND gzip -9n ${doc}/changelog.Debian COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND chmod --recursive u=rwX,go=rX ${folder} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

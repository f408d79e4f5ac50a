# Run by cpack on the folder to be packed: adds what only a Debian package has, and makes it as policy asks.
set(folder ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr)
set(doc ${folder}/share/doc/velarto)

file(COPY ${CMAKE_CURRENT_LIST_DIR}/copyright ${CMAKE_CURRENT_LIST_DIR}/changelog.Debian DESTINATION ${doc})
file(COPY ${CMAKE_CURRENT_LIST_DIR}/overrides DESTINATION ${folder}/share/lintian)

# cpack strips programs only, and makes folders by the user's umask.
file(GLOB_RECURSE libraries ${folder}/lib/*.a)
set(strip strip --strip-debug --remove-section=.comment --enable-deterministic-archives)
execute_process(COMMAND ${strip} ${libraries} COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND gzip -9n ${doc}/changelog.Debian COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND chmod --recursive u=rwX,go=rX ${folder} COMMAND_ERROR_IS_FATAL ANY)

# Run by cpack on the packages that it made: amends what it has no variable for.

# All in a package, and the package itself, is of the changelog's date, so that its bytes are the same wherever and whenever
# it is made.
execute_process(COMMAND dpkg-parsechangelog --file ${CMAKE_CURRENT_LIST_DIR}/changelog.Debian --show-field Timestamp
    OUTPUT_VARIABLE date OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(ENV{SOURCE_DATE_EPOCH} ${date})

foreach(file IN LISTS CPACK_PACKAGE_FILES)
    set(folder ${CPACK_TEMPORARY_DIRECTORY}/finish)
    file(REMOVE_RECURSE ${folder})
    execute_process(COMMAND dpkg-deb --raw-extract ${file} ${folder} COMMAND_ERROR_IS_FATAL ANY)

    # A shared library's package needs no scripts to call ldconfig: it has the trigger.
    file(REMOVE ${folder}/DEBIAN/postinst ${folder}/DEBIAN/postrm)
    if(CPACK_VELARTO_BUILT_USING AND EXISTS ${folder}/usr/lib/velarto/velarto-cgi)
        file(READ ${folder}/DEBIAN/control control)
        string(PREPEND control "Built-Using: ${CPACK_VELARTO_BUILT_USING}\n")
        file(WRITE ${folder}/DEBIAN/control "${control}")
    endif()
    execute_process(COMMAND find ${folder} -exec touch --no-dereference --date=@${date} {} + COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND dpkg-deb --root-owner-group --build ${folder} ${file}
        OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endforeach()

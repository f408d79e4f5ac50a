# Run by cpack on the packages that it made: amends what it has no variable for.
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
    execute_process(COMMAND dpkg-deb --root-owner-group --build ${folder} ${file}
        OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endforeach()

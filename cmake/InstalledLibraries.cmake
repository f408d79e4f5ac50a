# The library as it is installed, static and shared, of the same objects as the open one that the programs and tests here
# are linked with. A host program's own names may be the same as the library's inner ones: only the functions of the
# installed headers have names outside.

set(VELARTO_HEADERS client/Velarto.h cgi/VeHttpResponse.h eventlog/eventlog.h protocol/QuilTypes.h)

# ---- The names --------------------------------------------------------------------------------------------

# A function's name is the word that stands directly before a parenthesis; one to a line.
set(names "")
foreach(header IN LISTS VELARTO_HEADERS)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS src/${header})
    file(READ src/${header} text)
    string(REGEX REPLACE "/[*]([^*]|[*]+[^*/])*[*]+/" "" text "${text}")
    string(REGEX MATCHALL "[A-Za-z0-9_]+[(][^;]*" functions "${text}")
    foreach(function IN LISTS functions)
        string(REGEX REPLACE "[(].*" "\n" name "${function}")
        string(APPEND names ${name})
    endforeach()
endforeach()
set(names_file ${PROJECT_BINARY_DIR}/velarto-names)
file(CONFIGURE OUTPUT ${names_file} CONTENT "@names@" @ONLY)

string(REPLACE "\n" ";\n" names_of_script "${names}")
set(version_script ${PROJECT_BINARY_DIR}/velarto.map)
file(CONFIGURE OUTPUT ${version_script} CONTENT
    "VELARTO_@PROJECT_VERSION_MAJOR@ {\nglobal:\n@names_of_script@local: *;\n};\n" @ONLY)

# ---- Static: one object, whose other names are its own ----------------------------------------------------

# Inline functions and templates come in groups, of which a linker keeps one for all: here each becomes the object's own.
set(sealed_object ${PROJECT_BINARY_DIR}/velarto-sealed.o)
separate_arguments(compiler_flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
add_custom_command(OUTPUT ${sealed_object}
    COMMAND ${CMAKE_CXX_COMPILER} ${compiler_flags} -nostdlib -r -Wl,--force-group-allocation
        $<TARGET_OBJECTS:velarto> -o ${sealed_object}
    COMMAND ${CMAKE_OBJCOPY} --keep-global-symbols=${names_file} ${sealed_object}
    DEPENDS velarto $<TARGET_OBJECTS:velarto> ${names_file}
    COMMAND_EXPAND_LISTS VERBATIM)
set_source_files_properties(${sealed_object} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
add_library(velarto_static STATIC ${sealed_object})
set_target_properties(velarto_static PROPERTIES
    EXPORT_NAME velarto-static
    ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/installed)

# ---- Shared -----------------------------------------------------------------------------------------------

add_library(velarto_shared SHARED $<TARGET_OBJECTS:velarto>)
target_link_options(velarto_shared PRIVATE -Wl,--version-script=${version_script})
set_target_properties(velarto_shared PROPERTIES
    EXPORT_NAME velarto
    LINK_DEPENDS ${version_script}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/installed)

foreach(library velarto_static velarto_shared)
    set_target_properties(${library} PROPERTIES OUTPUT_NAME velarto LINKER_LANGUAGE CXX)
endforeach()
target_link_libraries(velarto_static PUBLIC Threads::Threads)
target_link_libraries(velarto_shared PRIVATE Threads::Threads)

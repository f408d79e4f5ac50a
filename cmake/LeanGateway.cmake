# The lean gateway: the same sources on musl, a C library that starts in a fraction of the time, with nothing of C++ but
# the language runtime. It looks up users and hosts without modules loaded at run time.
#
# Of g++'s library only headers are used that do not depend on the C library they were configured for; of its archives only
# libsupc++ (operator new, exceptions) and the unwinder. Whatever else a change might draw in stays undefined and fails the
# link.

string(REPLACE "-gnu" "-musl" musl_architecture "${CMAKE_LIBRARY_ARCHITECTURE}")
find_path(VELARTO_MUSL_INCLUDE features.h PATHS /usr/include/${musl_architecture} NO_DEFAULT_PATH)
find_path(VELARTO_MUSL_LIB rcrt1.o PATHS /usr/lib/${musl_architecture} NO_DEFAULT_PATH)

set(VELARTO_LEAN_POSSIBLE OFF)
if(CMAKE_LIBRARY_ARCHITECTURE AND VELARTO_MUSL_INCLUDE AND VELARTO_MUSL_LIB AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    set(VELARTO_LEAN_POSSIBLE ON)
endif()

# velarto_link_lean(TARGET): compiles and links the program, all of whose sources are its own, this way.
function(velarto_link_lean target)
    set(includes -nostdinc -nostdinc++ -isystem ${PROJECT_SOURCE_DIR}/src/lean/include)
    set(compiler_includes ${CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES})
    list(FILTER compiler_includes INCLUDE REGEX "/c\\+\\+/|/gcc/")
    foreach(folder IN LISTS compiler_includes)
        if(folder MATCHES "/gcc/")
            list(APPEND includes -isystem ${VELARTO_MUSL_INCLUDE})
        endif()
        list(APPEND includes -isystem ${folder})
    endforeach()
    list(JOIN includes " " includes)  # as one text, so that no repeated -isystem is taken for a duplicate
    set_target_properties(${target} PROPERTIES COMPILE_FLAGS "${includes} -fPIE -ffunction-sections -fdata-sections")
    set_property(TARGET ${target} PROPERTY POSITION_INDEPENDENT_CODE)  # or CMake adds -pie to -static-pie
    target_compile_definitions(${target} PRIVATE VELARTO_ONE_THREAD)
    target_sources(${target} PRIVATE
        ${PROJECT_SOURCE_DIR}/src/lean/lean_runtime.cpp
        ${PROJECT_SOURCE_DIR}/src/lean/musl_gaps.cpp)

    foreach(object crtbeginS.o crtendS.o)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${object}
            OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
        set(${object} ${path})
    endforeach()
    target_link_options(${target} PRIVATE
        -static-pie -nostdlib -Wl,--gc-sections
        ${VELARTO_MUSL_LIB}/rcrt1.o ${VELARTO_MUSL_LIB}/crti.o ${crtbeginS.o})
    target_link_libraries(${target} PRIVATE
        -Wl,--start-group -l:libsupc++.a -lgcc -lgcc_eh ${VELARTO_MUSL_LIB}/libc.a -Wl,--end-group
        ${crtendS.o} ${VELARTO_MUSL_LIB}/crtn.o)
endfunction()

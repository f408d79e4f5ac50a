# find_package(velarto) ends here: the targets velarto::velarto, the shared library, and velarto::velarto-static.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include("${CMAKE_CURRENT_LIST_DIR}/velarto-targets.cmake")

if(NOT CMAKE_CXX_COMPILER_LOADED)  # a project in C alone, whose linker does not add the C++ library by itself
    get_target_property(velarto_configurations velarto::velarto-static IMPORTED_CONFIGURATIONS)
    foreach(configuration IN LISTS velarto_configurations)
        set_property(TARGET velarto::velarto-static
            PROPERTY IMPORTED_LINK_INTERFACE_LANGUAGES_${configuration} C)
    endforeach()
    set_property(TARGET velarto::velarto-static APPEND PROPERTY INTERFACE_LINK_LIBRARIES stdc++)
endif()

# The Debian package: `cpack` in the build folder makes it of what is installed, with packaging/'s files added.

# The changelog's newest entry names the version; the part after the hyphen counts the packages of one version.
file(STRINGS packaging/changelog.Debian newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^velarto \\(${PROJECT_VERSION}-([0-9]+)\\)")
    message(FATAL_ERROR "packaging/changelog.Debian begins with '${newest}', not with ${PROJECT_VERSION}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_1})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS packaging/changelog.Debian)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velarto)
set(CPACK_PACKAGE_CONTACT "Velarto maintainers <velarto@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/complete.cmake)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"A CGI program that passes each HTTP request of a web server on to an
application server over TCP, and the answer back. One short-lived process
serves one request; the name it is installed under selects its configuration.

With it come a development application server, a program that shows and
changes the configuration, and the client library with its headers.")
set(CPACK_DEBIAN_PACKAGE_SECTION web)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "apache2 | httpd-cgi")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "g++, pkg-config")  # to build a host program

include(CPack)

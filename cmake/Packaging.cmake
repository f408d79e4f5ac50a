# The Debian packages: `cpack` in the build folder makes one of each component that is installed, with packaging/'s files
# added.

# The changelog's newest entry names the version; the part after the hyphen counts the packages of one version.
file(STRINGS packaging/changelog.Debian newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^velarto \\(${PROJECT_VERSION}-([0-9]+)\\)")
    message(FATAL_ERROR "packaging/changelog.Debian begins with '${newest}', not with ${PROJECT_VERSION}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_1})
set(package_version ${PROJECT_VERSION}-${CMAKE_MATCH_1})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS packaging/changelog.Debian)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velarto)
set(CPACK_PACKAGE_CONTACT "Velarto maintainers <velarto@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/complete.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/finish.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL gateway library development)
if(VELARTO_BUILD_ADMIN OR VELARTO_BUILD_CONFORM OR VELARTO_BUILD_DEVSERVER)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(VELARTO_BUILD_FCGI)
    list(APPEND CPACK_COMPONENTS_ALL fcgi)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE velarto)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each description begins with its own

# ---- The gateway ------------------------------------------------------------------------------------------

set(CPACK_DEBIAN_GATEWAY_PACKAGE_NAME velarto)
set(CPACK_DEBIAN_GATEWAY_DESCRIPTION
"CGI gateway to a Velarto application server
A CGI program that passes each HTTP request of a web server on to an
application server over TCP, and the answer back. One short-lived process
serves one request; the name it is installed under selects its configuration.")
set(CPACK_DEBIAN_GATEWAY_PACKAGE_SECTION web)
set(CPACK_DEBIAN_GATEWAY_PACKAGE_RECOMMENDS "velarto-tools, apache2 | httpd-cgi")
set(CPACK_DEBIAN_GATEWAY_PACKAGE_SUGGESTS libvelarto-dev)

# Where the C library is inside the program, the package says which one.
if(gateway_link STREQUAL lean)
    execute_process(COMMAND dpkg-query --show --showformat "\${source:Package} (= \${source:Version})" musl-dev
        OUTPUT_VARIABLE CPACK_VELARTO_BUILT_USING ERROR_QUIET)
endif()

# ---- The host ---------------------------------------------------------------------------------------------

set(CPACK_DEBIAN_FCGI_PACKAGE_NAME velarto-fcgi)
set(CPACK_DEBIAN_FCGI_DESCRIPTION
"FastCGI server to a Velarto application server
One process passes the requests of a web server that speaks FastCGI (nginx,
Apache, lighttpd) on to application servers over TCP, and the answers back. It
follows its configuration, and tells its state to people and to Prometheus.")
set(CPACK_DEBIAN_FCGI_PACKAGE_SECTION web)
set(CPACK_DEBIAN_FCGI_PACKAGE_RECOMMENDS "velarto-tools, nginx | httpd")
set(CPACK_DEBIAN_FCGI_PACKAGE_SUGGESTS "velarto, prometheus")

# ---- The tools --------------------------------------------------------------------------------------------

# Up to this version one package held everything.
set(split_from "velarto (<< 5.5.0-2)")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME velarto-tools)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"configuration and development tools of the Velarto gateway
velarto-config shows, checks and changes the configuration of the CGI gateway
and of host programs; velarto-devserver is a development application server,
which answers as it is told to, wrongly too; velarto-conform tries application
servers, rule by rule of the protocol.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION web)
set(CPACK_DEBIAN_TOOLS_PACKAGE_ENHANCES velarto)
set(CPACK_DEBIAN_TOOLS_PACKAGE_BREAKS ${split_from})
set(CPACK_DEBIAN_TOOLS_PACKAGE_REPLACES ${split_from})

# ---- The library ------------------------------------------------------------------------------------------

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libvelarto${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
"client library of a Velarto application server
With it a program sends requests to an application server as the CGI gateway
does. This package has what a program needs that is linked with it.")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvelarto-dev)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"client library of a Velarto application server (development)
With it a program sends requests to an application server as the CGI gateway
does. This package has the headers, the static library and an example.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} (= ${package_version})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "velarto-tools, pkg-config")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_BREAKS ${split_from})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_REPLACES ${split_from})

include(CPack)

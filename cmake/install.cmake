# Version, installation and the Debian package.
#
# The installed tree is the product root: the program in <root>/bin and its data in <root>/RKU,
# where the program looks for them through PRODUCT_ROOT_D in /etc/hmx/hmx.conf. The default root
# is the program's own compiled-in default, so a default install works without any configuration.
#
# Install components:
#   product  the program and its data (both ways of installing)
#   local    manual, guides and hmx.conf under the root (cmake --install only)
#   deb      the Debian places: /usr/bin link, gzipped manual, /usr/share/doc, /etc/hmx/hmx.conf
#            (EXCLUDE_FROM_ALL: only the package asks for it)

include(GNUInstallDirs)

# --version prints the project version; the package and the installed manual carry it too.
set_source_files_properties(${CMAKE_SOURCE_DIR}/ferrygate/ferrygate.cc PROPERTIES
  COMPILE_DEFINITIONS FERRYGATE_VERSION="${PROJECT_VERSION}")

# CMake's own default, /usr/local, would scatter the data as /usr/local/RKU; build trees configured
# before this rule existed still carry it in their cache.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT OR CMAKE_INSTALL_PREFIX STREQUAL "/usr/local")
  set(CMAKE_INSTALL_PREFIX /usr/local/hmx CACHE PATH "Product root" FORCE)
endif()
set(FERRYGATE_DATA_DIR RKU)
set(FERRYGATE_CONF_DIR etc/hmx CACHE STRING
  "Where cmake --install writes hmx.conf: relative to the prefix, or absolute (/etc/hmx)")
set(FERRYGATE_PACKAGING_DIR ${CMAKE_BINARY_DIR}/packaging)
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# --- product
install(TARGETS ferrygate RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT product)
# Whole directories, so that scripts and agents added later are installed without a rule each.
# An agent's entry point starts with #!, so it is executable like any script.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/data/ DESTINATION ${FERRYGATE_DATA_DIR} COMPONENT product
  REGEX "/agents/[^/]+/[^/]+[.]pl$" PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# The program's temporary files are made here (unless DUMP_TMP_D says otherwise); they hold
# pieces of customers' data, hence no access for others.
install(DIRECTORY DESTINATION ${FERRYGATE_DATA_DIR}/tmp COMPONENT product
  DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)

# --- the manual page, with the version in its title line; the source leaves it out.
file(READ ${CMAKE_SOURCE_DIR}/docs/ferrygate.1 page)
set(title_line "^(\\.TH FERRYGATE 1 [^ ]+ )ferrygate ")
if(page MATCHES "${title_line}")
  string(REGEX REPLACE "${title_line}" "\\1\"ferrygate ${PROJECT_VERSION}\" " page "${page}")
else()
  message(WARNING "docs/ferrygate.1 should begin .TH FERRYGATE 1 YYYY-MM-DD ferrygate: "
    "the installed page names no version")
endif()
set(man ${FERRYGATE_PACKAGING_DIR}/ferrygate.1)
if(EXISTS ${man})
  file(READ ${man} old_page)
endif()
if(NOT page STREQUAL "${old_page}")
  file(WRITE ${man} "${page}")
endif()
set_property(DIRECTORY APPEND PROPERTY
  CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/ferrygate.1)
configure_file(${CMAKE_SOURCE_DIR}/packaging/deb/changelog ${FERRYGATE_PACKAGING_DIR}/changelog
  COPYONLY)
# gzip -n: no name and no time stamp, so that the same input always gives the same package.
add_custom_command(OUTPUT ${man}.gz ${FERRYGATE_PACKAGING_DIR}/changelog.gz
  COMMAND gzip -9nkf ${man} ${FERRYGATE_PACKAGING_DIR}/changelog
  DEPENDS ${man} ${FERRYGATE_PACKAGING_DIR}/changelog VERBATIM)
add_custom_target(ferrygate_package_docs ALL
  DEPENDS ${man}.gz ${FERRYGATE_PACKAGING_DIR}/changelog.gz)

# --- local
install(FILES ${man} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT local)
set(guides ${CMAKE_SOURCE_DIR}/docs/controller-guide.md ${CMAKE_SOURCE_DIR}/docs/architecture.md)
install(FILES ${guides} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT local)
# The configuration naming the root chosen at install time (the prefix given to cmake --install
# wins over the configured one). An existing file belongs to the administrator (or to the
# hosting panel) and is never overwritten.
install(CODE "
  set(dir \"${FERRYGATE_CONF_DIR}\")
  if(NOT IS_ABSOLUTE \"\${dir}\")
    set(dir \"\${CMAKE_INSTALL_PREFIX}/\${dir}\")
  endif()
  set(conf \"\$ENV{DESTDIR}\${dir}/hmx.conf\")
  if(EXISTS \"\${conf}\")
    message(STATUS \"Keeping: \${conf}\")
  else()
    message(STATUS \"Installing: \${conf}\")
    file(WRITE \"\${conf}\"
      \"# Product configuration: where the product's parts live.\\n\"
      \"PRODUCT_ROOT_D \${CMAKE_INSTALL_PREFIX}\\n\")
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${dir}/hmx.conf\")
  endif()
  if(NOT \"\${dir}\" STREQUAL /etc/hmx AND NOT CMAKE_INSTALL_PREFIX STREQUAL /usr/local/hmx)
    message(STATUS
      \"ferrygate reads /etc/hmx/hmx.conf: copy \${dir}/hmx.conf there to use this root\")
  endif()
" COMPONENT local)

# --- deb
file(RELATIVE_PATH program_from_usr_bin /usr/bin
  ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/ferrygate)
install(CODE "file(MAKE_DIRECTORY \"\$ENV{DESTDIR}/usr/bin\")
  file(CREATE_LINK ${program_from_usr_bin} \"\$ENV{DESTDIR}/usr/bin/ferrygate\" SYMBOLIC)"
  COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${man}.gz DESTINATION /usr/share/man/man1 COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${guides} ${CMAKE_SOURCE_DIR}/packaging/deb/copyright
  ${FERRYGATE_PACKAGING_DIR}/changelog.gz
  DESTINATION /usr/share/doc/ferrygate COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/deb/lintian-overrides
  DESTINATION /usr/share/lintian/overrides RENAME ferrygate COMPONENT deb EXCLUDE_FROM_ALL)
file(WRITE ${FERRYGATE_PACKAGING_DIR}/hmx.conf
  "# Product configuration: where the product's parts live.\n"
  "PRODUCT_ROOT_D ${CMAKE_INSTALL_PREFIX}\n")
install(FILES ${FERRYGATE_PACKAGING_DIR}/hmx.conf DESTINATION /etc/hmx
  COMPONENT deb EXCLUDE_FROM_ALL)

# Debian package: the product and deb components in one package; Depends from dpkg-shlibdeps
# plus passwd for the maintainer scripts, which create hmxadm on installation and remove it on
# purge when they made it. scripts/package-check.sh builds it, runs lintian and installs it.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ferrygate)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Ferrygate Maintainers <maintainers@ferrygate.example>")
set(CPACK_PACKAGE_VENDOR "Ferrygate Maintainers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "copies a hosting server's configuration and content over SSH")
set(CPACK_PACKAGE_DESCRIPTION
  "Runs on the destination host of a hosting-server migration: probes the source\n\
host over SSH, deploys a migration agent there, downloads the agent's dump and\n\
the content files with free-space and MD5 checks, and reports progress through\n\
status files in a session directory for the hosting panel to read.")
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL product deb)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS passwd)
configure_file(${CMAKE_SOURCE_DIR}/packaging/deb/postrm.in ${FERRYGATE_PACKAGING_DIR}/postrm
  @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
  WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CMAKE_SOURCE_DIR}/packaging/deb/postinst
  ${FERRYGATE_PACKAGING_DIR}/postrm
  ${CMAKE_SOURCE_DIR}/packaging/deb/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
